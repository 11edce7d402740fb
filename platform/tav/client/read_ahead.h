// When the library reads ahead, and what it answers from memory.
//
// The service sends one notice before anybody sees a change below the node that was read ahead. The
// library looks for it, without waiting, before each answer. So an answer is never older than a
// change that was visible when the call began.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/export.h"
#include "client/snapshot.h"

namespace tav {

class Connection;

class ReadAhead {
public:
    // Not `wanted`: nothing is read ahead.
    explicit ReadAhead(bool read_ahead) : wanted(read_ahead) {}

    // Answers a read from memory, if necessary after reading ahead. False: ask the service, also if
    // the connection is lost; `answers` is then of no use.
    TAV_EXPORT bool read(Connection &connection, const std::vector<std::string> &paths,
                         std::vector<LeafAnswer> &answers);
    // The same for a listing.
    TAV_EXPORT bool list(Connection &connection, const std::string &path, api_status_t &status,
                         std::vector<Child> &children);
    // The service has listed the node.
    TAV_EXPORT void listed(const std::string &path);

    // The notice of the read-ahead with that serial number has arrived. False if it was not due.
    bool take_notice(std::uint32_t serial);
    // A wake-up was acknowledged without a fetch: the next read is a request, so that the service
    // signals the events again.
    void ask_next() { asks = true; }
    // The connection is lost.
    void lose() { drop(); }

private:
    bool covers(const std::string &node, const std::vector<std::string> &paths) const;
    bool prepare(Connection &connection, const std::vector<std::string> &paths);
    bool fetch(Connection &connection);
    void drop();

    bool wanted;
    bool asks = false; // the next read is left to the service
    Snapshot memory;
    bool voided = false;      // the memory is good for the call that requested it, and no other
    std::uint32_t held = 0;   // serial number of the read-ahead whose notice may come; 0: none
    std::uint32_t before = 0; // the same of the one before, while another one is requested

    // A node is read ahead at the `patience`th call in a row for something at or below it.
    std::string node; // the candidate: the last one that was listed, or the last one read ahead
    std::string too_large; // a node that the service refused
    std::size_t patience = 2;
    std::size_t calls = 0;   // for the candidate
    std::size_t answers = 0; // from the present memory
};

} // namespace tav
