#include "service/store.h"

#include <algorithm>
#include <ctime>
#include <utility>

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
    group.tree = committed;
}

std::shared_ptr<const Store::Result> Store::join(Transaction &done, EventLog::Staged &staged) {
    if (!group.result) {
        group.result = std::make_shared<Result>();
        group.sizes = sizes;
    }
    group.tree = done.tree();
    group.changes.splice(group.changes.end(), done.changes());
    group.sizes.raise(done.largest());
    log.stage(staged);
    return group.result;
}

void Store::commit(Time now) {
    finish(group.changes.empty() || storage->commit(group.changes), now);
}

void Store::finish(bool stored, Time now) noexcept {
    if (stored) {
        changed += group.changes.empty() ? 0U : 1U;
        std::swap(committed, group.tree);
        sizes = group.sizes;
        log.publish(now);
    } else {
        log.drop_staged();
    }
    group.tree = committed;
    group.changes.clear();
    group.result->known = true;
    group.result->stored = stored;
    group.result.reset();
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
                                          const Transaction::Unseen &unseen, SessionId author,
                                          Time now) {
    Writer encoded;
    put_all(encoded, items);
    const std::string frame = encoded.finish();
    EventLog::Staged staged;
    Transaction transaction(group.tree, std::string_view(frame).substr(length_bytes),
                            std::time(nullptr), byte_limit, unseen,
                            [&](const Event &event) { log.stage(staged, event, author); });
    Transaction::State state = Transaction::State::working;
    while (state == Transaction::State::working) {
        state = transaction.advance();
    }
    std::vector<api_status_t> statuses = transaction.statuses();
    if (state == Transaction::State::complete) {
        const auto result = join(transaction, staged);
        commit(now);
        if (!result->stored) {
            statuses.assign(statuses.size(), api_status_failed);
        }
    }
    return statuses;
}

} // namespace tav
