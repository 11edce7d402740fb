#include <hiredis/hiredis.h>

#include <fcntl.h>
#include <poll.h>

#include <stdexcept>

#include "support/store_targets.h"

namespace bench {
namespace {

using Context = std::unique_ptr<redisContext, void (*)(redisContext *)>;
using Reply = std::unique_ptr<redisReply, void (*)(void *)>;

Context connection(const std::string &socket) {
    Context context(redisConnectUnix(socket.c_str()), redisFree);
    if (context == nullptr || context->err != 0) {
        throw std::runtime_error("redis: no connection");
    }
    return context;
}

// One key per address, a hash of its two texts; a set lists the addresses.
class RedisClient : public StoreClient {
public:
    explicit RedisClient(std::string path)
        : socket(std::move(path)), context(connection(socket)), events(nullptr, redisFree) {}

    std::string read(int address) override {
        const Reply reply = command({"HGET", key(address), "Address"});
        return {reply->str, reply->len};
    }

    void write(int address, const std::string &text) override {
        command({"HSET", key(address), "Address", text});
    }

    void write_both(int address, const std::string &text, const std::string &type) override {
        command({"HSET", key(address), "Address", text, "Type", type});
        if (address > known) {
            command({"SADD", "addresses", std::to_string(address)});
            known = address;
        }
    }

    // The lookups are pipelined, as in a client that is built for speed.
    std::size_t read_all() override {
        const Reply list = command({"SMEMBERS", "addresses"});
        for (std::size_t i = 0; i < list->elements; ++i) {
            append({"HMGET", "address:" + std::string(list->element[i]->str), "Address", "Type"});
        }
        std::size_t texts = 0;
        for (std::size_t i = 0; i < list->elements; ++i) {
            texts += next()->elements;
        }
        return texts;
    }

    int subscribe() override {
        events = connection(socket);
        const Reply reply(static_cast<redisReply *>(
                              redisCommand(events.get(), "PSUBSCRIBE __keyspace@0__:address:*")),
                          freeReplyObject);
        return events->fd;
    }

    void take_events() override {
        pollfd readable{events->fd, POLLIN, 0};
        void *reply = nullptr;
        while (poll(&readable, 1, 0) > 0 && redisGetReply(events.get(), &reply) == REDIS_OK) {
            freeReplyObject(reply);
        }
    }

private:
    static std::string key(int address) { return "address:" + std::to_string(address); }

    void append(const std::vector<std::string> &words) {
        std::vector<const char *> texts;
        std::vector<std::size_t> lengths;
        for (const std::string &word : words) {
            texts.push_back(word.data());
            lengths.push_back(word.size());
        }
        redisAppendCommandArgv(context.get(), static_cast<int>(words.size()), texts.data(),
                               lengths.data());
    }

    Reply next() {
        void *reply = nullptr;
        if (redisGetReply(context.get(), &reply) != REDIS_OK ||
            static_cast<redisReply *>(reply)->type == REDIS_REPLY_ERROR) {
            throw std::runtime_error("redis: a command failed");
        }
        return Reply(static_cast<redisReply *>(reply), freeReplyObject);
    }

    Reply command(const std::vector<std::string> &words) {
        append(words);
        return next();
    }

    std::string socket;
    Context context;
    Context events;
    int known = 0;
};

class RedisTarget : public StoreTarget {
public:
    RedisTarget(kt::Sandbox &sandbox, const std::string &appendfsync)
        : socket(sandbox.directory() + "/redis-" + appendfsync + ".sock") {
        process = std::make_unique<kt::Process>(sandbox,
                                                std::vector<std::string>{"/usr/bin/redis-server",
                                                                         "--port",
                                                                         "0",
                                                                         "--unixsocket",
                                                                         socket,
                                                                         "--dir",
                                                                         sandbox.directory(),
                                                                         "--appendonly",
                                                                         "yes",
                                                                         "--appendfilename",
                                                                         appendfsync + ".aof",
                                                                         "--appenddirname",
                                                                         appendfsync,
                                                                         "--appendfsync",
                                                                         appendfsync,
                                                                         "--save",
                                                                         "",
                                                                         "--notify-keyspace-events",
                                                                         "Kh",
                                                                         "--daemonize",
                                                                         "no"});
        if (!kt::eventually([&] {
                try {
                    return connect() != nullptr;
                } catch (const std::runtime_error &) {
                    return false; // not yet
                }
            })) {
            throw std::runtime_error("redis does not answer");
        }
    }

    std::unique_ptr<StoreClient> connect() override {
        return std::make_unique<RedisClient>(socket);
    }

private:
    std::string socket;
    std::unique_ptr<kt::Process> process;
};

} // namespace

std::unique_ptr<StoreTarget> redis_target(kt::Sandbox &sandbox, const std::string &appendfsync) {
    return std::make_unique<RedisTarget>(sandbox, appendfsync);
}

} // namespace bench
