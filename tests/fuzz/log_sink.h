// Replaces the daemon's log: the calls of shell/log.h, without system log or standard error.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace log_sink {

// Before this is called, no message is kept and almost none formatted; afterwards the messages up
// to this level are kept.
void record_up_to(std::uint32_t level);
// Each message as "<priority> <level> <text>", and the end of recording.
std::vector<std::string> take();
// One informational message as take() returns it.
std::string info(std::uint32_t level, const std::string &text);
std::string warning(std::uint32_t level, const std::string &text);

// All of them as lines of one text.
std::string joined(const std::vector<std::string> &messages);

} // namespace log_sink
