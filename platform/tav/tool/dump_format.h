// The format of a dump: JSON with one element per line, so that two dumps can be compared line by
// line.
//
//   {"format":"tav-dump","version":1,"path":"/a","elements":[
//   {"path":"/a","type":"node"},
//   {"path":"/a/b","type":"string","value":"x","time":1700000000}
//   ]}
//
// "path" is the dumped path; every element is at or below it. The root itself is not listed. Texts
// that are not UTF-8 are written in hexadecimal under "path_hex" and "value_hex". "time" is in
// seconds since 1970 and may be missing.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "protocol/messages.h"
#include "tool/text.h"

namespace tav::tool {

struct Dump {
    std::string path;
    std::vector<DumpElement> elements;
};

// The error in a dump, as a message for the user.
struct BadDump : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One element as it is written in a dump.
Json element_json(const DumpElement &element, bool with_time);

// Throws BadDump.
Dump parse_dump(const std::string &text);

// Writes to standard output.
void print_dump(const Dump &dump, bool with_times);

} // namespace tav::tool
