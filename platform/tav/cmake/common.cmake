# Settings for a build of the store and for a build that contains the store. The first project that
# includes this decides for the folders below.
include_guard(GLOBAL)

option(TAV_SMALL "Optimised for size, stripped, symbols in separate files" OFF)
option(TAV_SANITIZE "AddressSanitizer and UndefinedBehaviorSanitizer in everything" OFF)
option(TAV_FUZZ "Fuzz targets with libFuzzer and both sanitizers (needs clang)" OFF)

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# Most of the time goes into what each source includes, so several are compiled at once. Off: one at
# a time, for tools that need the command of each.
option(CMAKE_UNITY_BUILD "Compile several sources of a program or library at once" ON)
include(GNUInstallDirs)
include(${CMAKE_CURRENT_LIST_DIR}/warnings.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/optimisation.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/sanitizers.cmake)

find_package(PkgConfig REQUIRED)
# Only the command-line tools need these two; everything else is built without them.
find_package(CLI11 QUIET)
find_package(nlohmann_json QUIET)
if(CLI11_FOUND AND nlohmann_json_FOUND)
  set(tools_can_be_built ON)
else()
  set(tools_can_be_built OFF)
  message(STATUS "CLI11 or nlohmann_json is not installed: the command-line tools are not built")
endif()
