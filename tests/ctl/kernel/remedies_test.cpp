// Each remedy that `check` prints, carried out as it is in the situation that prompts it:
// afterwards kernel and store agree, and nothing else has changed. lint fails for a remedy without
// a case.
#include <algorithm>
#include <ostream>
#include <set>

#include <linux/if_addr.h>

#include <nlohmann/json.hpp>

#include "ctl_test.h"

namespace {

class Remedies;

struct case_t {
    std::string reason; // as check names it
    std::string name;   // of the test
    void (Remedies::*arrange)();
    // Every line of both sides that changes contains one of these.
    std::vector<std::string> about;
};

void PrintTo(const case_t &one, std::ostream *out) {
    *out << one.name;
}

const std::string node1 = kt::paths::interfaces + "/1";

class Remedies : public CtlTest, public testing::WithParamInterface<case_t> {
public:
    // --- the store as a whole ---
    void NoInterfacesNode() {
        rebuilds_allowed = true;
        store.remove(kt::paths::interfaces);
    }
    void OddNode() {
        rebuilds_allowed = true;
        store.write(kt::paths::interfaces + "/wan port/IPv6/Label", "x");
    }
    void OddNumber() {
        ASSERT_EQ(stop_daemon(), 0);
        move_settings("01");
        store.remove(node1);
        start_daemon();
    }
    void TwoNodes() {
        move_settings("01");
        store.remove(kt::paths::address(1, "base"));
    }

    void UnconfirmedChange() {
        ASSERT_EQ(run({"gateway", "set", "eth0", "fe80::2", "--confirm", "100"}).status, 0);
        ASSERT_TRUE(becomes([&] { return in_step(); }));
    }

    // --- links ---
    void SmallMtu() { device.set_mtu("eth0", 1000); }
    void Ipv6Disabled() {
        disable_ipv6("1");
        ASSERT_TRUE(becomes([&] { return device.addresses("eth0").empty(); }));
        ASSERT_TRUE(settle());
        store.set_address(1, "base", "2001:db8:1::1/64");
    }
    void NoNode() { store.remove(node1); }
    void Down() {
        device.set_up("eth0", false);
        ASSERT_TRUE(settle());
    }

    // --- stored addresses that are skipped ---
    void NoAddressLeaf() { store.write(kt::paths::type_value(1, "x"), "Static"); }
    void NoTypeLeaf() { store.write(kt::paths::address_value(1, "x"), "2001:db8::5/64"); }
    void NoTypeLeafOfAnUnfitAddress() {
        store.write(kt::paths::address_value(1, "x"), "ff02::5/64");
    }
    void NoTypeLeafAndNoLength() { store.write(kt::paths::address_value(1, "x"), "2001:db8::5"); }
    void AddressIsANumber() {
        store.set_address(1, "x", "2001:db8::5/64", "none");
        store.write_typed(kt::paths::address_value(1, "x"), element_type_integer, "7");
    }
    void TypeIsANumber() {
        store.set_address(1, "x", "2001:db8::5/64", "none");
        store.write_typed(kt::paths::type_value(1, "x"), element_type_integer, "7");
    }
    void NoLength() { store.set_address(1, "x", "2001:db8::5"); }
    void NoLengthAndStoredTwice() {
        store.set_address(1, "w", "2001:db8::5/64");
        store.set_address(1, "x", "2001:db8::5");
        ASSERT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/64"); }));
    }
    void NoLengthAndAnotherLengthStored() {
        store.set_address(1, "w", "2001:db8::5/48");
        store.set_address(1, "x", "2001:db8::5");
        ASSERT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::5/48"); }));
    }
    void BadLength() { store.set_address(1, "x", "2001:db8::5/129"); }
    void BadText() { store.set_address(1, "x", "router"); }
    void BadType() { store.set_address(1, "x", "2001:db8::5/64", "static"); }

