// Where the end of a dump may be: in a separate datagram (older kernels, and every route dump), or
// after the last record (kernels since 6.9, link and address dumps).
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/engine_fixture.h"
#include "sync/errors.h"

namespace {

using fake_libnl::datagram_t;
using fake_libnl::multi;

class EndOfDump : public EngineTest {
protected:
    static datagram_t links() {
        return datagram_t().link(16, 3, "eth0", {2, 0, 0, 0, 0, 1}, multi);
    }
    static datagram_t addresses() { return datagram_t().address(20, 3, "fe80::1", 64, 253, multi); }
    static datagram_t routes() { return datagram_t().route(24, 3, "fe80::99", 4, "", 0, multi); }
};

TEST_F(EndOfDump, InADatagramOfItsOwnIsSeen) {
    engine().discover();
    receive(links());
    EXPECT_EQ(engine().state, 1);
    receive(datagram_t().done());
    EXPECT_EQ(engine().state, 2);
    receive(addresses());
    receive(datagram_t().done());
    EXPECT_EQ(engine().state, 3);
    receive(routes());
    receive(datagram_t().done());
    EXPECT_EQ(engine().state, 4);
    EXPECT_EQ(table(3), strings{"fe80::1/64 Link-Local 1"});
    EXPECT_EQ(gateway(3), "fe80::99");
    EXPECT_EQ(effects(), (strings{"kernel: dump links", "kernel: dump addrs", "kernel: dump routes",
                                  "list_node(~)"}));
}

TEST_F(EndOfDump, AfterTheLastRecordIsSeenOnceTheRecordsWereHandled) {
    engine().discover();
    verbosity = 3;
    forget();
    receive(links().done());
    EXPECT_EQ(
        record(),
        (strings{"6 Info: Ignoring unknown interface type 0", "6 Info: Adding new link: 'eth0' (3)",
                 "6 Info: ADDING link [3]: eth0 : 02:00:00:00:00:01",
                 "6 Info: void CSync::discover(): requesting addrs", "kernel: dump addrs"}));
    forget();
    receive(addresses().done());
    EXPECT_EQ(record(), (strings{"6 Info: Skipping addr msg with no addr",
                                 "6 Info: ADDING addr [3]: fe80::1/64 [scope:link]",
                                 "6 Info: void CSync::discover(): requesting routes",
                                 "kernel: dump routes"}));
    forget();
    receive(routes().done());
    EXPECT_EQ(engine().state, 4);
    EXPECT_EQ(gateway(3), "fe80::99");
}

TEST_F(EndOfDump, OfADumpSpreadOverSeveralDatagramsIsTheLastOnes) {
    engine().discover();
    for (int index = 3; index < 8; ++index) {
        receive(datagram_t()
                    .link(16, index, "eth" + std::to_string(index), {2, 0, 0, 0, 0, 1}, multi)
                    .link(16, index + 10, "eth" + std::to_string(index + 10), {2, 0, 0, 0, 0, 1},
                          multi));
        EXPECT_EQ(engine().state, 1);
    }
    receive(datagram_t().link(16, 30, "eth30", {2, 0, 0, 0, 0, 1}, multi).done());
    EXPECT_EQ(engine().state, 2);
    EXPECT_EQ(engine().interfaces.size(), 11U);
    receive(datagram_t().address(20, 3, "2001:db8::1", 64, 0, multi));
    receive(datagram_t().address(20, 3, "2001:db8::2", 64, 0, multi));
    EXPECT_EQ(engine().state, 2);
    receive(datagram_t().done());
    EXPECT_EQ(engine().state, 3);
    EXPECT_EQ(table(3).size(), 2U);
}

TEST_F(EndOfDump, OfAnEmptyDumpIsSeen) {
    engine().discover();
    receive(datagram_t().done());
    receive(datagram_t().done());
    receive(datagram_t().done());
    EXPECT_EQ(engine().state, 4);
}

TEST_F(EndOfDump, IsCountedOnceForADatagram) {
    engine().discover();
    receive(links().done().done());
    EXPECT_EQ(engine().state, 2);
}

TEST_F(EndOfDump, AfterNotificationsOfAnotherKindIsSeen) {
    for (const int type : {18, 19, 21, 22, 23, 25}) {
        restart();
        engine().state = 1;
        const std::int32_t body = 0;
        receive(datagram_t().message(type, &body, sizeof body).done());
        EXPECT_EQ(engine().state, 2) << "type " << type;
    }
}

TEST_F(EndOfDump, AfterMessagesOtherThanRoutingIsIgnored) {
    for (const int type : {26, 28, 52}) {
        restart();
        engine().state = 1;
        const std::int32_t body = 0;
        receive(datagram_t().message(type, &body, sizeof body).done());
        EXPECT_EQ(engine().state, 1) << "type " << type;
    }
    fake_libnl::message_t request;
    request.type = 20;
    receive(datagram_t().error(0, request).done());
    EXPECT_EQ(engine().state, 1);
}

TEST_F(EndOfDump, InNormalOperationIsWarnedAboutOncePerDatagram) {
    track(3, "eth0");
    const std::string warning =
        "Warning: Got NLMSG_DONE outside of a requested discovery operation...";
    for (const auto &datagram : {links().done(), addresses().done(), routes().done()}) {
        expect_logged_at(1, 4, warning, [this, &datagram] {
            engine().state = 4;
            receive(datagram);
        });
    }
    EXPECT_EQ(engine().state, 4);
}

TEST_F(EndOfDump, IsNotSeenAfterAMessageThatEndsTheWalk) {
    // Sizes with which the walk would not advance: 0, and one that is negative as a signed number.
    for (const std::uint32_t size : {0U, 0x80000000U, 0xfffffff0U, 0xffffffffU}) {
        restart();
        engine().state = 2;
        track(3, "eth0");
        receive(addresses().set_message_length(size).done());
        EXPECT_EQ(engine().state, 2) << size;
    }
}

TEST_F(EndOfDump, IsNotReachedWhenAHandlerThrows) {
    engine().state = 4;
    track(3, "eth0", 1);
    verbosity = 4;
    fake_tav::on_call("set_leaves").returns(-1);
    EXPECT_THROW(receive(addresses().done()), sync_err);
    EXPECT_EQ(journal::count("log 4 "), 0U);
}

} // namespace
