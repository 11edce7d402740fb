// Each bit of a small database is flipped in turn: the service refuses it, or reads what was
// written.
#include <gtest/gtest.h>

#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "service/database.h"
#include "service/store.h"
#include "support/process.h"

using namespace tav;

namespace {

Item set_item(const std::string &path, const std::string &text) {
    return Item{ItemKind::set, path, Value{element_type_string, text, 77}};
}

std::string picture(const Tree &tree) {
    std::string all;
    walk(tree, "/", [&all](const std::string &path, const Element &element) {
        all += path + "=" + std::to_string(element.value().type) + ":" + element.value().text + "@" +
               std::to_string(element.value().time) + "\n";
        return true;
    });
    return all;
}

// In memory if possible: thousands of databases are opened.
class FlipTest : public ::testing::Test {
protected:
    struct Memory {
        Memory() {
            if (::access("/dev/shm", W_OK) == 0) {
                ::setenv("TMPDIR", "/dev/shm", 1);
            }
        }
    };

    FlipTest() { ::unsetenv("TMPDIR"); }

    static void write_file(const std::string &name, const std::string &content) {
        std::ofstream(name, std::ios::binary | std::ios::trunc) << content;
    }
    static void transact(Store &store, const std::vector<Item> &items) {
        const std::vector<api_status_t> statuses = store.transact(items, [](const std::string &) { return false; });
        ASSERT_EQ(statuses.front(), api_status_ok);
    }
    void sql(const std::string &text) {
        sqlite3 *database = nullptr;
        ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, text.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(database);
        sqlite3_close(database);
    }

    Memory memory;
    tavtest::TempDir dir;
    const std::string file = dir.file("store.db");
    const std::string log = file + "-wal";
};

} // namespace

TEST_F(FlipTest, EachBitOfTheDatabaseIsHarmlessOrNoticed) {
    {
        Store store(file);
        transact(store, {set_item("/a", "1"), set_item("/n/b", std::string(400, 'b')),
                         set_item("/n/c", "3"), set_item("/n/gone", "4")});
        transact(store, {Item{ItemKind::remove, "/n/gone", {}}});
    }
    sql("PRAGMA journal_mode = DELETE; PRAGMA page_size = 512; VACUUM; PRAGMA journal_mode = WAL");
    std::string before;
    {
        Tree tree;
        const Database database(file, Durability::full, {}, tree);
        before = picture(tree);
    }
    std::string content = tavtest::read_file(file);
    ASSERT_LE(content.size(), 5U * 512);
    std::size_t refused = 0;
    for (std::size_t bit = 0; bit < content.size() * 8 && !HasFailure(); ++bit) {
        const auto flip = [&] { content[bit / 8] ^= static_cast<char>(1U << bit % 8); };
        flip();
        write_file(file, content);
        flip();
        try {
            Tree tree;
            const Database database(file, Durability::full, {}, tree);
            EXPECT_EQ(picture(tree), before) << "bit " << bit % 8 << " of byte " << bit / 8;
        } catch (const DatabaseError &) {
            ++refused;
        }
        std::filesystem::remove(log);
    }
    EXPECT_GT(refused, content.size());
}
