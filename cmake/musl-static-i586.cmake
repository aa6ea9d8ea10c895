# The product's toolchain for the cabinet itself, a 32-bit machine. tools/i586_sysroot.sh supplies the libc.
#
# Its files stand where no compiler looks by itself, so the headers and everything that is linked are named;
# nothing of the 64-bit libc can slip in.

set(QEL_I586 ON)
set(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/i586-sysroot/usr)
get_filename_component(sysroot ${sysroot} ABSOLUTE)
set(libc ${sysroot}/lib/i386-linux-musl)
if(NOT EXISTS ${libc}/libc.a)
  message(FATAL_ERROR "the 32-bit musl is missing: run tools/i586_sysroot.sh")
endif()
execute_process(COMMAND g++ -print-file-name=include
  OUTPUT_VARIABLE compiler_headers OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND g++ -m32 -print-libgcc-file-name
  OUTPUT_VARIABLE libgcc OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)

string(JOIN " " libc_compile_flags
  "-m32 -march=i586 -nostdinc -isystem ${sysroot}/include/i386-linux-musl -isystem ${compiler_headers}")
string(JOIN " " link_command
  "gcc <FLAGS> <CMAKE_CXX_LINK_FLAGS> <LINK_FLAGS> -nostdlib ${libc}/crt1.o ${libc}/crti.o <OBJECTS>"
  "-o <TARGET> <LINK_LIBRARIES> -Wl,--start-group ${libc}/libc.a ${libgcc} -Wl,--end-group ${libc}/crtn.o")
include(${CMAKE_CURRENT_LIST_DIR}/small-static.cmake)
