# What the product's toolchains share: g++ against musl, fully static, optimised for size. A toolchain file
# sets libc_compile_flags and link_command, then includes this one.

get_filename_component(sources ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER g++)

string(JOIN " " CMAKE_CXX_FLAGS_INIT
  "${libc_compile_flags} -nostdinc++"
  # A buffer that is written beyond its end, or a stack that grows into something else, ends the program.
  "-fstack-protector-strong -fstack-clash-protection"
  # The same bytes wherever the sources stand.
  "-fdebug-prefix-map=${sources}=."
  # No exception tables, no guards, no notes: nothing in the product unwinds or is shared.
  "-fno-exceptions -fno-rtti -fno-threadsafe-statics"
  "-fno-asynchronous-unwind-tables -fno-unwind-tables -fno-ident"
  "-ffunction-sections -fdata-sections -fno-pie")
set(CMAKE_CXX_FLAGS_MINSIZEREL_INIT "-g")

string(JOIN " " CMAKE_EXE_LINKER_FLAGS_INIT
  "-static -no-pie"
  "-Wl,--gc-sections -Wl,--build-id=sha1 -Wl,--hash-style=gnu"
  # One page size and no padding between segments: the file and its memory stay small.
  "-Wl,-z,noseparate-code -Wl,-z,max-page-size=4096 -Wl,-z,norelro")
set(CMAKE_CXX_LINK_EXECUTABLE "${link_command}")
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
