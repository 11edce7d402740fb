#include "sync/model.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/fake_libnl.h"
#include "netlink/channel.h"
#include "sync/errors.h"

namespace {

using fake_libnl::addr;

// A static_cast to a derived class does not compile if the base is virtual.
template <typename Base, typename Derived, typename = void>
struct casts_down : std::false_type {};
template <typename Base, typename Derived>
struct casts_down<Base, Derived,
                  std::void_t<decltype(static_cast<Derived *>(std::declval<Base *>()))>>
    : std::true_type {};

template <typename Base, typename Derived>
constexpr bool is_public_base = std::is_convertible_v<Derived *, Base *>;
template <typename Base, typename Derived>
constexpr bool is_virtual_public_base =
    is_public_base<Base, Derived> && !casts_down<Base, Derived>::value;
template <typename Base, typename Derived>
constexpr bool is_plain_public_base =
    is_public_base<Base, Derived> &&casts_down<Base, Derived>::value;

// If the conversion to a shared base compiles, there is only one: with two it would be ambiguous.
template <typename Base, typename Kernel, typename Store, typename Full>
constexpr bool is_diamond =
    is_virtual_public_base<Base, Kernel> &&is_virtual_public_base<Base, Store>
        &&is_virtual_public_base<Base, Full> &&is_plain_public_base<Kernel, Full>
            &&is_plain_public_base<Store, Full> && !std::is_polymorphic_v<Full> &&
    !std::is_base_of_v<Kernel, Store> && !std::is_base_of_v<Store, Kernel>;

static_assert(is_diamond<CAddress, CKernAddress, CTavAddress, CFullAddress>);
static_assert(is_diamond<CRoute, CKernRoute, CTavRoute, CFullRoute>);
static_assert(is_diamond<CInterface, CKernInterface, CTavInterface, CFullInterface>);

static_assert(std::is_same_v<decltype(CAddress::addr), in6_addr>);
static_assert(std::is_same_v<decltype(CAddress::prefix_len), std::uint8_t>);
static_assert(std::is_same_v<decltype(CKernAddress::ifindex), std::int32_t>);
static_assert(std::is_same_v<decltype(CKernAddress::scope), std::uint8_t>);
static_assert(std::is_same_v<decltype(CTavAddress::type), std::int32_t>);
static_assert(std::is_same_v<decltype(CTavAddress::node), tk_string>);
static_assert(std::is_same_v<decltype(CRoute::dst), in6_addr>);
static_assert(std::is_same_v<decltype(CRoute::dst_len), std::uint8_t>);
static_assert(std::is_same_v<decltype(CRoute::gateway), in6_addr>);
static_assert(std::is_same_v<decltype(CKernRoute::ifindex), std::int32_t>);
static_assert(std::is_same_v<decltype(CKernRoute::protocol), std::uint8_t>);
static_assert(std::is_same_v<decltype(CInterface::name), tk_string>);
static_assert(std::is_same_v<decltype(CKernInterface::ifindex), std::int32_t>);
static_assert(std::is_same_v<decltype(CKernInterface::hwaddr), tk_string>);
static_assert(std::is_same_v<decltype(CTavInterface::number), std::int32_t>);

static_assert(std::is_standard_layout_v<CAddress> && std::is_standard_layout_v<CRoute>);
static_assert(offsetof(CAddress, addr) == 0 && offsetof(CAddress, prefix_len) == 16);
static_assert(offsetof(CRoute, dst) == 0 && offsetof(CRoute, dst_len) == 16 &&
              offsetof(CRoute, gateway) > 16);

static_assert(std::is_same_v<decltype(tavcfg_t::iface), CTavInterface>);
static_assert(std::is_same_v<decltype(tavcfg_t::gateway), boost::optional<CTavRoute>>);
static_assert(std::is_same_v<decltype(tavcfg_t::addresses), std::vector<CTavAddress>>);
static_assert(std::is_same_v<decltype(ifcfg_t::iface), CFullInterface>);
static_assert(std::is_same_v<decltype(ifcfg_t::gateway), boost::optional<CFullRoute>>);
static_assert(std::is_same_v<decltype(ifcfg_t::addresses), std::vector<CFullAddress>>);
static_assert(!std::is_polymorphic_v<tavcfg_t> && !std::is_polymorphic_v<ifcfg_t>);
static_assert(std::is_same_v<tavcfg_map_t::key_type, std::uint32_t>);
static_assert(std::is_same_v<tavcfg_map_t::mapped_type, tavcfg_t>);
static_assert(std::is_same_v<ifcfg_map_t::key_type, std::int32_t>);
static_assert(std::is_same_v<ifcfg_map_t::mapped_type, ifcfg_t>);

template <typename One, typename Other>
constexpr bool are_strangers = !std::is_base_of_v<One, Other> && !std::is_base_of_v<Other, One>;
template <typename Error>
constexpr bool is_runtime_error_from_text = is_plain_public_base<std::runtime_error, Error> &&
                                                std::is_constructible_v<Error, const tk_string &> &&
                                            !std::is_default_constructible_v<Error>;

static_assert(is_runtime_error_from_text<sync_err> && is_runtime_error_from_text<sync_minor_err> &&
              is_runtime_error_from_text<sync_addr_err> && is_runtime_error_from_text<netlink_err>);
static_assert(are_strangers<sync_err, sync_minor_err> && are_strangers<sync_err, sync_addr_err> &&
              are_strangers<sync_minor_err, sync_addr_err> && are_strangers<sync_err, netlink_err>);

// Positions within one object, in declaration order.
template <typename Object>
std::ptrdiff_t offset(const Object &object, const void *member) {
    return static_cast<const char *>(member) -
           static_cast<const char *>(static_cast<const void *>(&object));
}

template <typename Kernel, typename Store, typename Full>
void expect_kernel_part_first() {
    const Full full;
    EXPECT_EQ(offset(full, static_cast<const Kernel *>(&full)), 0);
    EXPECT_GT(offset(full, static_cast<const Store *>(&full)), 0);
}

TEST(Model, AFullObjectBeginsWithItsKernelView) {
    expect_kernel_part_first<CKernAddress, CTavAddress, CFullAddress>();
    expect_kernel_part_first<CKernRoute, CTavRoute, CFullRoute>();
    expect_kernel_part_first<CKernInterface, CTavInterface, CFullInterface>();
}

TEST(Model, FieldsAreInTheirOrder) {
    const CKernAddress kernel_address;
    EXPECT_LT(offset(kernel_address, &kernel_address.ifindex),
              offset(kernel_address, &kernel_address.scope));
    const CTavAddress store_address;
    EXPECT_LT(offset(store_address, &store_address.type),
              offset(store_address, &store_address.node));
    const CKernRoute route;
    EXPECT_LT(offset(route, &route.ifindex), offset(route, &route.protocol));
    const CKernInterface link;
    EXPECT_LT(offset(link, &link.ifindex), offset(link, &link.hwaddr));
    const tavcfg_t stored;
    EXPECT_LT(offset(stored, &stored.iface), offset(stored, &stored.gateway));
    EXPECT_LT(offset(stored, &stored.gateway), offset(stored, &stored.addresses));
    const ifcfg_t known;
    EXPECT_LT(offset(known, &known.iface), offset(known, &known.gateway));
    EXPECT_LT(offset(known, &known.gateway), offset(known, &known.addresses));
}

TEST(Model, BothViewsOfAFullObjectSeeTheSameBase) {
    CFullAddress address;
    static_cast<CKernAddress &>(address).addr = addr("2001:db8::5");
    static_cast<CTavAddress &>(address).prefix_len = 64;
    EXPECT_TRUE(same_address(static_cast<CTavAddress &>(address), address));
    EXPECT_EQ(static_cast<CKernAddress &>(address).prefix_len, 64);
    CFullRoute route;
    static_cast<CTavRoute &>(route).gateway = addr("fe80::1");
    EXPECT_TRUE(same_gateway(static_cast<CKernRoute &>(route), static_cast<CTavRoute &>(route)));
    CFullInterface interface;
    static_cast<CKernInterface &>(interface).name = "eth0";
    EXPECT_EQ(static_cast<CTavInterface &>(interface).name, "eth0");
}

TEST(Model, FreshObjectsAreEmpty) {
    const CFullAddress address;
    EXPECT_TRUE(same_address(address, CAddress()));
    EXPECT_EQ(address.prefix_len, 0);
    EXPECT_EQ(address.type, 0);
    EXPECT_EQ(address.node, "");
    const CFullRoute route;
    EXPECT_TRUE(is_default_route(route));
    EXPECT_FALSE(has_gateway(route));
    EXPECT_EQ(route.dst_len, 0);
    const ifcfg_t known;
    EXPECT_FALSE(known.gateway);
    EXPECT_TRUE(known.addresses.empty());
    EXPECT_EQ(known.iface.number, 0);
}

TEST(Model, CopyingAndAssigningKeepsEveryView) {
    ifcfg_t known;
    known.iface.name = "eth0, a name too long for any small string buffer";
    known.iface.ifindex = 3;
    known.iface.hwaddr = "02:00:00:00:00:01";
    known.iface.number = 1;
    CFullAddress address;
    address.addr = addr("2001:db8::5");
    address.node = "the name of a node, too long for any small string buffer";
    known.addresses.push_back(address);
    ifcfg_t other;
    other = known;
    EXPECT_EQ(other.iface.name, known.iface.name);
    ifcfg_t moved;
    moved = std::move(other);
    EXPECT_EQ(moved.iface.name, known.iface.name);
    EXPECT_EQ(moved.iface.hwaddr, "02:00:00:00:00:01");
    EXPECT_EQ(moved.iface.number, 1);
    ASSERT_EQ(moved.addresses.size(), 1U);
    EXPECT_EQ(moved.addresses[0].node, address.node);
    EXPECT_TRUE(same_address(moved.addresses[0], address));
    const ifcfg_t constructed(std::move(moved));
    EXPECT_EQ(constructed.iface.name, known.iface.name);
}

TEST(Model, AnAddressIsIdentifiedByItsBytesAlone) {
    CAddress one;
    CAddress other;
    one.addr = other.addr = addr("2001:db8::5");
    one.prefix_len = 64;
    other.prefix_len = 48;
    EXPECT_TRUE(same_address(one, other));
    for (std::size_t i = 0; i < 16; ++i) {
        other.addr = one.addr;
        other.addr.s6_addr[i] = static_cast<unsigned char>(one.addr.s6_addr[i] ^ 1U);
        EXPECT_FALSE(same_address(one, other)) << "byte " << i;
    }
}

TEST(Model, ARouteIsADefaultRouteWithAnyLength) {
    CRoute route;
    route.dst_len = 64;
    EXPECT_TRUE(is_default_route(route));
    for (std::size_t i = 0; i < 16; ++i) {
        route.dst = in6_addr{};
        route.dst.s6_addr[i] = 1;
        EXPECT_FALSE(is_default_route(route)) << "byte " << i;
    }
}

TEST(Model, AGatewayOfSixteenZeroBytesIsNoGateway) {
    for (std::size_t i = 0; i < 16; ++i) {
        CRoute route;
        EXPECT_FALSE(has_gateway(route));
        route.gateway.s6_addr[i] = 0x80;
        EXPECT_TRUE(has_gateway(route)) << "byte " << i;
        EXPECT_FALSE(same_gateway(route, CRoute())) << "byte " << i;
        EXPECT_TRUE(same_gateway(route, route));
    }
}

TEST(Errors, CarryTheirText) {
    EXPECT_STREQ(sync_err("one").what(), "one");
    EXPECT_STREQ(sync_minor_err("two").what(), "two");
    EXPECT_STREQ(sync_addr_err("three").what(), "three");
}

TEST(Errors, TextsAreFormattedAndCutAt255Characters) {
    EXPECT_EQ(error_text("%s: %d", "void f()", 7), "void f(): 7");
    EXPECT_EQ(error_text("%s", std::string(254, 'a').c_str()), std::string(254, 'a'));
    EXPECT_EQ(error_text("%s", std::string(255, 'a').c_str()), std::string(255, 'a'));
    EXPECT_EQ(error_text("%sb", std::string(255, 'a').c_str()), std::string(255, 'a'));
    EXPECT_EQ(error_text("%s", std::string(5000, 'a').c_str()), std::string(255, 'a'));
}

} // namespace
