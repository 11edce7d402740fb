#include "fakes/daemon_main.h"

fake_os::ending_t ending_of_daemon(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "tandrel");
    std::vector<char *> argv;
    for (auto &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return fake_os::ending_of(
        [&argv] { return tandrel_main(static_cast<int>(argv.size()) - 1, argv.data()); });
}
