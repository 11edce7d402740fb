#include "service/task.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <vector>

#include "protocol/limits.h"
#include "service/fetch_task.h"
#include "service/history_task.h"
#include "service/pending_task.h"
#include "service/service.h"

namespace tav {

namespace {

// How much one step handles: it then takes a few hundred microseconds.
constexpr int paths_at_once = 256;
constexpr int elements_at_once = 512;

// Reads leaves, all as of one moment.
class Read : public Task {
public:
    Read(Service &served, const RequestHeader &header, std::string_view content)
        : Task(header.serial), service(served), tree(served.store().tree()), in(content),
          unanswered(in.count(1)), fits(service.fits(unanswered)) {
        version = tree.replaced();
        out.u32(unanswered);
        answered = made();
    }

    State step() override {
        constexpr std::size_t empty_answer = 1;
        constexpr std::size_t value_overhead = 13; // type, length of the text, time
        std::size_t examined = 0;                  // bytes of paths
        for (int i = 0; i < paths_at_once && made() < limits::reply_part_bytes &&
                        examined < limits::reply_part_bytes && fits && in.ok() && unanswered > 0;
             ++i, --unanswered) {
            const std::string_view path = in.text();
            examined += path.size();
            const Value *value = nullptr;
            api_status_t status = read_leaf(tree, path, value);
            const std::size_t size = value_overhead + (value != nullptr ? value->text.size() : 0);
            if (answered + size + unanswered * empty_answer > limits::frame_bytes) {
                status = api_status_too_large;
            }
            answered += status == api_status_ok ? size : empty_answer;
            service.usage().count(status);
            put_leaf(out, status, value);
        }
        if (!fits || !in.ok() || (unanswered == 0 && !in.finished())) {
            return State::malformed;
        }
        return unanswered > 0 ? State::working : State::done;
    }

private:
    Service &service;
    Tree tree;
    Reader in;
    std::uint32_t unanswered;
    bool fits;
    std::size_t answered = 0; // bytes
};

// Lists the children of a node, or everything at and below a path, as of one moment.
class Listing : public Task {
public:
    Listing(Service &served, const RequestHeader &header, std::string listed)
        : Task(header.serial), service(served), dumps(header.op == Op::dump),
          path(std::move(listed)) {}

    State step() override {
        if (!walker) {
            start();
        }
        for (int i = 0; i < elements_at_once && made() < limits::reply_part_bytes; ++i) {
            if (!walker->next()) {
                if (dumps) {
                    out.u8(0);
                }
                return State::done;
            }
            const Element &element = walker->element();
            if (dumps) {
                out.u8(1);
                put_element(out, walker->path(), element.value());
            } else {
                put(out, Child{element.content->name.text(), element.value().type});
            }
        }
        return State::working;
    }

private:
    void start() {
        const Tree &tree = service.store().tree();
        api_status_t status = check_path(path);
        const Element *element = status == api_status_ok ? tree.find(path) : nullptr;
        if (status == api_status_ok && element == nullptr) {
            status = api_status_absent;
        } else if (element != nullptr && !dumps && !element->is_node()) {
            status = api_status_wrong_kind;
            element = nullptr;
        }
        service.usage().count(status);
        put(out, status);
        walker.emplace(element, tree, path, dumps);
        version = tree.replaced();
        if (!dumps) {
            out.u32(element == nullptr ? 0 : element->child_count);
            walker->next(); // the node itself
        }
    }

    Service &service;
    bool dumps;
    std::string path;
    std::optional<Walker> walker;
};

// Sends everything below a node, as of one moment. From that moment on the client gets a notice
// before anybody sees a change below that node.
class AllBelow : public Task {
public:
    AllBelow(Service &served, const Session &client, const RequestHeader &header, std::string node)
        : Task(header.serial), service(served), session(client.id()), number(header.serial),
          path(std::move(node)) {}

    State step() override {
        if (!walker && !start()) {
            return State::done;
        }
        for (int i = 0; i < elements_at_once && made() < limits::reply_part_bytes; ++i) {
            if (!walker->next()) {
                service.usage().raise(Limit::read_ahead_bytes, sent);
                return end(depth_end);
            }
            const std::size_t before = made();
            put(out, ahead(walker->path(), walker->element()));
            sent += made() - before;
            if (sent > limits::read_ahead_bytes) {
                service.usage().refuse(Limit::read_ahead_bytes);
                service.holders().release(session);
                return end(depth_too_large);
            }
        }
        return State::working;
    }

private:
    // False if there is no such node.
    bool start() {
        const Tree &tree = service.store().tree();
        api_status_t status = check_path(path);
        const Element *const node = status == api_status_ok ? tree.find(path) : nullptr;
        if (status == api_status_ok && (node == nullptr || !node->is_node())) {
            status = node == nullptr ? api_status_absent : api_status_wrong_kind;
        }
        service.usage().count(status);
        put(out, status);
        service.holders().release(session);
        if (status != api_status_ok) {
            return false;
        }
        walker.emplace(node, tree, path);
        version = tree.replaced();
        walker->next(); // the node itself
        service.holders().hold(session, number, path);
        return true;
    }
    AheadElement ahead(std::string_view found, const Element &element) const {
        const std::string_view below = found.substr(path == "/" ? 0 : path.size());
        const Value &value = element.value();
        return {static_cast<std::uint8_t>(std::count(below.begin(), below.end(), '/')),
                element.content->name.text(), value.type, value.text, value.time};
    }
    State end(std::uint8_t how) {
        AheadElement last;
        last.depth = how;
        put(out, last);
        return State::done;
    }

