# Common settings of the test programs.

find_package(GTest REQUIRED)
include(GoogleTest)

# They are compiled for a short build rather than a short run. The programs under test are compiled
# as they are shipped.
if(NOT TAV_FUZZ AND NOT CMAKE_CROSSCOMPILING)
  add_compile_options($<$<CONFIG:Release>:-O0>)
endif()

# The headers that most tests include, compiled once. Programs and libraries can share them only if
# both are position-independent in the same way.
unset(CMAKE_POSITION_INDEPENDENT_CODE)
if(NOT TARGET test_headers)
  file(TOUCH ${CMAKE_CURRENT_BINARY_DIR}/test_headers.cpp)
  add_library(test_headers STATIC ${CMAKE_CURRENT_BINARY_DIR}/test_headers.cpp)
  target_link_libraries(test_headers PRIVATE GTest::gtest project_warnings)
  target_precompile_headers(test_headers PRIVATE <gtest/gtest.h> <algorithm> <array> <atomic>
    <chrono> <cstring> <deque> <filesystem> <fstream> <functional> <map> <memory> <optional> <random>
    <set> <sstream> <stdexcept> <string> <thread> <utility> <vector>)
endif()

function(test_program target)
  target_precompile_headers(${target} REUSE_FROM test_headers)
endfunction()

# The property of tests that compute: ctest --resource-spec-file runs one of them at a time on each
# processor, in parallel with tests that mostly wait.
set(computes RESOURCE_GROUPS processors:1)

# The property of tests that wait, many of them for long: they start before the others. Long tests
# that are few have COST 50, so that none of them runs alone at the end.
set(waits COST 100)
