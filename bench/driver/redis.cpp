// Redis through hiredis over a unix socket. Acknowledgement: the reply to PUBLISH, which the server sends when the
// value is in the output buffer of every subscriber.

#include "driver.h"

#include <hiredis/hiredis.h>

#include <cstring>

namespace bench {
namespace {

struct FreeContext {
    void operator()(redisContext* context) const { redisFree(context); }
};
struct FreeReply {
    void operator()(redisReply* reply) const { freeReplyObject(reply); }
};
using Context = std::unique_ptr<redisContext, FreeContext>;
using Reply = std::unique_ptr<redisReply, FreeReply>;

Context Connect(const std::string& path) {
    Context context(redisConnectUnix(path.c_str()));
    if (!context || context->err != 0) {
        throw DriverError(std::string("redis: cannot connect: ") + (context ? context->errstr : "out of memory"));
    }
    return context;
}

Reply Checked(redisContext& context, void* raw) {
    Reply reply(static_cast<redisReply*>(raw));
    if (!reply || reply->type == REDIS_REPLY_ERROR) {
        throw DriverError(std::string("redis: ") + (reply ? reply->str : context.errstr));
    }
    return reply;
}

Reply NextReply(redisContext& context) {
    void* raw = nullptr;
    redisGetReply(&context, &raw);
    return Checked(context, raw);
}

class RedisPublisher final : public IPublisher {
public:
    RedisPublisher(const std::string& path, int topicNumber) : topic(TopicName(topicNumber)), context(Connect(path)) {}

    bool Publish(std::int64_t value) override {
        const char* arguments[] = {"PUBLISH", topic.c_str(), reinterpret_cast<const char*>(&value)};
        const std::size_t sizes[] = {7, topic.size(), sizeof(value)};
        Checked(*context, redisCommandArgv(context.get(), 3, arguments, sizes));
        return true;
    }

private:
    const std::string topic;
    const Context context;
};

class RedisSubscriber final : public ISubscriber {
public:
    RedisSubscriber(const std::string& path, int topics) : context(Connect(path)) {
        for (int i = 0; i < topics; ++i) {
            redisAppendCommand(context.get(), "SUBSCRIBE %s", TopicName(i).c_str());
        }
        for (int i = 0; i < topics; ++i) {
            NextReply(*context);
        }
    }

    std::int64_t Next() override {
        const auto reply = NextReply(*context);
        std::int64_t value = 0;
        if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 3 || reply->element[2]->len != sizeof(value)) {
            throw DriverError("redis: unexpected message");
        }
        std::memcpy(&value, reply->element[2]->str, sizeof(value));
        return value;
    }

private:
    const Context context;
};

class RedisDriver final : public IDriver {
public:
    explicit RedisDriver(const std::string& socketPath) : path(socketPath) {}

    std::unique_ptr<IPublisher> MakePublisher(int topic) override {
        return std::make_unique<RedisPublisher>(path, topic);
    }
    std::unique_ptr<ISubscriber> MakeSubscriber(int topics) override {
        return std::make_unique<RedisSubscriber>(path, topics);
    }

private:
    const std::string path;
};

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    return bench::RunDriver([](const auto& address) { return std::make_unique<bench::RedisDriver>(address); }, argc,
                            argv);
}
