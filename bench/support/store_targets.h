// What a program could keep its settings in, all behind one interface: this store, Redis, and
// SQLite opened by the program itself. The same addresses are kept in each: two texts, address and
// type.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "harness/process.h"
#include "harness/sandbox.h"

namespace bench {

// One client's connection. Every call throws std::runtime_error when it fails.
class StoreClient {
public:
    virtual ~StoreClient() = default;
    virtual std::string read(int address) = 0; // the text of the address
    virtual void write(int address, const std::string &text) = 0;
    // Both texts, at once or not at all.
    virtual void write_both(int address, const std::string &text, const std::string &type) = 0;
    // Lists all addresses and reads both texts of each; gives the number of texts.
    virtual std::size_t read_all() = 0;
    // Asks to be told of changes, and gives the descriptor that tells. -1: not offered.
    virtual int subscribe() = 0;
    // Takes away what the descriptor told.
    virtual void take_events() = 0;
};

// A store, kept in a directory of the sandbox, with its service where it has one.
class StoreTarget {
public:
    virtual ~StoreTarget() = default;
    virtual std::unique_ptr<StoreClient> connect() = 0;
};

// `durability` is one of tavd's; "memory" keeps nothing.
std::unique_ptr<StoreTarget> tav_target(kt::Sandbox &sandbox, const std::string &durability);
// Redis with an append-only file: appendfsync "always" or "everysec".
std::unique_ptr<StoreTarget> redis_target(kt::Sandbox &sandbox, const std::string &appendfsync);
// SQLite in WAL mode: synchronous "full" or "normal".
std::unique_ptr<StoreTarget> sqlite_target(kt::Sandbox &sandbox, const std::string &synchronous);

} // namespace bench
