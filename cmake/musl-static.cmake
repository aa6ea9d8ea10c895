# The product's toolchain for x86-64.
#
# The link runs through gcc, not g++, so that the C++ run-time library is never on the link line: the
# product links nothing but libc, and a stray use of the C++ library fails here instead of growing it.

file(GLOB musl_specs /usr/lib/*-linux-musl/musl-gcc.specs)
if(NOT musl_specs)
  message(FATAL_ERROR "musl-gcc.specs not found: apt-get install musl-tools")
endif()

set(libc_compile_flags "-specs ${musl_specs}")
set(link_command
  "gcc <FLAGS> <CMAKE_CXX_LINK_FLAGS> <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
include(${CMAKE_CURRENT_LIST_DIR}/small-static.cmake)
