# What everything of this project is compiled with. C code gets the part that C knows. A warning is an
# error only with CMAKE_COMPILE_WARNING_AS_ERROR, which the developers' presets set: the warnings of a
# newer compiler break nobody's build.
add_library(project_warnings INTERFACE)
target_compile_options(project_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wnull-dereference
  $<$<CXX_COMPILER_ID:GNU>:-Wcast-align=strict>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual -Wcast-qual>)
