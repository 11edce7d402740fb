// Clients that try to stop all others: how much each attack slows down a well-behaved client, and
// how much memory the service uses.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <thread>

#include "stress/measure.h"
#include "stress/swarm.h"

namespace {

using Strings = std::vector<std::string>;

void beside(stress::Service &service, const char *name, bool &served, std::chrono::seconds span,
            const std::vector<std::unique_ptr<stress::Swarm>> &attack) {
    const stress::Measured measured = stress::measure(span);
    stress::print(("  " + std::string(name)).c_str(), measured);
    served = served && measured.served;
    std::printf("%46s memory: %ld MiB meanwhile\n", "", stress::memory(service) / 1024);
    std::fflush(stdout);
    static_cast<void>(attack); // goes on until now
}

bool run(Strings options, std::chrono::seconds span, const std::string &like) {
    const bool both = stress::can_be_foreign();
    if (both) {
        const Strings more = stress::foreign_options();
        options.insert(options.end(), more.begin(), more.end());
    }
    stress::Service service(TAVD_PROGRAM, options);
    service.start();
    stress::fill();
    bool served = true;
    beside(service, "alone", served, span, {});
    for (const bool foreign : {false, true}) {
        if (foreign && !both) {
            std::printf("  (only root can be another user)\n");
            continue;
        }
        std::printf("  by %s user:\n", foreign ? "another" : "the same");
        for (const stress::Attack &attack : stress::attacks()) {
            if (std::string(attack.name).find(like) == std::string::npos) {
                continue;
            }
            beside(service, attack.name, served, span, attack.begin(service, foreign));
            stress::measure(std::chrono::seconds(2));
        }
    }
    std::printf("%46s memory: %ld MiB at the end\n", "", stress::memory(service) / 1024);
    return served;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"Measures how much clients that try to stop a well-behaved one slow it down."};
    int seconds = 5;
    std::string mode;
    app.add_option("--seconds", seconds, "for each line")->capture_default_str();
    app.add_option("--only", mode, "memory, normal or full");
    std::string like;
    app.add_option("--like", like, "only attacks with this in their names");
    CLI11_PARSE(app, argc, argv);
    try {
        stress::print_head();
        const std::chrono::seconds span(seconds);
        bool served = true;
        const auto run_mode = [&](const char *name, const Strings &options) {
            if (mode.empty() || mode == name) {
                std::printf("%s\n", name);
                served = run(options, span, like) && served;
            }
        };
        run_mode("memory", {"--memory"});
        run_mode("normal", {"--database", "%store.db", "--durability", "normal"});
        run_mode("full", {"--database", "%store.db"});
        return served ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
