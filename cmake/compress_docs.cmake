# Run by CPack before it packs: manual pages and changelogs are compressed in a Debian package.
file(GLOB_RECURSE documents ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.[1-8] ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/changelog)
execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)
