#include "service/event_log.h"

#include <algorithm>

#include "service/garbage.h"
#include "service/path.h"
#include "service/session.h"

namespace tav {

namespace {

// The estimated size of one event in both containers, with the allocator's overhead.
constexpr std::size_t entry_bytes = sizeof(LoggedEvent) + 3 * sizeof(void *) + // in the list
                                    8 * sizeof(void *) + sizeof(std::int32_t); // in the index

std::size_t bytes_of(const LoggedEvent &event) {
    return entry_bytes + event.event.path.capacity() + 1;
}

} // namespace

void EventBatch::add(LoggedEvent event) {
    list.push_back(std::move(event));
    try {
        index.emplace(key_of(list.back()), std::prev(list.end()));
    } catch (...) {
        list.pop_back();
        throw;
    }
    used += bytes_of(list.back());
}

void EventBatch::drop(Index::iterator entry) noexcept {
    const auto event = entry->second;
    used -= bytes_of(*event);
    index.erase(entry); // first: its key is in the event
    list.erase(event);
}

void EventBatch::leave(Events::const_iterator &place) noexcept {
    places.erase(std::remove(places.begin(), places.end(), &place), places.end());
}

void EventBatch::erase_replaced(Events::const_iterator event) noexcept {
    for (Events::const_iterator *place : places) {
        *place = *place == event ? std::next(event) : *place;
    }
    list.erase(event);
}

// Without new memory, so that it cannot fail. The smaller index goes into the larger one, and so
// remains the smaller.
bool EventBatch::absorb(EventBatch &later) noexcept {
    constexpr int at_once = 2048; // which takes two or three milliseconds
    const bool moves_later = later.index.size() < index.size();
    Index &from = moves_later ? later.index : index;
    Index &to = moves_later ? index : later.index;
    used += later.used;
    later.used = 0;
    for (int i = 0; !from.empty(); ++i) {
        if (i == at_once) {
            return false;
        }
        auto node = from.extract(from.begin());
        const auto known = to.find(node.key());
        if (known != to.end()) {
            const auto replaced = moves_later ? known->second : node.mapped();
            LoggedEvent &event = moves_later ? *node.mapped() : *known->second;
            const bool same_author = replaced->author == event.author;
            event.others =
                std::max(event.others, same_author ? replaced->others : replaced->position);
            used -= bytes_of(*replaced);
            // Otherwise the node is not used again.
            if (moves_later) {
                to.erase(known);
            }
            erase_replaced(replaced);
            if (!moves_later) {
                continue;
            }
        }
        to.insert(std::move(node));
    }
    list.splice(list.end(), later.list);
    if (!moves_later) {
        index.swap(later.index);
    }
    return true;
}

void EventBatch::number(std::uint64_t &last) noexcept {
    for (LoggedEvent &event : list) {
        event.position = ++last;
    }
}

bool EventBatch::free_one() noexcept {
    if (!index.empty()) {
        index.erase(index.begin()); // first: its key is in the list
    } else if (!list.empty()) {
        list.pop_front();
    } else {
        return false;
    }
    return true;
}

EventLog::Staged::~Staged() {
    garbage::add(batch);
}

bool EventBatch::forget(std::uint64_t position) noexcept {
    constexpr int at_once = 2048; // which takes two or three milliseconds
    for (int i = 0; i < at_once; ++i) {
        if (list.empty() || list.front().position > position) {
            return true;
        }
        drop(index.find(key_of(list.front())));
    }
    return false;
}

void EventLog::join(Session &session, const std::string &path) {
    const auto known = audiences.find(path);
    if (known != audiences.end()) {
        known->second->members.push_back(&session);
    } else {
        audiences.emplace(path, std::make_shared<Audience>(Audience{path, {&session}}));
    }
}

void EventLog::leave(const Session &session, const std::string &path) {
    const auto entry = audiences.find(path);
    if (entry != audiences.end()) {
        std::vector<Session *> &members = entry->second->members;
        members.erase(std::remove(members.begin(), members.end(), &session), members.end());
        if (members.empty()) {
            audiences.erase(entry);
        }
    }
}

void EventLog::stage(Staged &staged, const Event &event, SessionId author) const {
    bool wanted = false;
    const auto look_for = [&](std::string_view path) {
        const auto audience = audiences.find(path);
        if (audience != audiences.end()) {
            staged.audiences.emplace(audience->second, author);
            wanted = true;
        }
    };
    look_for("/");
    for (std::string_view rest = event.path; rest.size() > 1;) {
        take_name(rest);
        look_for(std::string_view(event.path).substr(0, event.path.size() - rest.size()));
    }
    if (wanted) {
        staged.batch.add(LoggedEvent{event, author, 0, 0});
    }
}

void EventLog::stage(Staged &done) noexcept {
    done.batch.number(last_staged);
    while (!forming.batch.absorb(done.batch)) {
    }
    forming.audiences.merge(done.audiences);
    done.audiences.clear();
}

void EventLog::close_group() noexcept {
    while (merging) {
        merge();
    }
    std::swap(closed, forming);
}

void EventLog::announce(Time now) noexcept {
    for (const auto &[audience, author] : closed.audiences) {
        for (Session *member : audience->members) {
            member->announce(audience->path, author, now);
        }
    }
}

void EventLog::publish(Time now) noexcept {
    const std::uint64_t before = last_published;
    if (!closed.batch.empty()) {
        last_published = closed.batch.events().back().position;
    }
    merge();
    for (const auto &[audience, author] : closed.audiences) {
        for (Session *member : audience->members) {
            member->changed(audience->path, author, before, now);
        }
    }
    closed.audiences.clear();
}

void EventLog::drop_staged() noexcept {
    for (Staged *group : {&closed, &forming}) {
        *group = {};
    }
}

} // namespace tav
