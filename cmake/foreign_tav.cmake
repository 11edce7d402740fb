# The store client library of another provider, under the prefix TAV_ROOT.
find_path(TAV_INCLUDE_DIR NAMES tav/toolkit.h PATHS ${TAV_ROOT}/include NO_DEFAULT_PATH)
find_library(TAV_LIBRARY NAMES tav PATHS ${TAV_ROOT}/lib ${TAV_ROOT}/${CMAKE_INSTALL_LIBDIR} NO_DEFAULT_PATH)
find_library(TAVXX_LIBRARY NAMES tav++ PATHS ${TAV_ROOT}/lib ${TAV_ROOT}/${CMAKE_INSTALL_LIBDIR} NO_DEFAULT_PATH)
foreach(part TAV_INCLUDE_DIR TAV_LIBRARY TAVXX_LIBRARY)
  if(NOT ${part})
    message(FATAL_ERROR
      "TAV_ROOT=${TAV_ROOT} must hold include/tav/mlr.h, include/tav/toolkit.h, lib/libtav.so and "
      "lib/libtav++.so; ${part} was not found there.")
  endif()
endforeach()

add_library(tav_client INTERFACE)
target_include_directories(tav_client SYSTEM INTERFACE ${TAV_INCLUDE_DIR})
target_link_libraries(tav_client INTERFACE ${TAVXX_LIBRARY} ${TAV_LIBRARY})
add_library(tav::client ALIAS tav_client)
