# Calls that leave the daemon for the system. References to them, in the daemon's objects and in the
# tests, are bound to the functions of fake_os.cpp and log_capture.cpp.
set(wrapped_calls
  select syslog openlog closelog
  setpriority sched_setscheduler setuid getuid getpwnam
  fork wait waitpid setsid chdir umask open dup close
  pipe sigaction write backtrace backtrace_symbols abort exit _exit
  setsockopt inet_ntop free
  _ZNSt6chrono3_V212steady_clock3nowEv)
list(TRANSFORM wrapped_calls PREPEND "-Wl,--wrap=")
target_link_options(unit_tests PRIVATE ${wrapped_calls})
