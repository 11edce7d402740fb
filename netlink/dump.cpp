#include "netlink/dump.h"

#include <cstdint>

#include "netlink/wire.h"

bool dump_ends_behind_first(const unsigned char *buffer, int length) {
    wire::message_walk message(buffer, length);
    if (message.at_end()) {
        return false;
    }
    for (message.next(); !message.at_end(); message.next()) {
        if (message.header().nlmsg_type == NLMSG_DONE) {
            return true;
        }
    }
    return false;
}

bool dump_is_incomplete(const unsigned char *buffer, int length) {
    for (wire::message_walk message(buffer, length); !message.at_end(); message.next()) {
        if ((message.header().nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
            return true;
        }
        if (message.header().nlmsg_type == NLMSG_DONE && message.payload<std::int32_t>() < 0) {
            return true;
        }
    }
    return false;
}
