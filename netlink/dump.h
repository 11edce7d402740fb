// What a datagram tells of the dump that it belongs to, beside the records that it carries.
#pragma once

// Whether a message behind the first one ends a dump. Kernels since 6.9 put the end of a dump of
// IPv6 links or addresses behind the last record in the same datagram; older ones send it alone, as
// a datagram that recv itself recognises.
bool dump_ends_behind_first(const unsigned char *buffer, int length);

// Whether the dump may lack records: the kernel marks its messages when the table changed while
// they were gathered, and its end when gathering failed.
bool dump_is_incomplete(const unsigned char *buffer, int length);
