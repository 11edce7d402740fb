#include "client/read_ahead.h"

#include <algorithm>
#include <utility>

#include "client/calls.h"
#include "service/path.h"

namespace tav {

namespace {

// A read-ahead is worthwhile if it saves at least one exchange for each of these many bytes: an
// exchange takes as long as some ten thousand bytes of a long answer.
constexpr std::size_t bytes_per_answer = 8192;
constexpr std::size_t most_patience = 1024;
// Calls with more paths, or with more bytes of values, are left to the service, which knows how
// much one answer may hold.
constexpr std::size_t most_paths = 1000;
constexpr std::size_t most_value_bytes = std::size_t{1} << 20;

} // namespace

bool ReadAhead::covers(const std::string &top, const std::vector<std::string> &paths) const {
    return !top.empty() && !paths.empty() &&
           std::all_of(paths.begin(), paths.end(), [&](auto &p) { return is_at_or_below(p, top); });
}

// Forgets the memory, and judges whether it was worth reading.
void ReadAhead::drop() {
    voided = false;
    if (memory.path().empty()) {
        return;
    }
    calls = 0;
    if (answers * bytes_per_answer >= memory.bytes()) {
        patience = 1;
    } else {
        patience = std::min(2 * patience, most_patience);
        node.clear();
    }
    memory.clear();
}

bool ReadAhead::take_notice(std::uint32_t serial) {
    std::uint32_t &due = serial == held ? held : before;
    if (serial == 0 || serial != due) {
        return false;
    }
    voided = voided || serial == held;
    due = 0;
    return true;
}

void ReadAhead::listed(const std::string &path) {
    if (wanted && (node.empty() || !is_at_or_below(path, node))) {
        node = path;
        calls = 0;
    }
}

// True when the memory may answer for these paths.
bool ReadAhead::prepare(Connection &connection, const std::vector<std::string> &paths) {
    if (std::exchange(asks, false) || !wanted || paths.size() > most_paths ||
        !connection.usable()) {
        return false;
    }
    if (voided || (!memory.path().empty() && connection.has_arrived())) {
        drop();
    }
    if (covers(memory.path(), paths)) {
        connection.answered_here(); // an exchange will revoke that
        return true;
    }
    if (!covers(node, paths) || node == too_large || ++calls < patience) {
        return false;
    }
    return fetch(connection);
}

bool ReadAhead::fetch(Connection &connection) {
    const std::string path = node;
    drop();
    node = path;
    calls = 0;
    answers = 0;
    Writer request = connection.request(Op::read_ahead);
    put(request, std::string_view(path));
    before = std::exchange(held, connection.last_serial());
    Snapshot::Taken taken = Snapshot::Taken::none;
    const int result = perform(connection, Op::read_ahead, request, [&](Reader &reader) {
        taken = memory.take(path, std::string(reader.remaining()));
        if (taken == Snapshot::Taken::malformed) {
            reader.fail();
        } else {
            reader = Reader(std::string_view());
        }
    });
    before = 0;
    if (taken != Snapshot::Taken::all) {
        too_large = path;
        node.clear();
    }
    return result == call_done && taken == Snapshot::Taken::all;
}

bool ReadAhead::read(Connection &connection, const std::vector<std::string> &paths,
                     std::vector<LeafAnswer> &found) {
    if (!prepare(connection, paths)) {
        return false;
    }
    found.resize(paths.size());
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        if (!memory.leaf(paths[i], found[i])) {
            return false;
        }
        bytes += found[i].value.text.size();
        if (bytes > most_value_bytes) {
            return false;
        }
    }
    ++answers;
    return true;
}

bool ReadAhead::list(Connection &connection, const std::string &path, api_status_t &status,
                     std::vector<Child> &children) {
    if (!prepare(connection, {path}) || !memory.list(path, status, children)) {
        return false;
    }
    ++answers;
    return true;
}

} // namespace tav