    // --- addresses ---
    void RefusedAddress() {
        Ipv6Disabled();
        ASSERT_TRUE(settle()); // the kernel has refused it
        disable_ipv6("0");
        ASSERT_TRUE(becomes([&] {
            const std::string own = device.link_local("eth0");
            return !own.empty() && !store.node_of(1, own).empty();
        }));
    }
    void Unfit() { store.set_address(1, "x", "ff02::5/64"); }
    void LeftOver() {
        freeze();
        store.set_address(1, "x", "2001:db8::5/64", "Automatic");
    }
    void StoredTwice() {
        store.set_address(1, "x", "2001:db8::5/64");
        store.set_address(1, "y", "2001:db8::5/48");
    }
    // The removal of the Static node would take the link-local address from the kernel.
    void LinkLocalStoredTwice() { store.set_address(1, "x", device.link_local("eth0")); }
    void AutomaticStoredTwice() {
        device.add_address("eth0", "2001:db8::5/64");
        ASSERT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::5/64", "Automatic"); }));
        store.set_address(1, "x", "2001:db8::5/64");
    }
    void NotInStoreAfterABridge() {
        pass_through_bridge();
        ASSERT_TRUE(becomes(
            [&] { return !store.has_address(1, device.link_local("eth0"), "Link-Local"); }));
    }
    void PrefixOfAStaticAddress() {
        freeze();
        store.set_address(1, "base", "2001:db8:1::1/48");
    }
    void PrefixOfAStaticLinkLocalAddress() {
        const std::string address = device.link_local("eth0");
        store.set_address(1, "x", address.substr(0, address.find('/')) + "/48");
        store.remove_address(1, store.node_of(1, address));
    }
    void PrefixOfAnAutomaticAddress() {
        device.add_address("eth0", "2001:db8::5/64");
        ASSERT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::5/64", "Automatic"); }));
        store.write(kt::paths::address_value(1, store.node_of(1, "2001:db8::5/64")),
                    "2001:db8::5/48");
    }
    void OtherType() {
        freeze();
        const std::string node = store.node_of(1, device.link_local("eth0"));
        store.write(kt::paths::type_value(1, node), "Automatic");
    }
    void Duplicate() {
        kt::write_file("/proc/sys/net/ipv6/conf/eth0/accept_dad", "1");
        neighbour.add_address("peer0", "2001:db8::5/64");
        ASSERT_TRUE(becomes([&] { return !is_tentative(neighbour, "peer0"); }));
        store.set_address(1, "x", "2001:db8::5/64");
        ASSERT_TRUE(becomes([&] { return reported() != nullptr; }));
        neighbour.delete_address("peer0", "2001:db8::5/64"); // as the sentence says
    }
    void DuplicateOfAnAutomaticAddress() {
        kt::write_file("/proc/sys/net/ipv6/conf/eth0/accept_dad", "1");
        neighbour.add_address("peer0", "2001:db8::5/64");
        ASSERT_TRUE(becomes([&] { return !is_tentative(neighbour, "peer0"); }));
        device.add_address("eth0", "2001:db8::5/64");
    }

    // --- gateways and routes ---
    void GatewayWithoutLeaf() {
        clear_gateway();
        store.write(kt::paths::ipv6(1) + "/Default Gateway/Label", "x");
    }
    void GatewayIsANumber() {
        clear_gateway();
        store.write_typed(kt::paths::gateway(1), element_type_integer, "7");
    }
    void GatewayWithBadLength() { set_bad_gateway("fe80::1/0"); }
    void UnreachableGatewayWithBadLength() { set_bad_gateway("2001:db8:dead::1/0"); }
    void GatewayIsAText() { set_bad_gateway("router"); }
    void UnfitGateway() { store.set_gateway(1, "2001:db8:1::1"); }
    void GatewayOfALinkThatIsDown() {
        clear_gateway();
        device.set_up("eth0", false);
        ASSERT_TRUE(settle());
        store.set_gateway(1, "fe80::1");
    }
    void UnreachableGateway() { store.set_gateway(1, "2001:db8:dead::1"); }
    void GatewayOfAScript() {
        clear_gateway();
        device.add_route({"::/0", "fe80::2", "eth0", boot});
        store.set_gateway(1, "fe80::2");
    }
    void GatewayOfAnAdvertisement() {
        clear_gateway();
        advertise();
        ASSERT_TRUE(becomes([&] {
            const auto routes = device.routes();
            return std::any_of(routes.begin(), routes.end(),
                               [&](const auto &one) { return one.gateway == advertised; });
        }));
        advertiser.reset(); // real routers advertise every few minutes
        store.set_gateway(1, advertised);
    }
    void RefusedGateway() {
        ASSERT_EQ(stop_daemon(), 0);
        device.set_up("eth0", false);
        start_daemon_and_wait();
        device.set_up("eth0");
        ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
        ASSERT_TRUE(settle());
    }
    void GatewayNotInStore() {
        clear_gateway();
        freeze();
        device.add_route({"::/0", "fe80::2", "eth0", 4});
    }
    void OtherGateway() {
        freeze();
        store.set_gateway(1, "fe80::2");
    }
    void RouteOfAScript() {
        clear_gateway();
        device.add_route({"::/0", "fe80::2", "eth0", boot});
    }
    void RouteJoinedWithThatOfAnotherLink() {
        add_eth(1);
        store.make_interface(2);
        shell("ip -6 route append default via fe80::2 dev eth1 proto static");
    }

