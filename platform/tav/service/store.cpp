#include "service/store.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <utility>

#include "service/garbage.h"

namespace tav {

Store::Store(const Nodes &initial_nodes) : storage(std::make_unique<NoStorage>()) {
    for (const std::string &path : initial_nodes) {
        transact({Item{ItemKind::make_node, path, {}}},
                 [](const std::string & /*path*/) { return false; });
    }
}

Store::Store(std::unique_ptr<Storage> other) : storage(std::move(other)) {}

Store::Store(const std::string &file, Durability durability, const Nodes &initial_nodes)
    : storage(std::make_unique<Database>(file, durability, initial_nodes, committed)) {
    walk(committed, "/", [this](const std::string &path, const Element &element) {
        sizes.note(path, element);
        return true;
    });
    forming.tree = committed;
}

void Store::keep_history(const HistoryBounds &bounds) {
    Records stored;
    const std::uint64_t last = storage->begin_history(bounds, stored);
    past.begin(bounds, stored, last);
}

void Store::resume_terms(Time now, std::int64_t wall_clock) {
    PendingChanges all;
    for (const PendingPtr &stored : storage->take_pending()) {
        all.emplace(stored->change.number, resumed(*stored, now, wall_clock));
    }
    committed_pending = std::make_shared<const PendingChanges>(std::move(all));
    forming.pending = committed_pending;
}

bool Store::holds(std::string_view path, const Author &author, bool with_term) const {
    return std::any_of(pending_next().begin(), pending_next().end(), [&](const auto &entry) {
        const Pending &pending = *entry.second;
        const bool free = author.service || pending.change.uid == author.uid;
        return (with_term || !free) && touches(pending, path);
    });
}

PendingPtr Store::prepare(Transaction &done, const Author &author, const Term &term) const {
    PendingPtr made =
        make_pending(past.entry(done.changes(), author, std::time(nullptr), limits::pending_bytes),
                     term, wall_clock());
    return made->change.changes.empty() ? nullptr : made;
}

void Store::open_group() {
    if (!forming.result) {
        forming.result = std::make_shared<Result>();
        forming.sizes = committing() ? at_storage.sizes : sizes;
    }
}

std::shared_ptr<const Store::Result> Store::join(Transaction &done, EventLog::Staged &staged,
                                                 const Author &author, const Step &step) {
    Edit::Changes rows;
    const SharedPending pending = after(step, rows);
    open_group();
    // Whoever reads the history must learn that a change was reverted, even if nothing was left.
    if (!done.changes().empty() || step.ends) {
        const std::int64_t now = step.begins ? step.begins->change.time : std::time(nullptr);
        past.record(done.changes(), rows.empty() ? done.changes().back() : rows.back(), author, now,
                    forming.records);
    }
    if (step.begins) {
        past.use_number();
    }
    forming.tree = done.tree();
    forming.pending = pending;
    forming.changes.splice(forming.changes.end(), done.changes());
    forming.changes.splice(forming.changes.end(), rows);
    forming.sizes.raise(done.largest());
    log.stage(staged);
    return forming.result;
}

std::shared_ptr<const Store::Result> Store::keep(const PendingPtr &pending) {
    Edit::Changes rows;
    const SharedPending left = after({nullptr, pending}, rows);
    open_group();
    forming.pending = left;
    forming.changes.splice(forming.changes.end(), rows);
    return forming.result;
}

// The changes that wait after the step, and what it does to the rows of the database.
Store::SharedPending Store::after(const Step &step, Edit::Changes &rows) const {
    if (!step.begins && !step.ends) {
        return forming.pending;
    }
    auto all = std::make_shared<PendingChanges>(*forming.pending);
    if (step.begins) {
        all->emplace(step.begins->change.number, step.begins);
        rows.push_back(begins(step.begins));
    }
    if (step.ends) {
        all->erase(step.ends->change.number);
        rows.push_back(ends(step.ends));
    }
    return all;
}

void Store::Group::end(bool stored) noexcept {
    garbage::add(changes);
    if (result) {
        result->known = true;
        result->stored = stored;
        result.reset();
    }
}

const Edit::Changes &Store::close_group() noexcept {
    at_storage.tree = forming.tree;
    at_storage.pending = forming.pending;
    at_storage.sizes = forming.sizes;
    at_storage.changes.swap(forming.changes);
    at_storage.records.swap(forming.records);
    at_storage.result.swap(forming.result);
    log.close_group();
    return at_storage.changes;
}

void Store::finish(bool stored, Time now) noexcept {
    if (stored) {
        if (before_reveal) {
            before_reveal(committed, at_storage.tree);
        }
        changed += at_storage.changes.empty() ? 0U : 1U;
        committed = at_storage.tree;
        committed_pending = at_storage.pending;
        sizes = at_storage.sizes;
        past.add(at_storage.records);
        log.publish(now);
    } else {
        past.drop(at_storage.records);
        past.drop(forming.records);
        log.drop_staged();
        at_storage.tree = committed;
        forming.tree = committed;
        forming.pending = committed_pending;
        forming.end(false);
        ++refused;
    }
    at_storage.end(stored);
}

void Store::commit(Time now) {
    const Edit::Changes &changes = close_group();
    finish(changes.empty() || storage->commit(changes), now);
}

api_status_t read_leaf(const Tree &tree, std::string_view path, const Value *&value) {
    value = nullptr;
    const api_status_t status = check_path(path);
    if (status != api_status_ok) {
        return status;
    }
    const Element *element = tree.find(path);
    if (element == nullptr) {
        return api_status_absent;
    }
    if (element->is_node()) {
        return api_status_wrong_kind;
    }
    value = &element->value();
    return api_status_ok;
}

std::vector<api_status_t> Store::transact(const std::vector<Item> &items,
                                          const Transaction::Unseen &unseen, SessionId session,
                                          Time now, const Author &author) {
    Writer encoded;
    put_all(encoded, items);
    const std::string frame = encoded.finish();
    EventLog::Staged staged;
    Transaction transaction(forming.tree, std::string_view(frame).substr(length_bytes),
                            std::time(nullptr), byte_limit, unseen,
                            [&](const Event &event) { log.stage(staged, event, session); });
    Transaction::State state = Transaction::State::working;
    while (state == Transaction::State::working) {
        state = transaction.advance();
    }
    std::vector<api_status_t> statuses = transaction.statuses();
    if (state == Transaction::State::complete) {
        const auto result = join(transaction, staged, author);
        commit(now);
        if (!result->stored) {
            statuses.assign(statuses.size(), api_status_failed);
        }
    }
    return statuses;
}

} // namespace tav