    Service &service;
    SessionId session;
    std::uint32_t number; // of the request
    std::string path;
    std::optional<Walker> walker;
    std::size_t sent = 0; // bytes of elements
};

// Carries out a transaction and waits until it is committed. A short transaction may precede the
// one at work if it changes nothing that the one at work has changed or examined. Otherwise the one
// at work begins again after it; one second after its request it is no longer interrupted. Long
// transactions wait for each other.
class Write : public Task {
public:
    Write(Service &served, Session &client, const RequestHeader &header, std::string_view content)
        : Task(header.serial), service(served), session(client),
          with_term(header.op == Op::transact_pending) {
        Reader in(content);
        term.length = with_term ? in.u32() : 0;
        items = in.remaining();
        const bool valid =
            !with_term || (in.ok() && term.length >= 1 && term.length <= limits::confirm_term);
        fits = service.fits(in.count(1)) && valid;
    }
    ~Write() override {
        stop_waiting();
        end();
    }

    State step() override {
        if (!fits) {
            return State::malformed; // before memory is reserved for the items
        }
        if (result) {
            if (!result->known) {
                return State::blocked;
            }
            change_number = result->stored && waiting.begins ? waiting.begins->change.number : 0;
            return answer(result->stored ? api_status_ok : api_status_failed);
        }
        if (transaction && has_turn && service.short_ones_wait() && gives_way()) {
            end();
            return wait();
        }
        if (transaction && has_turn && refusals != service.store().refusals()) {
            start(); // what it builds on was not stored
        }
        if (!transaction) {
            has_turn = session.may_write() && service.take_turn(session.id());
            if (session.may_write() && !has_turn) {
                return precede();
            }
            stop_waiting();
            start();
        }
        return after(transaction->advance());
    }

private:
    State after(Transaction::State state) {
        switch (state) {
        case Transaction::State::working:
            return State::working;
        case Transaction::State::malformed:
            return State::malformed;
        case Transaction::State::refused: {
            const std::vector<api_status_t> statuses = transaction->statuses();
            end();
            return answer(statuses);
        }
        case Transaction::State::complete:
            break;
        }
        number = transaction->statuses().size();
        if (with_term && !transaction->changes().empty() && !prepare()) {
            end();
            return answer(api_status_too_much_pending);
        }
        result = service.store().join(*transaction, staged, author, waiting);
        end();
        return State::blocked;
    }
    // Carries the transaction out before the one at work, or waits for a turn.
    State precede() {
        constexpr std::size_t most_changes = 128;
        Transaction *const other = service.may_precede();
        if (other == nullptr || !is_short()) {
            return wait();
        }
        start();
        Transaction::State state = Transaction::State::working;
        constexpr int most_parts = 6; // enough for so many changes at any depth
        for (int i = 0; i < most_parts && state == Transaction::State::working; ++i) {
            state = transaction->advance();
        }
        std::optional<Tree> both;
        const bool complete = state == Transaction::State::complete;
        if (complete && transaction->changes().size() <= most_changes) {
            both = other->with(transaction->changes());
        }
        if (state == Transaction::State::working || (complete && !both)) {
            end();
            return wait();
        }
        stop_waiting();
        const State next = after(state);
        if (result) {
            other->go_on_from(*std::move(both)); // cannot fail, unlike the steps before
        }
        return next;
    }
    bool is_short() const {
        constexpr std::uint32_t most_items = 64;
        constexpr std::size_t most_bytes = std::size_t{128} << 10;
        return Reader(items).count(1) <= most_items && items.size() <= most_bytes;
    }
    // Waits for a turn.
    State wait() {
        if (!waits) {
            service.writers(1, is_short());
        }
        waits = true;
        return State::blocked;
    }
    void stop_waiting() {
        if (waits) {
            service.writers(-1, is_short());
        }
        waits = false;
    }
    bool gives_way() const {
        constexpr std::chrono::milliseconds undisturbed{2};
        constexpr std::chrono::seconds longest{1};
        const auto now = std::chrono::steady_clock::now();
        return now - began > undisturbed && now - asked < longest;
    }
    // For a client that may not write, the items are only checked; that needs no turn.
    void start() {
        began = std::chrono::steady_clock::now();
        refusals = service.store().refusals();
        author = service.author(session);
        staged = {};
        transaction.emplace(
            service.store().group_tree(), items, std::time(nullptr), service.store().byte_limit,
            [this](const std::string &path) { return session.unseen(path); },
            [this](const Event &event) {
                service.store().events().stage(staged, event, session.id());
            },
            [this](const std::string &path) {
                return service.store().holds(path, author, with_term);
            });
        if (has_turn) {
            service.carry_out(*transaction);
        }
        if (!session.may_write()) {
            transaction->deny();
        }
    }
    // Makes the change one that waits for confirmation; false if it would exceed the limits.
    bool prepare() {
        term.now = service.now();
        waiting.begins = service.store().prepare(*transaction, author, term);
        if (!waiting.begins) {
            service.usage().refuse(Limit::pending_bytes);
        }
        return waiting.begins && service.fits(*waiting.begins);
    }
    void end() {
        transaction.reset();
        if (has_turn) {
            has_turn = false;
            service.end_turn();
        }
    }
    State answer(const std::vector<api_status_t> &statuses) {
        for (const api_status_t status : statuses) {
            service.usage().count(status);
        }
        put_all(out, statuses);
        if (with_term) {
            out.u64(change_number);
        }
        return State::done;
    }
    State answer(api_status_t all) { return answer(std::vector<api_status_t>(number, all)); }

