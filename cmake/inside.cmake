# Programs that run inside the simulated cabinets, built for each whose Debian is there: this computer's own for
# x86-64, what machine/set_up.sh unpacks for i586.

# add_inside(NAME LINK_OPTIONS SOURCE...): an executable for each, NAME-TARGET here, machine/TARGET/NAME as a file
# of the build.
function(add_inside name link_options)
  foreach(target IN ITEMS x86-64 i586)
    if(NOT TARGET cabinet_inside-${target})
      continue()
    endif()
    add_executable(${name}-${target} ${ARGN})
    target_link_libraries(${name}-${target} PRIVATE cabinet_inside-${target})
    target_link_options(${name}-${target} PRIVATE ${link_options})
    set_target_properties(${name}-${target} PROPERTIES
      OUTPUT_NAME ${name} RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/machine/${target})
    add_dependencies(inside_programs ${name}-${target})
  endforeach()
endfunction()
