#include <sqlite3.h>

#include <stdexcept>

#include "support/store_targets.h"

namespace bench {
namespace {

using Database = std::unique_ptr<sqlite3, int (*)(sqlite3 *)>;
using Statement = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)>;

constexpr int patience_ms = 30000; // for other writers

class SqliteClient : public StoreClient {
public:
    SqliteClient(const std::string &file, const std::string &synchronous)
        : database(nullptr, sqlite3_close) {
        sqlite3 *opened = nullptr;
        const int result = sqlite3_open(file.c_str(), &opened);
        database.reset(opened);
        require(result);
        sqlite3_busy_timeout(opened, patience_ms);
        run("PRAGMA journal_mode=WAL");
        run("PRAGMA synchronous=" + synchronous);
        run("CREATE TABLE IF NOT EXISTS leaf (path TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID");
        get = prepare("SELECT value FROM leaf WHERE path = ?");
        put = prepare("INSERT OR REPLACE INTO leaf VALUES (?, ?)");
        all = prepare("SELECT path, value FROM leaf WHERE path BETWEEN '/Addresses/' AND "
                      "'/Addresses/~'");
        begin = prepare("BEGIN IMMEDIATE");
        commit = prepare("COMMIT");
    }

    std::string read(int address) override {
        bind(get, 1, path(address, "Address"));
        if (sqlite3_step(get.get()) != SQLITE_ROW) {
            throw std::runtime_error("sqlite: nothing there");
        }
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(get.get(), 0));
        std::string value(text);
        sqlite3_reset(get.get());
        return value;
    }

    void write(int address, const std::string &text) override {
        bind(put, 1, path(address, "Address"));
        bind(put, 2, text);
        step(put);
    }

    void write_both(int address, const std::string &text, const std::string &type) override {
        step(begin);
        write(address, text);
        bind(put, 1, path(address, "Type"));
        bind(put, 2, type);
        step(put);
        step(commit);
    }

    std::size_t read_all() override {
        std::size_t texts = 0;
        while (sqlite3_step(all.get()) == SQLITE_ROW) {
            texts += sqlite3_column_text(all.get(), 1) != nullptr ? 1U : 0U;
        }
        sqlite3_reset(all.get());
        return texts;
    }

    int subscribe() override { return -1; }
    void take_events() override {}

private:
    static std::string path(int address, const char *name) {
        return "/Addresses/" + std::to_string(address) + "/" + name;
    }

    void require(int result) {
        if (result != SQLITE_OK && result != SQLITE_DONE && result != SQLITE_ROW) {
            throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(database.get()));
        }
    }
    void run(const std::string &text) {
        require(sqlite3_exec(database.get(), text.c_str(), nullptr, nullptr, nullptr));
    }
    Statement prepare(const char *text) {
        sqlite3_stmt *made = nullptr;
        require(sqlite3_prepare_v2(database.get(), text, -1, &made, nullptr));
        return Statement(made, sqlite3_finalize);
    }
    void bind(const Statement &statement, int place, const std::string &text) {
        require(sqlite3_bind_text(statement.get(), place, text.data(),
                                  static_cast<int>(text.size()), SQLITE_TRANSIENT));
    }
    void step(const Statement &statement) {
        require(sqlite3_step(statement.get()));
        require(sqlite3_reset(statement.get()));
    }

    Database database;
    Statement get{nullptr, sqlite3_finalize};
    Statement put{nullptr, sqlite3_finalize};
    Statement all{nullptr, sqlite3_finalize};
    Statement begin{nullptr, sqlite3_finalize};
    Statement commit{nullptr, sqlite3_finalize};
};

class SqliteTarget : public StoreTarget {
public:
    SqliteTarget(kt::Sandbox &sandbox, std::string how)
        : file(sandbox.directory() + "/bare-" + how + ".db"), synchronous(std::move(how)) {}

    std::unique_ptr<StoreClient> connect() override {
        return std::make_unique<SqliteClient>(file, synchronous);
    }

private:
    std::string file;
    std::string synchronous;
};

} // namespace

std::unique_ptr<StoreTarget> sqlite_target(kt::Sandbox &sandbox, const std::string &synchronous) {
    return std::make_unique<SqliteTarget>(sandbox, synchronous);
}

} // namespace bench
