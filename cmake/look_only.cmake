# For the preset style, which wants the findings of clang-tidy and no programs: the compiler, by its launcher, only
# preprocesses each source, so that ninja learns what it includes, and nothing is linked. Included at the end of
# project().
set(CMAKE_CXX_CREATE_STATIC_LIBRARY "<CMAKE_COMMAND> -E touch <TARGET>")
set(CMAKE_CXX_LINK_EXECUTABLE "<CMAKE_COMMAND> -E touch <TARGET>")
set(CMAKE_STRIP true)
# Sources that other builds compile.
add_library(looked_at OBJECT ${CMAKE_SOURCE_DIR}/src/i586_division.cpp)
file(GLOB examples CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/examples/*.cpp)
target_sources(looked_at PRIVATE ${examples})
target_compile_features(looked_at PRIVATE cxx_std_20)
target_include_directories(looked_at PRIVATE ${CMAKE_SOURCE_DIR}/src)
