// A transaction in preparation: the items of one request, carried out on a copy of the tree a part
// at a time.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "service/edit.h"
#include "service/event_log.h"

namespace tav {

// The largest sizes of the elements of a tree.
struct Sizes {
    std::size_t path_bytes = 0;
    std::size_t depth = 0;
    std::size_t name_bytes = 0;
    std::size_t value_bytes = 0;
    std::size_t children = 0; // of one node

    void note(std::string_view path, const Value &value);
    void note(std::string_view path, const Element &element);
    void raise(const Sizes &other);
};

class Transaction {
public:
    // Whether the writer has yet to fetch another client's event on a path or on a leaf below it: a
    // transaction that would change such a leaf, or create such a node, is refused as a whole with
    // api_status_stale.
    using Unseen = std::function<Found(const std::string &)>;
    // Whether the writer may not change the element because of a change that has yet to be
    // confirmed: such a transaction is refused with api_status_pending.
    using Held = std::function<bool(const std::string &)>;
    // Receives the events that the transaction causes, in order.
    using Emit = std::function<void(Event)>;

    enum class State {
        working,
        malformed, // the items are
        refused,   // nothing may be changed
        complete   // what it changes may be committed
    };

    // `encoded` are the items as in the request; it must outlive the transaction. `most_bytes`: of
    // the tree afterwards.
    Transaction(const Tree &base, std::string_view encoded, std::int64_t now,
                std::size_t most_bytes, Unseen unseen_changes, Emit emit_event,
                Held held_elements = {});
    // Refuses every item, once they have been checked.
    void deny();

    // Does a part that takes well under a millisecond.
    State advance();

    // One for each item, once the state is refused or complete.
    const std::vector<api_status_t> &statuses() const { return results; }
    // Of a complete one: the tree with the changes, and those that must be stored.
    const Tree &tree() const { return edit.tree(); }
    Edit::Changes &changes() { return edit.changes(); }
    const Sizes &largest() const { return sizes; }

    // See Edit::with().
    std::optional<Tree> with(const Edit::Changes &earlier) const;
    void go_on_from(Tree tree) noexcept { edit.go_on_from(std::move(tree)); }

private:
    enum class Phase { applying, skipping, examining, judging };

    bool next_item();
    void apply();
    void refuse(api_status_t status);
    void examine(const Change &change);
    bool is_stale(const Change &change);
    void judge();

    const std::string_view encoded;
    Reader in;               // after the current item
    std::uint32_t number;    // of items
    std::uint32_t taken = 0; // of them
    Item item;               // the last one taken
    bool at_work = false;    // it is not yet carried out
    std::size_t work = 0;    // of the present part, see advance()
    Phase phase = Phase::applying;
    State state = State::working;

    Edit edit;
    std::size_t byte_limit;
    Unseen unseen;
    Emit emit;
    Held held;
    std::vector<api_status_t> results;
    Edit::Changes::const_iterator examined;
    std::string clean; // a created node with no event below it that the writer has yet to fetch
    Sizes sizes;
    // Elements that may not be changed, and why.
    std::map<std::string, api_status_t, std::less<>> objections;
};

} // namespace tav
