// Everything below one node as of one moment, in the memory of the message that brought it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "client/export.h"
#include "protocol/messages.h"

namespace tav {

class Snapshot {
public:
    enum class Taken { all, none, malformed };

    // Replaces the content by that of an answer to a read-ahead of `path`. Anything but `all`
    // leaves nothing; `none`: the service keeps no read-ahead for this client, or the library finds
    // it too laborious to search.
    Taken take(const std::string &path, std::string answer);
    void clear();

    // The path of the node; empty if there is nothing.
    const std::string &path() const { return top; }
    // Bytes of the answer.
    std::size_t bytes() const { return content.size(); }

    // What a read of the path answers. False if only the service can know it: the path is not below
    // the node, or it is not valid.
    TAV_EXPORT bool leaf(const std::string &path, LeafAnswer &answer) const;
    // The same for a listing.
    TAV_EXPORT bool list(const std::string &path, api_status_t &status,
                         std::vector<Child> &children) const;

private:
    using Index = std::uint32_t;
    static constexpr Index none = 0; // the node itself, which is nobody's child

    struct Found {
        AheadElement element;
        Index parent = none;
        Index first = none; // child
        Index next = none;  // sibling
    };

    Taken read(Reader &in);
    bool enter(Index number);
    std::size_t place(Index parent, std::string_view name) const;
    api_status_t find(const std::string &path, Index &found) const;

    std::string top;
    std::string content;
    std::vector<Found> elements; // the first one is the node itself
    std::vector<Index> places;   // a hash table of the elements by parent and name
};

} // namespace tav
