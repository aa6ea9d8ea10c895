# Sets QEL_VERSION from the file VERSION, and QEL_COMMIT, which is empty outside a git checkout. CMake runs again when
# either changes.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../VERSION QEL_VERSION LIMIT_COUNT 1)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/../VERSION)
set(QEL_COMMIT "")
if(EXISTS ${CMAKE_SOURCE_DIR}/.git)
  execute_process(COMMAND git -C ${CMAKE_SOURCE_DIR} describe --always --dirty --abbrev=10 --exclude=*
    OUTPUT_VARIABLE QEL_COMMIT OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  execute_process(COMMAND git -C ${CMAKE_SOURCE_DIR} rev-parse --path-format=absolute --git-path logs/HEAD
    OUTPUT_VARIABLE head OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(EXISTS "${head}")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${head})
  endif()
endif()
