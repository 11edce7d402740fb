// Which fault is injected, where, how often and for how long. A plan is one line of text, a mode
// and any number of settings:
//
//   MODE[:on=OPERATION[+OPERATION...]][:after=N][:every=N][:limit=N][:undone]
//       [:result=N][:path=PATH][:while=FILE]
//
//   on      the operations that the fault affects (default: all; for modes about events, the one
//           that the mode is about)
//   after   number of operations at the start that are not affected (0)
//   every   only every Nth of the others is affected (1)
//   limit   largest number of faults (no limit)
//   undone  an affected operation has no effect (otherwise it has, and only its result is lost)
//   result  result of a failing call (-1)
//   path    the path to remove (required by the mode that removes)
//   while   faults are injected only while this file exists
#pragma once

#include <cstdint>
#include <random>
#include <set>
#include <string>

namespace faults {

enum class Mode {
    fail,      // the call returns `result`, its connection still works
    refuse,    // the call succeeds, each of its paths has the status "refused"
    garble,    // the reply is malformed
    hang,      // there is no reply
    cut,       // the connection ends in the middle of the reply
    overflow,  // the connection ends because of events that were not fetched
    echo,      // the client gets events for its own changes
    duplicate, // each event is sent twice, and once more later
    reorder,   // the events of one fetch are in random order
    spurious,  // the descriptor is readable although nothing has happened
    vanish     // another client removes `path` right before the call
};

enum class Operation { read, list, write, remove, enlist, events, watchdog, ping };

const char *name_of(Mode mode);
const char *name_of(Operation operation);

class Plan {
public:
    // Throws std::invalid_argument, whose text says what is wrong.
    explicit Plan(const std::string &text);

    Mode mode() const { return what; }
    bool undone() const { return without_effect; }
    int result() const { return returned; }
    const std::string &path() const { return removed; }

    // Whether the fault affects this operation, which is counted; call this once for each
    // operation.
    bool strikes(Operation operation);
    // A random number from 0 to `bound` - 1; `bound` is at least 1.
    std::size_t below(std::size_t bound);

private:
    void set(const std::string &key, const std::string &value);

    Mode what = Mode::fail;
    std::set<Operation> where;
    std::uint64_t spared = 0;
    std::uint64_t every = 1;
    std::uint64_t most = UINT64_MAX;
    bool without_effect = false;
    int returned = -1;
    std::string removed;
    std::string while_file;

    std::uint64_t seen = 0;
    std::uint64_t struck = 0;
    std::mt19937 random{1};
};

} // namespace faults
