// The events that clients have not fetched yet. All clients share one copy of each event: for a
// client, only its position in the log is stored, just after the last event that it fetched. So an
// event costs the same however many clients wait for it.
//
// Events of completed transactions are staged: first in the group being assembled (the transactions
// that will be committed together), then in the closed group (being committed). When the commit has
// succeeded, they are published: clients can fetch them.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "protocol/messages.h"
#include "service/blocks.h"
#include "service/wake.h"

namespace tav {

class Session;

// Sessions have numbers above 0. 0: no session made the change.
using SessionId = std::uint64_t;

// The sessions that have registered for a path.
struct Audience {
    std::string path;
    std::vector<Session *> members;
};

// The change of one leaf. A later event with the same path and command replaces it. The new event
// goes to the end, so that the last event on a path always describes its present state, and the
// remaining events of each transaction stay together.
struct LoggedEvent {
    Event event;
    SessionId author = 0;       // of the last change
    std::uint64_t position = 0; // in the log; increases
    // The position of the latest replaced event with another author; 0: none.
    std::uint64_t others = 0;

    // Whether another session made any of these changes after that position.
    bool foreign_to(SessionId session, std::uint64_t after) const {
        return author != session ? position > after : others > after;
    }
};

// The result of a search: whether an event was found, and how many were examined.
struct Found {
    Found(bool is_there, std::size_t number = 0) : there(is_there), examined(number) {}

    bool there;
    std::size_t examined;
};

// Events in order, at most one of each path and command.
class EventBatch {
public:
    using Events = std::list<LoggedEvent, BlockAllocator<LoggedEvent>>;

    EventBatch() = default;
    EventBatch(EventBatch &&) = default; // a copy would refer to the other's list
    EventBatch &operator=(EventBatch &&) = default;

    // The batch must not have an event with this path and command yet.
    void add(LoggedEvent event);
    // Moves events of a later batch to this one, two thousand per call. Returns true when
    // `later` is empty. Until then each batch has some of the events, and neither may be changed.
    bool absorb(EventBatch &later) noexcept;
    // Frees one entry. Returns false if there is none.
    bool free_one() noexcept;
    // Removes events up to that position, two thousand per call. Returns false if some may
    // remain.
    bool forget(std::uint64_t position) noexcept;
    // Numbers the events from `last` + 1, and sets `last` to the last number.
    void number(std::uint64_t &last) noexcept;
    // Until leave(), moves `place` to the next event when the one that it refers to is replaced.
    // May throw std::bad_alloc.
    void follow(Events::const_iterator &place) { places.push_back(&place); }
    void leave(Events::const_iterator &place) noexcept;

    const Events &events() const { return list; }
    bool empty() const { return list.empty(); }
    std::size_t size() const { return list.size(); }
    // Memory used.
    std::size_t bytes() const { return used; }
    // Whether `wanted` is true for an event at or below the path. Examines at most `left` events,
    // and subtracts the number examined from it; if there are more, returns true.
    template <typename Wanted>
    bool any_at_or_below(const std::string &path, Wanted wanted, std::size_t &left) const {
        const std::string below = path == "/" ? path : path + '/';
        for (auto entry = index.lower_bound(Key(path, 0));
             entry != index.end() && entry->first.first == path; ++entry) {
            if (left-- == 0 || wanted(*entry->second)) {
                return true;
            }
        }
        for (auto entry = index.lower_bound(Key(below, 0));
             entry != index.end() && entry->first.first.substr(0, below.size()) == below; ++entry) {
            if (left-- == 0 || wanted(*entry->second)) {
                return true;
            }
        }
        return false;
    }

private:
    using Key = std::pair<std::string_view, std::int32_t>; // the text is in the list
    using Index = std::map<Key, Events::iterator, std::less<>,
                           BlockAllocator<std::pair<const Key, Events::iterator>>>;

    void drop(Index::iterator entry) noexcept;
    void erase_replaced(Events::const_iterator event) noexcept;
    static Key key_of(const LoggedEvent &event) { return {event.event.path, event.event.command}; }

    Events list;
    Index index;
    std::size_t used = 0;
    std::vector<Events::const_iterator *> places; // see follow()
};

class EventLog {
public:
    // Adds a registration until leave(); the session keeps its own record of it. Must not be called
    // while events are staged: the registration would miss them. May throw std::bad_alloc, and has
    // no effect then.
    void join(Session &session, const std::string &path);
    void leave(const Session &session, const std::string &path);

    // What a transaction in preparation will add. The destructor leaves the events to `garbage`,
    // because freeing many of them takes long.
    struct Staged {
        Staged() = default;
        Staged(Staged &&) = default;
        Staged &operator=(Staged &&other) noexcept {
            std::swap(batch, other.batch);
            std::swap(audiences, other.audiences);
            return *this;
        }
        ~Staged();

        EventBatch batch;
        std::set<std::pair<std::shared_ptr<Audience>, SessionId>> audiences; // with the author
    };
    // Adds an event if a session has registered for it.
    void stage(Staged &staged, const Event &event, SessionId author) const;
    // Adds a completed transaction to the group being assembled. Its events are later than all
    // others. Fast, unless both the transaction and the group have many events.
    void stage(Staged &done) noexcept;
    std::size_t staged() const { return forming.batch.size(); }
    // Closes the assembled group, which is now being committed, and begins a new one. The commit of
    // the previous group must have ended. If its events are still being merged, this takes longer.
    void close_group() noexcept;
    // Wakes the clients before the commit. Only for a commit that ends before the service does
    // anything else. If it is refused, the clients find no event.
    void announce(Time now) noexcept;
    // The closed group was committed: publishes its events, and wakes the clients unless announce()
    // did. If there are many events, they are merged with the others by further calls of merge();
    // meanwhile clients cannot fetch.
    void publish(Time now) noexcept;
    bool merges() const { return merging; }
    void merge() noexcept { merging = !log.absorb(closed.batch); }
    // The commit was refused: discards both groups.
    void drop_staged() noexcept;

    // Without those that are being merged.
    EventBatch &published() { return log; }
    const EventBatch &published() const { return log; }
    // The same as EventBatch::any_at_or_below(), of the events that are published, and of those
    // that are not.
    template <typename Wanted>
    bool any_published(const std::string &path, Wanted wanted, std::size_t &left) const {
        return log.any_at_or_below(path, wanted, left) ||
               (merging && closed.batch.any_at_or_below(path, wanted, left));
    }
    template <typename Wanted>
    bool any_staged(const std::string &path, Wanted wanted, std::size_t &left) const {
        return (!merging && closed.batch.any_at_or_below(path, wanted, left)) ||
               forming.batch.any_at_or_below(path, wanted, left);
    }
    // The position of the last published event.
    std::uint64_t end() const { return last_published; }
    // Removes events up to that position, which no session needs any more. See
    // EventBatch::forget(). Must not be called while events are merged.
    bool forget(std::uint64_t position) noexcept { return log.forget(position); }

private:
    EventBatch log;
    Staged closed; // being committed, or merged into `log`
    Staged forming;
    bool merging = false;
    std::map<std::string, std::shared_ptr<Audience>, std::less<>> audiences;
    std::uint64_t last_published = 0;
    std::uint64_t last_staged = 0;
};

} // namespace tav
