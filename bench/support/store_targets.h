// Alternatives for storing a program's settings, with one interface: this store, Redis, and SQLite
// opened by the program itself. Each stores the same addresses: two texts, address and type.
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
    // Writes both texts, together or not at all.
    virtual void write_both(int address, const std::string &text, const std::string &type) = 0;
    // Lists all addresses and reads both texts of each; returns the number of texts.
    virtual std::size_t read_all() = 0;
    // Registers for changes, and returns the descriptor that reports them. -1: not supported.
    virtual int subscribe() = 0;
    // Reads what the descriptor reported.
    virtual void take_events() = 0;
};

// A store in a directory of the sandbox, with its service if it has one.
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
