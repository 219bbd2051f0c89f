// A Redis list: RPUSH of one event, LPOP of a batch. Its server keeps nothing on disk.
#include <fmt/format.h>

#include <stdexcept>

#include "bench/event_store.h"

#if defined(PORTSVC_BENCH_HIREDIS)
#include <hiredis.h>
#endif

namespace portsvc::bench {

#if defined(PORTSVC_BENCH_HIREDIS)
namespace {

struct FreeReply {
  void operator()(redisReply* reply) const { ::freeReplyObject(reply); }
};
using Reply = std::unique_ptr<redisReply, FreeReply>;

/// A connection, for one thread.
class Connection {
 public:
  explicit Connection(unsigned int port)
      : context_(::redisConnect("127.0.0.1", static_cast<int>(port)), &::redisFree) {}

  bool connected() const { return context_ && context_->err == 0; }

  Reply command(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Reply reply(static_cast<redisReply*>(::redisvCommand(context_.get(), format, arguments)));
    va_end(arguments);
    if (!reply) throw std::runtime_error(fmt::format("Redis: {}", context_->errstr));
    if (reply->type == REDIS_REPLY_ERROR) throw std::runtime_error(reply->str);
    return reply;
  }

 private:
  std::unique_ptr<redisContext, void (*)(redisContext*)> context_;
};

class RedisStore : public EventStore {
 public:
  explicit RedisStore(const Bench& bench)
      : port_(free_port()),
        process_({"redis-server", "--port", std::to_string(port_), "--bind", "127.0.0.1", "--save",
                  "", "--appendonly", "no", "--dir", bench.folder.file("")},
                 bench.folder.file("redis.log")) {
    wait_until(
        [&] {
          process_.require_alive();
          return Connection(port_).connected();
        },
        std::chrono::seconds(20), "redis-server starts");
    consumer_ = std::make_unique<Connection>(port_);
  }

  std::string name() const override { return "Redis list"; }
  const Child& process() const override { return process_; }

  void begin(std::size_t size, unsigned int producers, std::size_t) override {
    data_.assign(size, 'x');
    while (producers_.size() < producers) {
      producers_.push_back(std::make_unique<Connection>(port_));
    }
    consumer_->command("DEL events");
  }

  void produce(unsigned int producer) override {
    producers_[producer]->command("RPUSH events %b", data_.data(), data_.size());
  }

  std::size_t consume(std::size_t batch) override {
    const Reply reply = consumer_->command("LPOP events %d", static_cast<int>(batch));
    return reply->type == REDIS_REPLY_ARRAY ? reply->elements : 0;
  }

 private:
  const unsigned int port_;
  const Child process_;
  std::unique_ptr<Connection> consumer_;
  std::vector<std::unique_ptr<Connection>> producers_;
  std::string data_;
};

}  // namespace

std::unique_ptr<EventStore> start_redis(const Bench& bench) {
  if (!is_installed("redis-server")) return nullptr;
  return std::make_unique<RedisStore>(bench);
}

#else

std::unique_ptr<EventStore> start_redis(const Bench&) { return nullptr; }

#endif

}  // namespace portsvc::bench
