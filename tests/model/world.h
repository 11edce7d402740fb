// Carries out a sequence on a real kernel, with the real daemon and the real store.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "harness/world.h"
#include "operations.h"
#include "prediction.h"

namespace model {

class World : public kt::KernelTest {
public:
    explicit World(const Sequence &sequence);
    ~World() override;

    // Two links, their store nodes, the store and the daemon, quiet.
    void start();
    // Carries out one burst, starts everything that is stopped, and waits until all is quiet.
    std::vector<Done> run(const Burst &burst);
    // A synchronisation without a change, and quiet again.
    void touch();
    // Ends the daemon normally; returns what was wrong, or nothing.
    std::string finish();

    KernelModel seen_kernel();
    StoreModel seen_store();

    // Checks what must always hold: the daemon lives, has no more descriptors or memory than
    // before, and has not rebuilt except because of the last burst. Empty if all is well.
    std::string trouble();
    // The daemon's lines since the last burst or touch began.
    std::vector<kt::line_t> recent_lines();
    std::string recent_text();

private:
    void TestBody() override {}

    Done carry_out(const Operation &operation);
    void link_operation(const Operation &operation, Done &done);
    void store_operation(const Operation &operation);
    void process_operation(const Operation &operation);
    void pause(Pace pace);
    void rest();
    void await_kernel();
    void await_normal_operation(std::size_t from);
    void start_tandrel();
    void overflow();
    bool is_there(int slot) const { return names.count(slot) != 0; }
    void create(int slot);
    bool addresses_are_lasting();

    const Sequence sequence;
    std::map<int, std::string> names; // of the links, by slot
    std::map<int, std::string> peers; // their other ends
    std::set<int> up;                 // slots whose link is up
    std::set<int> coming_up;          // of these, those whose link-local address is awaited
    int created = 0;
    int moved = 0;
    std::uint32_t pauses;
    bool store_runs = false;
    bool rebuild_expected = false;
    std::size_t mark = 0; // where the present burst begins in the daemon's log
    std::size_t usual_descriptors = 0;
    long usual_memory = 0; // KiB
    pid_t measured = 0;
};

} // namespace model
