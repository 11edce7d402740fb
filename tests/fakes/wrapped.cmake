# Calls that leave the daemon for the system. References to them, in the daemon's objects and in the
# tests, are bound to the functions of fake_os.cpp, fake_os_calls.cpp
# and log_capture.cpp.
set(wrapped_calls
  select syslog openlog closelog
  setpriority sched_setscheduler setuid getuid getpwnam
  fork wait waitpid setsid chdir umask open dup close
  pipe sigaction write alarm backtrace backtrace_symbols abort exit _exit
  setsockopt inet_ntop free mlr_init)
list(TRANSFORM wrapped_calls PREPEND "-Wl,--wrap=")
target_link_options(unit_tests PRIVATE ${wrapped_calls})

# The entry point, under a name of its own, so that its order of operations can be tested.
target_sources(unit_tests PRIVATE ${PROJECT_SOURCE_DIR}/shell/main.cpp)
set_source_files_properties(${PROJECT_SOURCE_DIR}/shell/main.cpp
  PROPERTIES COMPILE_DEFINITIONS main=tandrel_main SKIP_PRECOMPILE_HEADERS ON)

# What the built daemon exports is tested on the daemon itself, and on a library that refers to it.
add_library(mlr_err_caller MODULE ${CMAKE_CURRENT_SOURCE_DIR}/shell/mlr_err_caller.c)
target_link_libraries(mlr_err_caller PRIVATE project_warnings)
add_dependencies(unit_tests tandrel mlr_err_caller)
target_compile_definitions(unit_tests PRIVATE
  TANDREL_EXECUTABLE="$<TARGET_FILE:tandrel>"
  MLR_ERR_CALLER="$<TARGET_FILE:mlr_err_caller>")
