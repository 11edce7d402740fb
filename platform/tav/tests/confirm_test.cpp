// Changes that are reverted unless they are confirmed in time.
#include "support/confirm_fixture.h"

#include "protocol/limits.h"
#include "service/repair.h"

using namespace tav;
using namespace tavtest;
using namespace std::chrono_literals;

namespace {

const Items first_content{set_item("/n/a", "1"), set_item("/n/gone/x", "2"),
                          set_item("/n/gone/y", "3"), step(ItemKind::make_node, "/n/empty"),
                          set_item("/other", "4")};
const Items changed_content{set_item("/n/a", "new"), step(ItemKind::remove, "/n/gone"),
                            step(ItemKind::remove, "/n/empty"), set_item("/n/made/b", "new"),
                            step(ItemKind::make_node, "/m")};

} // namespace

TEST_F(ConfirmTest, AChangeThatNobodyConfirmsIsRevertedWhole) {
    write(*owner, first_content);
    const std::string before = picture();
    const std::uint64_t number = change(*owner, changed_content);
    EXPECT_EQ(statuses, Statuses(5, api_status_ok));
    EXPECT_EQ(number, 2U);
    const std::string after = picture();
    EXPECT_NE(after, before);
    pass(9999ms);
    EXPECT_EQ(picture(), after);
    pass(1ms);
    EXPECT_EQ(picture(), before);
    EXPECT_TRUE(pending().empty());
    open();
    EXPECT_EQ(picture(), before);
    EXPECT_TRUE(pending().empty());
}

TEST_F(ConfirmTest, AConfirmationAfterTheTermComesTooLate) {
    const std::uint64_t number = change(*owner, {set_item("/a", "1")});
    now += 10s;
    EXPECT_EQ(confirm(*owner, number).first, api_status_absent);
    EXPECT_EQ(confirm(*owner).first, api_status_absent);
    pass(0s);
    EXPECT_EQ(text("/a"), absent);
}

TEST_F(ConfirmTest, AConfirmationMayBeCommittedAfterTheTerm) {
    change(*owner, {set_item("/a", "1")});
    Writer out;
    put(out, RequestHeader{Op::confirm, 1});
    out.u64(0);
    const std::string request = out.finish();
    std::string reply;
    std::unique_ptr<Task> task;
    service->begin(*owner, std::string_view(request).substr(length_bytes), reply, task);
    EXPECT_EQ(task->step(), Task::State::blocked);
    pass(10s);
    EXPECT_EQ(task->step(), Task::State::done);
    EXPECT_EQ(text("/a"), "1");
    EXPECT_TRUE(pending().empty());
}

TEST_F(ConfirmTest, ThereIsNoTimerWhileNothingWaits) {
    EXPECT_FALSE(service->next_end());
    change(*owner, {set_item("/a", "1")}, 30000);
    change(*other, {set_item("/b", "1")}, 20000);
    EXPECT_EQ(service->next_end(), now + 20s);
    pass(20s);
    EXPECT_EQ(service->next_end(), now + 10s);
    confirm(*owner);
    EXPECT_FALSE(service->next_end());
}

TEST_F(ConfirmTest, TheHistoryHasTheReversionEvenIfNothingIsLeft) {
    for (const Durability durability : {Durability::normal, Durability::full}) {
        open(1000, 0, durability);
        change(*owner, {set_item("/a", "1")});
        write(*daemon, {step(ItemKind::remove, "/a")});
        pass(10s);
        for (int i = 0; i < 2; ++i) {
            const HistoryEntry last = entries(*store).back();
            EXPECT_EQ(last.program.substr(0, 15), "tavd reverting ");
            EXPECT_EQ(last.elements, 0U);
            EXPECT_TRUE(last.changes.empty());
            EXPECT_TRUE(pending().empty());
            open(1000, 0, durability);
        }
    }
}

TEST_F(ConfirmTest, TheReversionCausesEvents) {
    write(*owner, {set_item("/n/a", "1")});
    other->register_events({"/n", api_event_change, false}, now);
    change(*owner, {set_item("/n/a", "2"), set_item("/n/b", "2")});
    fetched(*other, now);
    pass(10s);
    EXPECT_EQ(fetched(*other, now), (Lines{"2 /n/a", "3 /n/b"}));
}

TEST_F(ConfirmTest, ARestartContinuesTheTerm) {
    change(*owner, {set_item("/a", "1")});
    open(1000, 6000);
    ASSERT_EQ(pending().size(), 1U);
    EXPECT_LE(pending()[0].left, 4000U);
    EXPECT_GT(pending()[0].left, 2000U);
    EXPECT_EQ(pending()[0].term, 10000U);
    pass(2s);
    EXPECT_EQ(text("/a"), "1");
    pass(2s);
    EXPECT_EQ(text("/a"), absent);
}

