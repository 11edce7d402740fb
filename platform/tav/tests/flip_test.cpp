// Each bit of a small database and of its log is flipped in turn: the service refuses it, reads
// what was written, or logs what it dropped. Power cuts leave nothing that is refused.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "service/database.h"
#include "service/log_check.h"
#include "support/process.h"
#include "support/store_unit.h"

using namespace tav;
using namespace tavtest;

namespace {

// In memory if possible: thousands of databases are opened.
class FlipTest : public ::testing::Test {
protected:
    struct Memory {
        Memory() {
            if (::access("/dev/shm", W_OK) == 0) {
                ::setenv("TMPDIR", "/dev/shm", 0);
            }
        }
    };

    static void transact(Store &store, const std::vector<Item> &items) {
        ASSERT_EQ(store.transact(items, nothing_unseen).front(), api_status_ok);
    }
    void use_small_pages() {
        sql(file, "PRAGMA journal_mode = DELETE; PRAGMA page_size = 512; VACUUM;"
                  "PRAGMA journal_mode = WAL");
    }
    // What a service would log about the log, or throw.
    LogCheck found() const {
        const tav::UniqueFd locked = lock_database(file);
        return check_log(log, locked.get());
    }
    std::string opened() const {
        Tree tree;
        Database database(file, Durability::full, {}, tree);
        Records records;
        const std::uint64_t last = database.begin_history(HistoryBounds{10}, records);
        std::string all = last > 0 ? std::to_string(last) + "\n" : "";
        for (const auto &[number, record] : records) {
            all += std::to_string(number) + " " + record->entry + "\n";
        }
        return all + picture(tree);
    }

    Memory memory;
    TempDir dir;
    const std::string file = dir.file("store.db");
    const std::string log = file + "-wal";
};

} // namespace

TEST_F(FlipTest, EachBitOfTheDatabaseIsHarmlessOrNoticed) {
    {
        Store store(file);
        store.keep_history(HistoryBounds{10});
        transact(store, {set_item("/a", "1"), set_item("/n/b", std::string(150, 'b')),
                         set_item("/n/c", "3"), set_item("/n/gone", "4")});
        transact(store, {Item{ItemKind::remove, "/n/gone", {}}});
    }
    use_small_pages();
    const std::string before = opened();
    std::string content = read_file(file);
    ASSERT_LE(content.size(), 7U * 512);
    std::size_t refused = 0;
    for (std::size_t bit = 0; bit < content.size() * 8 && !HasFailure(); ++bit) {
        const auto flip = [&] { content[bit / 8] ^= static_cast<char>(1U << bit % 8); };
        flip();
        write_file(file, content);
        flip();
        try {
            EXPECT_EQ(opened(), before) << "bit " << bit % 8 << " of byte " << bit / 8;
        } catch (const DatabaseError &) {
            ++refused;
        }
        std::filesystem::remove(log);
    }
    EXPECT_GT(refused, content.size());
}

TEST_F(FlipTest, EachBitOfTheLogIsHarmlessOrNoticed) {
    { const Store store(file); }
    use_small_pages();
    std::string database;
    std::string content;
    std::string before;
    std::size_t certain = 0; // bytes that hold all but the last two transactions
    {
        Store store(file);
        for (int i = 0; i < 3; ++i) {
            transact(store, {set_item("/a", std::string(static_cast<std::size_t>(i), 'a'))});
            certain = i == 0 ? read_file(log).size() : certain;
        }
        database = read_file(file);
        content = read_file(log);
        before = picture(store.tree());
    }
    ASSERT_LT(content.size(), 4000U);
    for (std::size_t bit = 0; bit < content.size() * 8 && !HasFailure(); ++bit) {
        const auto flip = [&] { content[bit / 8] ^= static_cast<char>(1U << bit % 8); };
        flip();
        write_file(file, database);
        write_file(log, content);
        flip();
        const LogCheck log_has = found();
        try {
            const std::string now = opened();
            EXPECT_TRUE(now == before || log_has.dropped_bytes > 0) << "bit " << bit;
            EXPECT_GE(bit / 8, certain) << now;
        } catch (const DatabaseError &) {
        }
    }
}

TEST_F(FlipTest, NoPowerCutLeavesALogThatIsRefused) {
    std::string database;
    std::string before;
    std::string after;
    std::string picture_before;
    std::string picture_after;
    {
        Store store(file);
        // The log is used again from its start.
        for (int i = 0; i < 1200; ++i) {
            transact(store, {set_item("/a/" + std::to_string(i % 50), std::to_string(i))});
        }
        database = read_file(file);
        before = read_file(log);
        picture_before = picture(store.tree());
        transact(store, {set_item("/a/1", std::string(3000, 'x')), set_item("/a/40", "x"),
                         Item{ItemKind::remove, "/a/30", {}}});
        after = read_file(log);
        picture_after = picture(store.tree());
    }
    write_file(file, database);
    write_file(log, before);
    EXPECT_EQ(found().dropped_bytes, 0U) << "of the log's earlier use";
    const std::string longer_before = before + std::string(after.size() - before.size(), '\0');
    std::vector<std::size_t> changed; // sectors of 512 bytes
    for (std::size_t sector = 0; sector * 512 < after.size(); ++sector) {
        if (after.compare(sector * 512, 512, longer_before, sector * 512, 512) != 0) {
            changed.push_back(sector);
        }
    }
    ASSERT_GT(changed.size(), 8U);
    std::mt19937 random(1);
    for (std::size_t cut = 0; cut < changed.size() + 300; ++cut) {
        std::string torn = longer_before;
        for (std::size_t i = 0; i < changed.size(); ++i) {
            const std::size_t at = changed[i] * 512;
            if (cut < changed.size() ? i != cut : random() % 4 != 0) {
                torn.replace(at, 512, after, at, 512);
            }
        }
        write_file(file, database);
        write_file(log, torn);
        const LogCheck log_has = found();
        ASSERT_FALSE(log_has.damaged_before_a_commit) << "cut " << cut;
        ASSERT_FALSE(log_has.header_damaged);
        const std::string now = opened();
        ASSERT_TRUE(now == picture_after || now == picture_before) << "cut " << cut;
        ASSERT_TRUE(now == picture_after || log_has.dropped_bytes > 0) << "cut " << cut;
    }
}
