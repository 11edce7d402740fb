# Fuzz targets: with TAV_FUZZ programs that search for inputs, otherwise tests that run the inputs kept
# in the tree.
include_guard(GLOBAL)

add_library(fuzz_harness INTERFACE)
target_include_directories(fuzz_harness INTERFACE ${CMAKE_CURRENT_LIST_DIR}/../tests)
target_link_libraries(fuzz_harness INTERFACE project_warnings)
if(TAV_FUZZ)
  # Only the code under test guides the search; the rest is not instrumented, for speed.
  target_compile_options(fuzz_harness INTERFACE -fno-sanitize=all)
endif()

add_library(fuzz_support OBJECT ${CMAKE_CURRENT_LIST_DIR}/../tests/fuzz/fuzz.cpp)
if(NOT TAV_FUZZ)
  target_sources(fuzz_support PRIVATE ${CMAKE_CURRENT_LIST_DIR}/../tests/fuzz/replay.cpp)
endif()
target_link_libraries(fuzz_support PRIVATE fuzz_harness)

add_custom_target(fuzz_targets)

# fuzz_target(NAME OBJECTS...): NAME.cpp of the current folder with these objects. Its first inputs,
# including past failures, are in NAME.seeds, and its dictionary is NAME.dict.
function(fuzz_target name)
  add_executable(fuzz_${name} ${name}.cpp $<TARGET_OBJECTS:fuzz_support> ${ARGN})
  target_link_libraries(fuzz_${name} PRIVATE fuzz_harness)
  add_dependencies(fuzz_targets fuzz_${name})
  if(TAV_FUZZ)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  else()
    add_test(NAME fuzz.${name} COMMAND fuzz_${name} ${CMAKE_CURRENT_SOURCE_DIR}/${name}.seeds)
    set_tests_properties(fuzz.${name} PROPERTIES TIMEOUT 300 LABELS fuzz ${computes})
  endif()
endfunction()