TEST_F(ConfirmTest, AClockThatWasSetBackDoesNotExtendTheTerm) {
    change(*owner, {set_item("/a", "1")});
    open(1000, -3600000);
    ASSERT_EQ(pending().size(), 1U);
    EXPECT_EQ(pending()[0].left, 10000U);
    pass(10s);
    EXPECT_EQ(text("/a"), absent);
}

TEST_F(ConfirmTest, OthersMayNotChangeWhatWaits) {
    write(*owner, first_content);
    change(*owner, {set_item("/n/a", "new"), step(ItemKind::remove, "/n/gone/x"),
                    set_item("/n/made/b", "")});
    const std::string after = picture();
    // The element itself, one above it, one below it, and one that brings it back.
    for (const Items &refused :
         {Items{set_item("/n/a", "2")}, Items{step(ItemKind::remove, "/n")},
          Items{set_item("/n/made/c", "2")}, Items{set_item("/n/gone/x", "2")},
          Items{set_item("/n/gone/x/below", "2")}, Items{step(ItemKind::remove, "/n/gone")},
          Items{step(ItemKind::clear, "/")}, Items{step(ItemKind::remove_node, "/n/made")},
          Items{Item{ItemKind::set, "/n/a", Value{element_type_string, "new", 78}}}}) {
        EXPECT_EQ(write(*other, refused), Statuses{api_status_pending}) << refused[0].path;
    }
    EXPECT_EQ(write(*other, {set_item("/other", "5"), set_item("/n/a", "2"), set_item("/p", "6")}),
              (Statuses{api_status_not_done, api_status_pending, api_status_not_done}));
    EXPECT_EQ(picture(), after);
    EXPECT_EQ(
        write(*other, {set_item("/n/gone/y", "5"), set_item("/n/aa", "5"), set_item("/other", "5"),
                       set_item("/n/a", "new"), step(ItemKind::touch, "/n/a")}),
        Statuses(5, api_status_ok));
    pass(10s);
    EXPECT_EQ(write(*other, {set_item("/n/a", "2")}), Statuses{api_status_ok});
}

TEST_F(ConfirmTest, TheOwnerAndServicesMayChangeWhatWaits) {
    write(*owner, {set_item("/a", "1"), set_item("/b", "1")});
    change(*owner, {set_item("/a", "2"), set_item("/b", "2")});
    EXPECT_EQ(write(*owner, {set_item("/a", "3")}), Statuses{api_status_ok});
    EXPECT_EQ(write(*daemon, {set_item("/b", "3")}), Statuses{api_status_ok});
    pass(10s);
    EXPECT_EQ(text("/a"), "1");
    EXPECT_EQ(text("/b"), "1");
}

TEST_F(ConfirmTest, TermsDoNotNest) {
    const std::uint64_t number = change(*owner, {set_item("/a", "1")});
    for (Session *client : {owner, other, daemon}) {
        EXPECT_EQ(change(*client, {set_item("/b", "1"), set_item("/a", "2")}), 0U);
        EXPECT_EQ(statuses, (Statuses{api_status_not_done, api_status_pending}));
    }
    EXPECT_EQ(text("/a"), "1");
    EXPECT_EQ(text("/b"), absent);
    EXPECT_EQ(confirm(*owner, number).first, api_status_ok);
    EXPECT_NE(change(*other, {set_item("/a", "2")}), 0U);
}

TEST_F(ConfirmTest, WithoutANumberTheOnlyOwnChangeIsConfirmed) {
    EXPECT_EQ(confirm(*owner).first, api_status_absent);
    const std::uint64_t theirs = change(*other, {set_item("/o", "1")});
    EXPECT_EQ(confirm(*owner).first, api_status_absent);
    const std::uint64_t first = change(*owner, {set_item("/a", "1")});
    const std::uint64_t second = change(*owner, {set_item("/b", "1")});
    EXPECT_EQ(confirm(*owner).first, api_status_refused);
    EXPECT_EQ(pending().size(), 3U);
    EXPECT_EQ(confirm(*owner, 99).first, api_status_absent);
    EXPECT_EQ(confirm(*owner, first), std::pair(api_status_ok, first));
    EXPECT_EQ(confirm(*owner), std::pair(api_status_ok, second));
    EXPECT_EQ(confirm(*owner, theirs), std::pair(api_status_ok, theirs));
    EXPECT_TRUE(pending().empty());
}

