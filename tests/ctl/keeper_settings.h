// Settings of eth0 that the keeper's tests use.
#pragma once

#include <string>

#include "ctl/keeper_plan.h"
#include "ctl/look_fixture.h"

namespace keeper_test {

struct Bytes : LookTest {
    using LookTest::bytes;
};

inline ctl::setting_t office(const std::string &node = "office",
                             const std::string &address = "2001:db8::5") {
    ctl::setting_t setting{"eth0", false, {}, node};
    setting.address.addr = Bytes::bytes(address);
    setting.address.prefix_len = 64;
    return setting;
}

inline ctl::setting_t gateway() {
    ctl::setting_t setting{"eth0", true, {}, ""};
    setting.address.addr = Bytes::bytes("fe80::1");
    return setting;
}

} // namespace keeper_test
