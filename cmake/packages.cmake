# Debian packages: qel-host with qel-where and the dissector, libqel-dev with the libraries. The programs of the
# factory and of the simulated cabinet need this source tree and are run from it.

include(GNUInstallDirs)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "QEL loader")
set(CPACK_PACKAGE_CONTACT "QEL loader maintainers <maintainers@qel-loader.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL host development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_HOST_PACKAGE_NAME qel-host)
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS python3)
set(CPACK_DEBIAN_HOST_PACKAGE_SUGGESTS wireshark)
set(CPACK_DEBIAN_HOST_DESCRIPTION "host's end of a QEL cabinet's link
qel-host sends updaters, files and queries to a cabinet, answers its questions,
and reads recordings of the link. qel-where explains a place at which the
cabinet's loader has stopped. A dissector shows the link in Wireshark.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "libraries for programs on QEL cabinets and on their hosts
Static libraries with headers and pkg-config files: qel_utility has files,
strings, the console and assertions, qel_tolbrin has the cabinet's board and
its host link.")

# What each package has to say of itself. cmake/compress_docs.cmake compresses it in the package.
string(TIMESTAMP today "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component host development)
  string(TOUPPER ${component} name)
  set(package ${CPACK_DEBIAN_${name}_PACKAGE_NAME})
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/packages/${package}/changelog @ONLY CONTENT
"@package@ (@PROJECT_VERSION@) stable; urgency=medium

  * Release @PROJECT_VERSION@; CHANGELOG.md in the source tree says what is new.

 -- @CPACK_PACKAGE_CONTACT@  @today@
")
  install(FILES ${CMAKE_BINARY_DIR}/packages/${package}/changelog ${PROJECT_SOURCE_DIR}/cmake/copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/compress_docs.cmake)

include(CPack)