    // --- the daemon ---
    void NoDaemon() { ASSERT_EQ(stop_daemon(), 0); }

protected:
    static constexpr std::uint8_t boot = 3; // as "ip route add" makes it

    void SetUp() override {
        CtlTest::SetUp();
        store.set_address(1, "base", "2001:db8:1::1/64");
        store.set_gateway(1, "fe80::1");
        start_daemon_and_wait();
        // The kernel reports the link-local address last, after its duplicate detection.
        ASSERT_TRUE(becomes([&] {
            return in_step() && store.has_address(1, device.link_local("eth0"), "Link-Local");
        })) << run({"check"}).output;
    }
    void TearDown() override {
        if (frozen) {
            daemon->thaw();
        }
        CtlTest::TearDown();
    }
    // So that the moment before the daemon acts can be seen.
    void freeze() {
        daemon->freeze();
        frozen = true;
    }
    static void disable_ipv6(const std::string &value) {
        kt::write_file("/proc/sys/net/ipv6/conf/eth0/disable_ipv6", value);
    }
    static bool is_tentative(kt::Kernel &kernel, const std::string &link) {
        const auto addresses = kernel.addresses(link);
        return std::any_of(addresses.begin(), addresses.end(),
                           [](const auto &one) { return (one.flags & IFA_F_TENTATIVE) != 0; });
    }
    void move_settings(const std::string &node) {
        const std::string there = kt::paths::interfaces + "/" + node + "/IPv6/";
        store.write({{there + "Addresses/base/Address/Value", "2001:db8:1::1/64"},
                     {there + "Addresses/base/Type/Value", "Static"},
                     {there + "Default Gateway/Value", "fe80::1"}});
    }
    void clear_gateway() {
        store.remove_gateway(1);
        ASSERT_TRUE(settle());
    }
    void set_bad_gateway(const std::string &text) {
        clear_gateway();
        store.set_gateway(1, text);
        ASSERT_TRUE(settle());
    }
    // The daemon forgets a link that leaves a bridge, and does not know its addresses afterwards.
    void pass_through_bridge() {
        shell("ip link add br0 type bridge && ip link set eth0 master br0");
        ASSERT_TRUE(settle());
        shell("ip link set eth0 nomaster && ip link del br0");
        ASSERT_TRUE(settle());
    }
    void advertise() {
        advertised = neighbour.link_local("peer0");
        advertised.erase(advertised.find('/'));
        advertiser = std::make_unique<kt::Advertiser>(sandbox.neighbour(), "peer0",
                                                      std::vector<std::string>{}, 1800);
    }

    // A command line as a user would enter it, with the programs under test.
    void shell(const std::string &line) {
        kt::spawn_options_t options;
        options.environment["TAV_SOCKET"] = service.socket();
        options.environment["TAV_TIMEOUT_MS"] = "60000";
        const std::string programs = "tav() { '" + kt::program("TAV") +
                                     "' \"$@\"; }; tandrelctl() { '" TANDRELCTL "' \"$@\"; }; "
                                     "tandrel() { '" +
                                     kt::program("TANDREL") +
                                     "' \"$@\"; }; pidof() { echo none; }; ";
        kt::Process process(sandbox, {"/bin/bash", "-c", programs + line}, options);
        EXPECT_EQ(process.wait_exit(), 0) << line << "\n" << process.errors().tail(5);
    }

