#include "netlink/dump.h"

#include <cstdint>

dump_marks_t read_dump_marks(const wire::datagram_t &datagram) {
    dump_marks_t marks;
    bool first = true;
    for (wire::message_walk message(datagram); !message.at_end(); message.next()) {
        const bool done = message.header().nlmsg_type == NLMSG_DONE;
        const auto flags = message.header().nlmsg_flags;
        marks.multipart = marks.multipart || (flags & NLM_F_MULTI) != 0;
        marks.incomplete = marks.incomplete || (flags & NLM_F_DUMP_INTR) != 0 ||
                           (done && message.payload<std::int32_t>() < 0);
        marks.ends_after_first = marks.ends_after_first || (done && !first);
        first = false;
    }
    return marks;
}