    Service &service;
    Session &session;
    bool with_term;
    Term term;
    std::string_view items;
    bool fits = false;
    std::size_t number = 0;          // of items
    std::uint64_t change_number = 0; // for the answer
    Author author;
    Store::Step waiting;
    EventLog::Staged staged;
    std::optional<Transaction> transaction;
    bool has_turn = false;
    bool waits = false; // for a turn
    std::chrono::steady_clock::time_point asked = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point began; // the current attempt
    std::uint64_t refusals = 0;                  // of the store when the attempt began
    std::shared_ptr<const Store::Result> result;
};

// Registers for events. It waits until no group is being committed, because the events of a
// transaction are only for clients that were registered when the transaction was carried out.
class Register : public Task {
public:
    Register(Service &served, Session &client, const RequestHeader &header, Registration wanted)
        : Task(header.serial), service(served), session(client), registration(std::move(wanted)) {}
    ~Register() override { stop_waiting(); }

    State step() override {
        if (!service.between_groups()) {
            service.registering(waits ? 0 : 1);
            waits = true;
            return State::blocked;
        }
        stop_waiting();
        const api_status_t status = session.register_events(registration, service.now());
        service.usage().count(status);
        service.usage().raise(Limit::registrations, session.registered());
        put(out, status);
        return State::done;
    }

private:
    void stop_waiting() {
        service.registering(waits ? -1 : 0);
        waits = false;
    }

    Service &service;
    Session &session;
    Registration registration;
    bool waits = false;
};

class Watch : public Task {
public:
    Watch(Service &served, Session &client, const RequestHeader &header, WatchdogRequest wanted)
        : Task(header.serial), service(served), session(client), request(std::move(wanted)) {}

    State step() override {
        const api_status_t status =
            service.watchdog().announce(session.id(), session.pid(), request, service.now());
        service.usage().count(status);
        put(out, status);
        return State::done;
    }

private:
    Service &service;
    Session &session;
    WatchdogRequest request;
};

// Reports the status. Each step handles one client, because counting its waiting events takes time.
class Status : public Task {
public:
    Status(Service &served, const RequestHeader &header) : Task(header.serial), service(served) {}

    State step() override {
        const auto next = service.sessions().upper_bound(last);
        if (next != service.sessions().end()) {
            last = next->first;
            clients.push_back(next->second->status(service.now()));
            return State::working;
        }
        ServiceStatus status = service.status();
        status.clients = std::move(clients);
        put(out, status);
        return State::done;
    }

private:
    Service &service;
    SessionId last = 0;
    std::vector<ClientStatus> clients;
};

} // namespace

std::string Task::take_frame(bool more) {
    std::string frame = out.finish();
    if (!more) {
        return frame;
    }
    begin_frame();
    return mark_more(std::move(frame));
}

std::unique_ptr<Task> make_task(Service &service, Session &session, const RequestHeader &header,
                                std::string_view content) {
    switch (header.op) {
    case Op::read:
        return std::make_unique<Read>(service, header, content);
    case Op::list:
    case Op::dump:
        return task_with<Listing, std::string>(content, service, header);
    case Op::read_ahead:
        return task_with<AllBelow, std::string>(content, service, session, header);
    case Op::transact:
    case Op::transact_pending:
        return std::make_unique<Write>(service, session, header, content);
    case Op::event_register:
        return task_with<Register, Registration>(content, service, session, header);
    case Op::events_get:
        return make_fetch_task(service, session, header, content);
    case Op::watchdog_register:
        return task_with<Watch, WatchdogRequest>(content, service, session, header);
    case Op::state_program:
    case Op::history:
        return make_history_task(service, session, header, content);
    case Op::confirm:
    case Op::pending:
        return make_pending_task(service, session, header, content);
    case Op::status:
        return content.empty() ? std::make_unique<Status>(service, header) : nullptr;
    default:
        return nullptr;
    }
}

} // namespace tav
