// What a datagram says about the dump that it belongs to, besides its records.
#pragma once

#include "netlink/wire.h"

struct dump_marks_t {
    // It answers a dump request; no notification has this mark.
    bool multipart = false;
    // The dump may lack records: the kernel marks the messages if the table changed during the
    // dump, and marks the end of the dump if the dump failed.
    bool incomplete = false;
    // The dump ends after the first message. Kernels since 6.9 put the end of a dump of IPv6 links
    // or addresses after the last record, in the same datagram; older ones send it alone, and recv
    // itself recognises it.
    bool ends_after_first = false;
};

dump_marks_t read_dump_marks(const wire::datagram_t &datagram);
