// Turns one received datagram into kernel records, in the order of its messages.
//
// The caller chooses the decoder by the datagram's first message. The decoder reads every message
// as that kind, whatever its type, and does not distinguish additions from deletions. Messages that
// lack what the engine needs are skipped with a log line (level 2); malformed content never throws
// and is never read beyond `length` bytes. Constants: linux/rtnetlink.h, linux/if_link.h,
// linux/if_addr.h.
#pragma once

#include <vector>

#include <tav/toolkit.h>

#include "sync/model.h"

std::vector<CKernInterface> decode_links(const unsigned char *buffer, int length);
std::vector<CKernAddress> decode_addrs(const unsigned char *buffer, int length);
std::vector<CKernRoute> decode_routes(const unsigned char *buffer, int length);

// Six bytes as "00:1a:2b:3c:4d:5e".
tk_string mac_to_str(const unsigned char *bytes);
