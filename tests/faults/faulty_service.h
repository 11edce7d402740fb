// The settings store's service, which injects the faults of a plan for clients that have registered
// for events or with the watchdog. All others are served normally, so that a test can read the real
// state.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "faults/plan.h"
#include "service/service.h"

namespace faults {

class FaultyService : public tav::Service {
public:
    FaultyService(tav::Store &served, std::string database, Plan staged);

    // Carries a victim's requests out at once.
    Begun begin(tav::Session &session, std::string_view body, std::string &reply,
                std::unique_ptr<tav::Task> &task) override;

private:
    struct Victim {
        std::string registered;       // a path that it has registered for, if any
        std::vector<tav::Event> late; // sent once more with the next fetch
    };
    struct Request {
        tav::RequestHeader header;
        Operation operation = Operation::read;
        std::string_view content;
    };

    static bool look_at(std::string_view body, Request &request);
    bool handle_victim(tav::Session &session, Victim &victim, const Request &request,
                       std::string_view body, std::string &reply);
    Victim *victim_of(const tav::Session &session, const Request &request);
    bool stage(tav::Session &session, const Request &request, std::string_view body,
               std::string &reply);
    bool refuse(tav::Session &session, const Request &request, std::string_view body,
                std::string &reply);
    bool register_with_own_changes(tav::Session &session, const Request &request,
                                   std::string &reply);
    void garble(std::string &reply);
    void cut(std::string &reply);
    void alter_events(tav::Session &session, Victim &victim, bool struck, std::string &reply);
    void remove_as_somebody_else();
    void make_readable(tav::Session &session, const Victim &victim);
    void end(tav::Session &session, const Victim &victim);

    Plan plan;
    std::map<std::uint64_t, Victim> victims; // by session
};

} // namespace faults