TEST_F(ConfirmTest, ReadersMayOnlyLook) {
    Session &reader = service->open(Credentials{4, 1000, 0, {}}, false);
    EXPECT_EQ(change(reader, {set_item("/a", "1")}), 0U);
    EXPECT_EQ(statuses, Statuses{api_status_denied});
    const std::uint64_t number = change(*owner, {set_item("/a", "1")});
    EXPECT_EQ(confirm(reader, number).first, api_status_denied);
    EXPECT_EQ(confirm(reader).first, api_status_denied);
    ASSERT_EQ(pending().size(), 1U);
    const PendingChange listed = pending()[0];
    EXPECT_EQ(listed.change.number, number);
    EXPECT_EQ(listed.change.uid, 1000U);
    EXPECT_EQ(listed.change.pid, 1U);
    EXPECT_EQ(listed.left, 10000U);
    ASSERT_EQ(listed.change.changes.size(), 1U);
    EXPECT_EQ(listed.change.changes[0].path, "/a");
    EXPECT_EQ(listed.change.changes[0].after.text, "1");
}

TEST_F(ConfirmTest, TheChangesOfAUserAreLimited) {
    for (std::size_t i = 0; i < limits::pending_changes; ++i) {
        EXPECT_NE(change(*owner, {set_item("/" + std::to_string(i), "1")}), 0U);
    }
    const std::string before = picture();
    EXPECT_EQ(change(*owner, {set_item("/more", "1"), set_item("/more", "2")}), 0U);
    EXPECT_EQ(statuses, Statuses(2, api_status_too_much_pending));
    EXPECT_EQ(picture(), before);
    EXPECT_NE(change(*other, {set_item("/more", "1")}), 0U);
    confirm(*owner, 1);
    EXPECT_NE(change(*owner, {set_item("/again", "1")}), 0U);
    const LimitStatus shown = limit("unconfirmed changes of a user");
    EXPECT_EQ(shown.used, limits::pending_changes);
    EXPECT_EQ(shown.limit, limits::pending_changes);
    EXPECT_EQ(shown.refused, 1U);
}

TEST_F(ConfirmTest, TheBytesOfAUserAreLimited) {
    const std::string large(60000, 'x');
    Items items;
    for (int i = 0; i < 10; ++i) {
        items.push_back(set_item("/n/" + std::to_string(i), large));
    }
    EXPECT_NE(change(*owner, items), 0U);
    for (Item &one : items) {
        one.path[1] = 'o';
    }
    EXPECT_EQ(change(*owner, items), 0U);
    EXPECT_EQ(statuses, Statuses(10, api_status_too_much_pending));
    EXPECT_EQ(text("/o/0"), absent);
    EXPECT_NE(change(*other, items), 0U);
    for (int i = 10; i < 20; ++i) {
        items.push_back(set_item("/p/" + std::to_string(i), large));
        items.push_back(set_item("/p/" + std::to_string(i), large));
    }
    for (Item &one : items) {
        one.path[1] = 'q';
    }
    EXPECT_EQ(change(*daemon, items), 0U) << "one that is too large alone";
    EXPECT_EQ(statuses, Statuses(30, api_status_too_much_pending));
    const LimitStatus shown = limit("bytes of a user's unconfirmed");
    EXPECT_GT(shown.used, 600000U);
    EXPECT_EQ(shown.limit, limits::pending_bytes);
    EXPECT_EQ(shown.refused, 2U);
}

TEST_F(ConfirmTest, ATermOutsideTheLimitsIsInvalid) {
    for (const std::uint32_t term : {0U, limits::confirm_term + 1, UINT32_MAX}) {
        EXPECT_EQ(ask(*owner, Op::transact_pending,
                      [term](Writer &out) {
                          out.u32(term);
                          put_all(out, Items{set_item("/a", "1")});
                      }),
                  "malformed");
    }
    EXPECT_EQ(text("/a"), absent);
    EXPECT_NE(change(*owner, {set_item("/a", "1")}, limits::confirm_term), 0U);
    EXPECT_EQ(ask(*owner, Op::confirm, [](Writer &) {}), "malformed");
    EXPECT_EQ(ask(*owner, Op::pending, [](Writer &out) { out.u8(1); }), "malformed");
}

TEST_F(ConfirmTest, TheOldElementsWinOverWhatCameInTheirPlace) {
    write(*owner, {set_item("/n/1/Value", "old"), set_item("/n/1/Type", "Static"),
                   set_item("/leaf", "old")});
    const std::string before = picture();
    change(*owner, {step(ItemKind::remove, "/n/1"), step(ItemKind::remove, "/leaf"),
                    set_item("/made/x", "1")});
    write(*daemon, {set_item("/n/1/Value", "theirs"), set_item("/n/1/Type", "Automatic"),
                    set_item("/leaf/below/x", "theirs"), set_item("/made/theirs", "1")});
    pass(10s);
    EXPECT_EQ(picture(), before);
    // A leaf where a node was, and no node above.
    change(*owner, {step(ItemKind::remove, "/n/1/Value"), step(ItemKind::remove, "/n/1/Type")});
    write(*daemon, {step(ItemKind::remove, "/n"), set_item("/n", "a leaf")});
    pass(10s);
    EXPECT_EQ(picture(), before);
}

