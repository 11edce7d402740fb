// Which fault is staged, where, how often and for how long. A plan is one line of text, a mode and
// any number of settings:
//
//   MODE[:on=OPERATION[+OPERATION...]][:after=N][:every=N][:limit=N][:chance=PERCENT][:seed=N]
//       [:undone][:result=N][:status=N][:path=PATH][:while=FILE]
//
//   on      the operations that the fault strikes (all; of the modes about events, the one that
//           the mode is about)
//   after   so many of them are spared at the start (0)
//   every   each so-manieth of the others is struck (1)
//   limit   so many faults at most (no limit)
//   chance  one that would be struck is, with this likelihood (100)
//   seed    of the random choices (1)
//   undone  an operation that is struck has no effect (otherwise it has, and only its outcome is
//           lost)
//   result  what a failing call returns (-1)
//   status  what a refused path gets (api_status_refused)
//   path    what is removed (needed by the mode about it)
//   while   faults are staged only while this file exists
#ifndef TESTS_FAULTS_PLAN_H
#define TESTS_FAULTS_PLAN_H

#include <tav/mlr.h>

#include <cstdint>
#include <random>
#include <set>
#include <string>

namespace faults {

enum class Mode {
    fail,      // the call returns `result`, its connection is fine
    refuse,    // the call goes through, each of its paths has `status`
    garble,    // the reply makes no sense
    hang,      // there is no reply
    cut,       // the connection ends in the middle of the reply
    overflow,  // the connection ends because of events that were not fetched
    echo,      // the client is told of its own changes
    duplicate, // each event comes twice, and once more later
    reorder,   // the events of one fetch come in any order
    spurious,  // the descriptor is readable although nothing has happened
    vanish     // somebody else removes `path` right before the call
};

enum class Operation { read, list, write, remove, enlist, events, watchdog, ping };

const char *name_of(Mode mode);
const char *name_of(Operation operation);

class Plan {
public:
    // Throws std::invalid_argument, whose text tells what is wrong.
    explicit Plan(const std::string &text);

    Mode mode() const { return what; }
    bool undone() const { return without_effect; }
    int result() const { return returned; }
    api_status_t status() const { return given_status; }
    const std::string &path() const { return removed; }

    // Whether the fault strikes this operation, which is counted; to be asked once for each.
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
    std::uint64_t chance = 100;
    bool without_effect = false;
    int returned = -1;
    api_status_t given_status = api_status_refused;
    std::string removed;
    std::string while_file;

    std::uint64_t seen = 0;
    std::uint64_t struck = 0;
    std::mt19937 random{1};
};

} // namespace faults

#endif
