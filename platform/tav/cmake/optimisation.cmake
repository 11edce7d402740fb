# The level that Debian's packages are built with, rather than CMake's own -O3.
set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

# A release for small devices (-DTAV_SMALL=ON): optimised for size, without unused code, stripped.
# The symbols of each program and library are next to it in <name>.debug, where a debugger finds
# them.
if(TAV_SMALL)
  set(CMAKE_C_FLAGS_RELEASE "-Os -g -DNDEBUG")
  set(CMAKE_CXX_FLAGS_RELEASE "-Os -g -DNDEBUG")
  add_compile_options(-ffunction-sections -fdata-sections)
  add_link_options(-Wl,--gc-sections -Wl,--as-needed)
endif()

# Call this for each program and library that is installed. The names in a crash backtrace are
# dynamic symbols, which are kept.
function(make_small)
  if(NOT TAV_SMALL)
    return()
  endif()
  foreach(target IN LISTS ARGN)
    set(file $<TARGET_FILE:${target}>)
    add_custom_command(TARGET ${target} POST_BUILD
      COMMAND ${CMAKE_OBJCOPY} --only-keep-debug ${file} ${file}.debug
      COMMAND ${CMAKE_STRIP} --strip-unneeded ${file}
      COMMAND ${CMAKE_OBJCOPY} --add-gnu-debuglink=${file}.debug ${file}
      VERBATIM)
  endforeach()
endfunction()