TEST_F(ConfirmTest, AChangeOfKindIsReverted) {
    write(*owner, {set_item("/a", "1"), set_item("/b/c/d", "2")});
    const std::string before = picture();
    change(*owner, {step(ItemKind::remove, "/a"), set_item("/a/x/y", "1"),
                    step(ItemKind::remove, "/b"), set_item("/b", "1")});
    pass(10s);
    EXPECT_EQ(picture(), before);
}

TEST_F(ConfirmTest, ItIsIndependentOfTheHistory) {
    for (const std::size_t transactions : {std::size_t{1}, std::size_t{0}}) {
        open(transactions);
        write(*owner, first_content);
        const std::string before = picture();
        const std::uint64_t number = change(*owner, changed_content);
        EXPECT_NE(number, 0U);
        write(*owner, {set_item("/p", "1")});
        write(*owner, {step(ItemKind::remove, "/p")});
        open(transactions);
        ASSERT_EQ(pending().size(), 1U) << transactions;
        EXPECT_EQ(pending()[0].change.number, number);
        const std::uint64_t second = change(*owner, {set_item("/q", "1")});
        EXPECT_GT(second, number);
        EXPECT_GT(change(*owner, {set_item("/r", "1")}), second);
        pass(10s);
        EXPECT_EQ(picture(), before);
        open(transactions);
        const std::uint64_t next = change(*owner, {set_item("/q", "1")});
        EXPECT_GT(next, number + 1) << "no number is used twice";
        confirm(*owner);
        write(*owner, {step(ItemKind::clear, "/")});
    }
}

TEST_F(ConfirmTest, ALargeChangeIsRevertedAfterARestart) {
    write(*owner, {set_item("/a", "1")});
    const std::string before = picture();
    Items items;
    for (int i = 0; i < 17; ++i) {
        items.push_back(set_item("/n/" + std::to_string(i), std::string(60000, 'x')));
    }
    EXPECT_NE(change(*owner, items), 0U);
    open(1000, 10001);
    EXPECT_EQ(picture(), before);
}

TEST_F(ConfirmTest, ADatabaseWhoseWaitingChangeIsDamagedOrLostIsRefused) {
    open(1000, 0, Durability::full);
    change(*owner, {set_item("/a", "1")});
    sql("CREATE TABLE saved AS SELECT * FROM element");
    sql("UPDATE element SET text = x'00' WHERE path = CAST('pending 1' AS BLOB)");
    EXPECT_THROW(Store{file}, DamagedDatabase);
    sql("DELETE FROM element WHERE path = CAST('pending 1' AS BLOB)");
    EXPECT_THROW(Store{file}, DamagedDatabase);
    sql("INSERT INTO element SELECT * FROM saved WHERE path = CAST('pending 1' AS BLOB)");
    open(1000, 10001, Durability::full);
    EXPECT_EQ(text("/a"), absent);
}

TEST_F(ConfirmTest, ARepairKeepsTheChangesThatWait) {
    write(*owner, {set_item("/a", "1"), set_item("/b", "1")});
    const std::uint64_t number = change(*owner, {set_item("/a", "2")});
    change(*owner, {set_item("/c", "2")});
    sql("UPDATE element SET text = x'00' WHERE path = CAST('/b' AS BLOB);"
        "UPDATE element SET text = x'00' WHERE path = CAST('pending 3' AS BLOB)");
    EXPECT_THROW(Store{file}, DamagedDatabase);
    const std::string report = repair_database(file);
    EXPECT_TRUE(has(report, "kept 2 elements, 1 unconfirmed change and 3 entries of the history, "
                            "dropped 2 damaged rows"));
    open();
    ASSERT_EQ(pending().size(), 1U);
    EXPECT_EQ(pending()[0].change.number, number);
    pass(10s);
    EXPECT_EQ(text("/a"), "1");
    EXPECT_EQ(text("/c"), "2") << "of this, nothing is known any more";
}

TEST_F(ConfirmTest, AChangeThatIsNotStoredDoesNotWait) {
    close();
    auto owned = std::make_unique<FailingStorage>();
    owned->fails = true;
    store = std::make_unique<Store>(std::move(owned));
    serve();
    EXPECT_EQ(change(*owner, {set_item("/a", "1")}), 0U);
    EXPECT_EQ(statuses, Statuses{api_status_failed});
    EXPECT_TRUE(pending().empty());
    EXPECT_FALSE(service->next_end());
}
