// Dumps that may lack records are requested again; dumps that never end are given up.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"

namespace {

using fake_libnl::datagram_t;
using fake_libnl::multi;

constexpr int interrupted = 16; // NLM_F_DUMP_INTR

datagram_t link(int flags = multi) {
    return datagram_t().link(16, 3, "eth0", {2, 0, 0, 0, 0, 1}, flags);
}

class DumpRepeat : public EngineTest {
protected:
    // An engine that has requested the dump of this state.
    void reach(int state) {
        restart();
        while (engine().state < state) {
            engine().discover();
        }
        forget();
    }
};

const strings requests = {"", "kernel: dump links", "kernel: dump addrs", "kernel: dump routes"};

TEST_F(DumpRepeat, AnInterruptedDumpIsRequestedAgain) {
    for (const int state : {1, 2, 3}) {
        reach(state);
        receive(datagram_t().done(0, multi | interrupted));
        EXPECT_EQ(engine().state, state);
        EXPECT_EQ(effects(), strings{requests.at(static_cast<std::size_t>(state))});
    }
}

TEST_F(DumpRepeat, ADumpThatFailedIsRequestedAgain) {
    for (const int state : {1, 2, 3}) {
        reach(state);
        receive(datagram_t().done(-4));
        EXPECT_EQ(engine().state, state);
        EXPECT_EQ(effects(), strings{requests.at(static_cast<std::size_t>(state))});
    }
}

TEST_F(DumpRepeat, APositiveResultIsNoFailure) {
    reach(1);
    receive(datagram_t().done(36));
    EXPECT_EQ(engine().state, 2);
}

TEST_F(DumpRepeat, AMarkOnAnyRecordOfTheDumpRequestsARepeat) {
    reach(1);
    receive(link(multi | interrupted));
    receive(link());
    EXPECT_EQ(effects(), strings{}) << "nothing is requested before the dump ends";
    receive(datagram_t().done());
    EXPECT_EQ(engine().state, 1);
    EXPECT_EQ(effects(), strings{"kernel: dump links"});
}

TEST_F(DumpRepeat, AMarkInTheMiddleOfADatagramRequestsARepeat) {
    reach(1);
    receive(link()
                .link(16, 4, "eth1", {2, 0, 0, 0, 0, 1}, multi | interrupted)
                .link(16, 5, "eth2", {2, 0, 0, 0, 0, 1}, multi)
                .done());
    EXPECT_EQ(engine().state, 1);
    EXPECT_EQ(engine().interfaces.size(), 3U) << "the received records are kept";
}

TEST_F(DumpRepeat, AnEndAfterTheLastRecordRequestsARepeatToo) {
    reach(1);
    receive(link().done(-4));
    EXPECT_EQ(engine().state, 1);
    receive(link().done(0, multi | interrupted));
    EXPECT_EQ(engine().state, 1);
    EXPECT_EQ(effects(), strings(2, "kernel: dump links"));
}

TEST_F(DumpRepeat, ACleanRepetitionIsFollowedByTheNextStep) {
    reach(2);
    receive(datagram_t().done(0, multi | interrupted));
    forget();
    receive(datagram_t().done());
    EXPECT_EQ(engine().state, 3);
    EXPECT_EQ(effects(), strings{"kernel: dump routes"});
}

TEST_F(DumpRepeat, HappensThreeTimesAtMost) {
    for (const int state : {1, 2, 3}) {
        reach(state);
        for (int i = 0; i < 3; ++i) {
            receive(datagram_t().done(0, multi | interrupted));
            EXPECT_EQ(engine().state, state) << "repetition " << i;
        }
        EXPECT_EQ(effects(), strings(3, requests.at(static_cast<std::size_t>(state))));
        receive(datagram_t().done(0, multi | interrupted));
        EXPECT_EQ(engine().state, state + 1);
    }
}

TEST_F(DumpRepeat, IsCountedSeparatelyForEachStep) {
    reach(1);
    for (int i = 0; i < 4; ++i) {
        receive(datagram_t().done(-4));
    }
    ASSERT_EQ(engine().state, 2);
    forget();
    for (int i = 0; i < 3; ++i) {
        receive(datagram_t().done(-4));
    }
    EXPECT_EQ(engine().state, 2);
    EXPECT_EQ(effects(), strings(3, "kernel: dump addrs"));
}

TEST_F(DumpRepeat, AMarkDoesNotOutliveItsStep) {
    reach(1);
    for (int i = 0; i < 4; ++i) {
        receive(link(multi | interrupted));
        receive(datagram_t().done());
    }
    ASSERT_EQ(engine().state, 2);
    receive(datagram_t().done());
    EXPECT_EQ(engine().state, 3);
}

TEST_F(DumpRepeat, DoesNotLogTheStepAgainBeforeItIsTaken) {
    reach(1);
    verbosity = 4;
    receive(datagram_t().done(0, multi | interrupted));
    EXPECT_EQ(journal::count("log 6 Info: void CSync::discover(): requesting addrs"), 0U);
    EXPECT_EQ(journal::count("log 4 "), 0U);
}

TEST_F(DumpRepeat, IsLoggedAtLevelThree) {
    expect_info_at(3,
                   "void CSync::handle_dump_end(): dump was interrupted, requested "
                   "it again",
                   [this] {
                       reach(1);
                       receive(datagram_t().done(-4));
                   });
}

TEST_F(DumpRepeat, FindsTheSameRecordsWithoutDoublingThem) {
    reach(1);
    receive(link());
    receive(datagram_t().done());
    receive(datagram_t().address(20, 3, "2001:db8::5", 64, 0, multi | interrupted));
    receive(datagram_t().done());
    ASSERT_EQ(engine().state, 2);
    receive(datagram_t().address(20, 3, "2001:db8::6", 64, 0, multi));
    receive(datagram_t().address(20, 3, "2001:db8::5", 64, 0, multi).done());
    EXPECT_EQ(engine().state, 3);
    EXPECT_EQ(table(3), (strings{"2001:db8::5/64 Automatic 1", "2001:db8::6/64 Automatic 2"}));
}

TEST_F(DumpRepeat, DoesNotHappenInNormalOperation) {
    reach(4);
    receive(datagram_t().done(0, multi | interrupted));
    receive(datagram_t().done(-4));
    receive(link(multi | interrupted).done());
    EXPECT_EQ(engine().state, 4);
    EXPECT_EQ(journal::count("nl_send_simple("), 0U);
}

TEST_F(DumpRepeat, AFailedRequestIsThrown) {
    reach(1);
    fake_libnl::state().send_simple.then(-5);
    EXPECT_THROW(receive(datagram_t().done(-4)), netlink_err);
}

class DumpBeforeAnyRequest : public EngineTest {};

// There is no request that could be repeated.
TEST_F(DumpBeforeAnyRequest, ThatIsIncompleteBeginsTheDiscovery) {
    verbosity = 3;
    receive(datagram_t().done(-4));
    EXPECT_EQ(record(), (strings{"6 Info: void CSync::discover(): requesting link state",
                                 "kernel: dump links"}));
    // It is not counted as a repetition either.
    for (int i = 0; i < 3; ++i) {
        receive(datagram_t().done(-4));
        EXPECT_EQ(engine().state, 1);
    }
    receive(datagram_t().done(-4));
    EXPECT_EQ(engine().state, 2);
}

} // namespace
