// The usage text, as it must be printed.
#pragma once

#include <string>

inline std::string usage_of(const std::string &program) {
    return "Usage: " + program +
           " [-u <user>] [-n <prio>] [-r <policy> <prio>] [-i <interface>] [-d] [-D [... | "
           "<N>]]\n"
           "\t-u: Run as the given <user> (name or UID)\n"
           "\t-n: Use normal scheduling with given priority\n"
           "\t-r: Use real-time scheduling with given policy & priority\n"
           "\t-i: Use given interface string rather than default 'eth'\n"
           "\t-d: Do not daemonize/fork\n"
           "\t-D: Increase/set debugging verbosity\n"
           "\n"
           "The priority field for normal scheduling is a number between -20 and 19, with\n"
           "-20 being the \"best\" number.  This option utilizes setpriority(2) to set the\n"
           "priority under \"normal\" scheduling policy.\n"
           "\n"
           "The policy used for real-time scheduling ('-r') can be one of:\n"
           "'normal', 'batch', 'fifo', or 'rr'.  See sched_setscheduler(2) for a detailed\n"
           "description of these policies, and their allowed priority ranges.\n"
           "\n"
           "You must have appropriate permissions in order to use the options -n, -r,\n"
           "and -u.  If unsure, execute '" +
           program +
           " -d' and make sure there are no\n"
           "error messages.\n"
           "\n";
}
