# Finds the store client library of another provider below the prefix TAV_ROOT. If something is
# missing, configuring ends with one sentence that says what. docs/device-build.md lists what the
# library must have.
set(kit_lib_dirs ${TAV_ROOT}/lib ${TAV_ROOT}/${CMAKE_INSTALL_LIBDIR})
find_path(TAV_INCLUDE_DIR NAMES tav/toolkit.h PATHS ${TAV_ROOT}/include NO_DEFAULT_PATH
  NO_CMAKE_FIND_ROOT_PATH)
find_library(TAV_LIBRARY NAMES libtav.so PATHS ${kit_lib_dirs} NO_DEFAULT_PATH
  NO_CMAKE_FIND_ROOT_PATH)
find_library(TAVXX_LIBRARY NAMES libtav++.so PATHS ${kit_lib_dirs} NO_DEFAULT_PATH
  NO_CMAKE_FIND_ROOT_PATH)

set(kit_lacks "")
foreach(header mlr.h toolkit.h)
  if(NOT EXISTS ${TAV_ROOT}/include/tav/${header})
    list(APPEND kit_lacks include/tav/${header})
  endif()
endforeach()
if(NOT TAV_LIBRARY)
  list(APPEND kit_lacks lib/libtav.so)
endif()
if(NOT TAVXX_LIBRARY)
  list(APPEND kit_lacks lib/libtav++.so)
endif()
if(kit_lacks)
  list(JOIN kit_lacks ", " kit_lacks)
  message(FATAL_ERROR "The store client library at TAV_ROOT=${TAV_ROOT} is not complete: "
    "${kit_lacks} not found there.")
endif()

# kit_try(RESULT OUTPUT TARGET-TYPE): compiles tav_kit_check.cpp, and links it if the type is
# EXECUTABLE.
function(kit_try result output type)
  set(CMAKE_TRY_COMPILE_TARGET_TYPE ${type})
  unset(kit_works CACHE)
  try_compile(kit_works
    SOURCES ${PROJECT_SOURCE_DIR}/cmake/tav_kit_check.cpp
    CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${TAV_INCLUDE_DIR};${PROJECT_SOURCE_DIR}"
    LINK_LIBRARIES ${TAVXX_LIBRARY} ${TAV_LIBRARY}
    OUTPUT_VARIABLE text
    CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
  set(${result} ${kit_works} PARENT_SCOPE)
  unset(kit_works CACHE)
  set(${output} "${text}" PARENT_SCOPE)
endfunction()

kit_try(kit_compiles kit_text STATIC_LIBRARY)
if(NOT kit_compiles)
  string(REGEX MATCHALL "error: [^\n]*" kit_errors "${kit_text}")
  list(JOIN kit_errors "\n  " kit_errors)
  message(FATAL_ERROR "The headers at TAV_ROOT=${TAV_ROOT} do not declare what the daemon uses:\n"
    "  ${kit_errors}")
endif()

kit_try(kit_links kit_text EXECUTABLE)
if(NOT kit_links)
  string(REGEX MATCHALL "undefined reference to `[^'\n]*" kit_symbols "${kit_text}")
  list(TRANSFORM kit_symbols REPLACE "undefined reference to `" "")
  list(REMOVE_DUPLICATES kit_symbols)
  list(JOIN kit_symbols "\n  " kit_symbols)
  if(kit_symbols)
    message(FATAL_ERROR "The libraries at TAV_ROOT=${TAV_ROOT} lack functions that the daemon "
      "calls:\n  ${kit_symbols}")
  elseif(kit_text MATCHES "wrong format|incompatible|wrong ELF class|architecture")
    message(FATAL_ERROR "The libraries at TAV_ROOT=${TAV_ROOT} are for another machine than "
      "${CMAKE_CXX_COMPILER} builds for.")
  endif()
  message(FATAL_ERROR "The libraries at TAV_ROOT=${TAV_ROOT} cannot be linked:\n${kit_text}")
endif()

add_library(tav_client INTERFACE)
target_include_directories(tav_client SYSTEM INTERFACE ${TAV_INCLUDE_DIR})
target_link_libraries(tav_client INTERFACE ${TAVXX_LIBRARY} ${TAV_LIBRARY})
add_library(tav::client ALIAS tav_client)
