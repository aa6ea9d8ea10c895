# The product's toolchain: g++ against musl, fully static, optimised for size.
#
# The link runs through gcc, not g++, so that the C++ run-time library is never on the link line: the
# product links nothing but libc, and a stray use of the C++ library fails here instead of growing it.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER g++)

file(GLOB musl_specs /usr/lib/*-linux-musl/musl-gcc.specs)
if(NOT musl_specs)
  message(FATAL_ERROR "musl-gcc.specs not found: apt-get install musl-tools")
endif()

string(JOIN " " CMAKE_CXX_FLAGS_INIT
  "-specs ${musl_specs} -nostdinc++"
  # No exception tables, no guards, no notes: nothing in the product unwinds or is shared.
  "-fno-exceptions -fno-rtti -fno-threadsafe-statics"
  "-fno-asynchronous-unwind-tables -fno-unwind-tables -fno-ident"
  "-ffunction-sections -fdata-sections -fno-pie")
set(CMAKE_CXX_FLAGS_MINSIZEREL_INIT "-g")

string(JOIN " " CMAKE_EXE_LINKER_FLAGS_INIT
  "-static -no-pie"
  "-Wl,--gc-sections -Wl,--build-id=none -Wl,--hash-style=gnu"
  # One page size and no padding between segments: the file and its memory stay small.
  "-Wl,-z,noseparate-code -Wl,-z,max-page-size=4096 -Wl,-z,norelro")
set(CMAKE_CXX_LINK_EXECUTABLE
  "gcc <FLAGS> <CMAKE_CXX_LINK_FLAGS> <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