    nlohmann::json found; // the finding, as check printed it
    const nlohmann::json *reported() {
        const result_t result = run({"check", "--json"});
        const auto report = nlohmann::json::parse(result.output, nullptr, false);
        if (report.is_discarded()) {
            return nullptr;
        }
        for (const char *kind : {"differences", "notes"}) {
            for (const auto &one : report[kind]) {
                if (one["reason"] == GetParam().reason && one["remedy"] != "") {
                    found = one;
                    return &found;
                }
            }
        }
        return nullptr;
    }

    // A line for each setting of either side.
    std::set<std::string> state() {
        std::set<std::string> lines;
        for (const auto &link : device.links()) {
            for (const auto &one : device.addresses(link.name)) {
                lines.insert("kernel " + link.name + " " + one.text);
            }
        }
        for (const auto &one : device.routes()) {
            if (one.destination == "::/0") {
                lines.insert("kernel route " + one.gateway + " " + one.link + " " +
                             std::to_string(one.protocol));
            }
        }
        std::istringstream dump(store.dump());
        for (std::string line; std::getline(dump, line);) {
            lines.insert("store " + line);
        }
        return lines;
    }

    std::string advertised;
    std::unique_ptr<kt::Advertiser> advertiser;
    bool frozen = false;
};

TEST_P(Remedies, EndTheDifferenceAndChangeNothingElse) {
    (this->*GetParam().arrange)();
    if (HasFatalFailure()) {
        return;
    }
    ASSERT_TRUE(becomes([&] { return reported() != nullptr; })) << run({"check"}).output;
    const std::set<std::string> before = state();
    const std::string remedy = found["remedy"];
    shell(remedy);
    if (frozen) {
        daemon->thaw();
        frozen = false;
    }
    EXPECT_TRUE(becomes([&] { return in_step(); })) << remedy << "\n" << run({"check"}).output;
    if (!advertised.empty()) {
        const auto received = kt::received_advertisements();
        advertise();
        EXPECT_TRUE(becomes([&] { return kt::received_advertisements() > received + 3; }));
        EXPECT_TRUE(in_step()) << run({"check"}).output;
    }
    const std::set<std::string> after = state();
    std::vector<std::string> changed;
    std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(),
                                  std::back_inserter(changed));
    for (const std::string &line : changed) {
        const auto &about = GetParam().about;
        EXPECT_TRUE(std::any_of(about.begin(), about.end(),
                                [&](const std::string &part) { return contains(line, part); }))
            << remedy << " changed: " << line;
    }
}

#define ARRANGED(name) #name, &Remedies::name

