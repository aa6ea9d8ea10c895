# GoogleTest for a target that Debian's ready library is not made for: built from the sources of the package
# googletest. Included at the end of project(), before the project's own warnings.
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
# What find_package(GTest) finds: nothing is left to do.
file(WRITE ${CMAKE_FIND_PACKAGE_REDIRECTS_DIR}/gtest-config.cmake "")
