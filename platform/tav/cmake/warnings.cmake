# The warnings for all code of this project; C code gets those that C has. A warning is an error
# only with CMAKE_COMPILE_WARNING_AS_ERROR, which the developers' presets set, so that new warnings
# of a newer compiler do not break other builds.
add_library(project_warnings INTERFACE)
target_compile_options(project_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wnull-dereference
  $<$<CXX_COMPILER_ID:GNU>:-Wcast-align=strict>
  # It takes each source for a header if several are compiled at once.
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>,$<BOOL:${CMAKE_UNITY_BUILD}>>:-Wno-subobject-linkage>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual>)