const std::vector<case_t> cases = {
    {"interfaces-absent", ARRANGED(NoInterfacesNode), {"store "}},
    {"bad-interface-node", ARRANGED(OddNode), {"/wan port"}},
    {"odd-interface-number", ARRANGED(OddNumber), {"/01", "/1/"}},
    {"interface-twice",
     ARRANGED(TwoNodes),
     {"/01", "/1/IPv6/Addresses/base", "kernel eth0 2001:db8:1::1/64"}},
    {"unconfirmed-change", ARRANGED(UnconfirmedChange), {}},
    {"small-mtu", ARRANGED(SmallMtu), {"fe80::", "/Addresses/1"}},
    {"ipv6-disabled", ARRANGED(Ipv6Disabled), {"2001:db8:1::1", "fe80::", "/Addresses/1"}},
    {"no-store-node", ARRANGED(NoNode), {"store "}},
    {"link-down", ARRANGED(Down), {"fe80::", "/Addresses"}},
    {"address-leaf-missing", ARRANGED(NoAddressLeaf), {"/x"}},
    {"type-leaf-missing", ARRANGED(NoTypeLeaf), {"/x", "2001:db8::5/64"}},
    {"address-unfit", ARRANGED(NoTypeLeafOfAnUnfitAddress), {"/x"}},
    {"address-without-prefix", ARRANGED(NoTypeLeafAndNoLength), {"/x", "2001:db8::5/64"}},
    {"address-not-text", ARRANGED(AddressIsANumber), {"/x"}},
    {"type-not-text", ARRANGED(TypeIsANumber), {"/x", "2001:db8::5/64"}},
    {"address-without-prefix", ARRANGED(NoLength), {"/x", "2001:db8::5/64"}},
    {"address-without-prefix", ARRANGED(NoLengthAndStoredTwice), {"/x"}},
    {"address-without-prefix", ARRANGED(NoLengthAndAnotherLengthStored), {"/x"}},
    {"address-bad-prefix", ARRANGED(BadLength), {"/x", "2001:db8::5/64"}},
    {"address-bad-text", ARRANGED(BadText), {"/x"}},
    {"type-unknown", ARRANGED(BadType), {"/x", "2001:db8::5/64"}},
    {"address-not-in-kernel", ARRANGED(RefusedAddress), {"kernel eth0 2001:db8:1::1"}},
    {"address-unfit", ARRANGED(Unfit), {"/x"}},
    {"address-left-over", ARRANGED(LeftOver), {"/x"}},
    {"address-stored-twice", ARRANGED(StoredTwice), {"2001:db8::5", "/y"}},
    {"address-stored-twice", ARRANGED(LinkLocalStoredTwice), {"/Addresses/1"}},
    {"address-stored-twice", ARRANGED(AutomaticStoredTwice), {"/Addresses/"}},
    {"address-not-in-store", ARRANGED(NotInStoreAfterABridge), {"store "}},
    {"prefix-static", ARRANGED(PrefixOfAStaticAddress), {"2001:db8:1::1"}},
    {"prefix-static", ARRANGED(PrefixOfAStaticLinkLocalAddress), {"/x"}},
    {"prefix-of-kernel", ARRANGED(PrefixOfAnAutomaticAddress), {"2001:db8::5", "/Addresses/2"}},
    {"type-differs", ARRANGED(OtherType), {"/Addresses/1"}},
    {"duplicate-found", ARRANGED(Duplicate), {}},
    {"duplicate-found", ARRANGED(DuplicateOfAnAutomaticAddress), {"2001:db8::5", "/Addresses/"}},
    {"gateway-leaf-missing", ARRANGED(GatewayWithoutLeaf), {"/Default Gateway"}},
    {"gateway-not-text", ARRANGED(GatewayIsANumber), {"/Default Gateway"}},
    {"gateway-bad-prefix", ARRANGED(GatewayWithBadLength), {"/Default Gateway", "route fe80::1"}},
    {"gateway-bad-prefix", ARRANGED(UnreachableGatewayWithBadLength), {"/Default Gateway"}},
    {"gateway-bad-text", ARRANGED(GatewayIsAText), {"/Default Gateway"}},
    {"gateway-unfit", ARRANGED(UnfitGateway), {"/Default Gateway"}},
    {"gateway-link-down", ARRANGED(GatewayOfALinkThatIsDown), {"fe80::", "/Addresses"}},
    {"gateway-unreachable", ARRANGED(UnreachableGateway), {"/Default Gateway"}},
    {"gateway-taken", ARRANGED(GatewayOfAScript), {"kernel route fe80::2"}},
    {"gateway-taken", ARRANGED(GatewayOfAnAdvertisement), {"kernel route fe80::"}},
    {"gateway-not-in-kernel", ARRANGED(RefusedGateway), {"kernel route fe80::1"}},
    {"gateway-not-in-store", ARRANGED(GatewayNotInStore), {"/Default Gateway"}},
    {"gateway-differs", ARRANGED(OtherGateway), {"kernel route fe80::"}},
    {"route-other-protocol",
     ARRANGED(RouteOfAScript),
     {"kernel route fe80::2", "/Default Gateway"}},
    {"route-multipath", ARRANGED(RouteJoinedWithThatOfAnotherLink), {"/2/"}},
    {"daemon-absent", ARRANGED(NoDaemon), {}},
};

INSTANTIATE_TEST_SUITE_P(OfCheck, Remedies, testing::ValuesIn(cases),
                         [](const auto &one) { return one.param.name; });

} // namespace
