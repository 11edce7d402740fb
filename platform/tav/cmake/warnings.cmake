# The warnings for all code of this project; C code gets those that C has. A warning is an error
# only with CMAKE_COMPILE_WARNING_AS_ERROR, which the developers' presets set, so that new warnings
# of a newer compiler do not break other builds.
add_library(project_warnings INTERFACE)
target_compile_options(project_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wnull-dereference
  $<$<CXX_COMPILER_ID:GNU>:-Wcast-align=strict>
  # If several sources are compiled at once, GCC takes each for a header, and Clang objects to a local
  # name that another source has.
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<BOOL:${CMAKE_UNITY_BUILD}>>:$<IF:$<CXX_COMPILER_ID:GNU>,-Wno-subobject-linkage,-Wno-shadow>>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual>)
