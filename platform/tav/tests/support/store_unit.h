// What tests of the store's own classes share: steps of transactions, and content as text.
#pragma once

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <string>
#include <vector>

#include "protocol/history.h"
#include "service/session.h"
#include "service/store.h"

namespace tavtest {

inline tav::Item set_item(const std::string &path, const std::string &text) {
    return {tav::ItemKind::set, path, {element_type_string, text, 77}};
}
inline tav::Item step(tav::ItemKind kind, const std::string &path) {
    return {kind, path, {}};
}
// For transact(), of a client without events that it has not fetched.
inline bool nothing_unseen(const std::string & /*path*/) {
    return false;
}

inline std::string shown(const tav::Value &value) {
    return std::to_string(value.type) + ":" + value.text + "@" + std::to_string(value.time);
}
// A line for each element.
inline std::string picture(const tav::Tree &tree) {
    std::string all;
    walk(tree, "/", [&all](const std::string &path, const tav::Element &element) {
        all += path + "=" + shown(element.value()) + "\n";
        return true;
    });
    return all;
}
// The value, or "status N".
inline std::string text_at(const tav::Tree &tree, const std::string &path) {
    const tav::Value *value = nullptr;
    const api_status_t status = read_leaf(tree, path, value);
    return value != nullptr ? value->text : "status " + std::to_string(status);
}
// The history, oldest first.
inline std::vector<tav::HistoryEntry> entries(const tav::Store &store) {
    std::vector<tav::HistoryEntry> all;
    for (tav::RecordPtr record = store.history().next(0); record;
         record = store.history().next(record->number)) {
        tav::Reader in(record->entry);
        get(in, all.emplace_back());
        EXPECT_TRUE(in.finished());
        EXPECT_EQ(all.back().number, record->number);
        EXPECT_EQ(all.back().service, record->service);
    }
    return all;
}

// Fetches what waits for a client: "COMMAND PATH" of each event.
inline std::vector<std::string> fetched(tav::Session &session, tav::Time now = {}) {
    tav::Fetch fetch(session, now);
    std::vector<const tav::Event *> part;
    std::vector<std::string> all;
    for (bool more = true; more;) {
        more = fetch.advance(part);
        for (const tav::Event *event : part) {
            all.push_back(std::to_string(event->command) + " " + event->path);
        }
    }
    return all;
}

// Executes statements on a database that no service uses. The first column of the last row.
inline std::string sql(const std::string &file, const std::string &text) {
    sqlite3 *database = nullptr;
    EXPECT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
    std::string result;
    const auto take = [](void *to, int, char **values, char **) {
        *static_cast<std::string *>(to) = values[0] != nullptr ? values[0] : "";
        return 0;
    };
    EXPECT_EQ(sqlite3_exec(database, text.c_str(), take, &result, nullptr), SQLITE_OK)
        << sqlite3_errmsg(database);
    sqlite3_close(database);
    return result;
}

} // namespace tavtest
