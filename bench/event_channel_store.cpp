// An omniEvents push channel: producers push to the channel, the channel pushes to the consumer.
#include <atomic>
#include <stdexcept>

#include "bench/event_store.h"
#include "platform/process.h"

#if defined(PORTSVC_BENCH_OMNIEVENTS)
#include <omniEvents/CosEventChannelAdmin.hh>
#include <omniEvents/CosEventComm.hh>
#endif

namespace portsvc::bench {

#if defined(PORTSVC_BENCH_OMNIEVENTS)
namespace {

constexpr const char* queue_length = "1000000";  // never the limit
constexpr const char* cycle_ns = "1000000";      // of 0.1, 1, 10 and 100 ms the fastest

class Consumer : public POA_CosEventComm::PushConsumer {
 public:
  void push(const CORBA::Any& event) override {
    const CORBA::OctetSeq* data = nullptr;
    if (event >>= data) ++received_;
  }
  void disconnect_push_consumer() override {}

  std::size_t take_count() { return received_.exchange(0); }

 private:
  std::atomic<std::size_t> received_{0};
};

class ChannelStore : public EventStore {
 public:
  explicit ChannelStore(const Bench& bench)
      : log_(bench.folder.file("channel.log")),
        process_({executable_folder() + "/event_channel_host", queue_length, cycle_ns, "67108864"},
                 log_) {
    wait_until(
        [&] {
          process_.require_alive();
          return read_text(log_).find('\n') != std::string::npos;
        },
        std::chrono::seconds(20), "the event channel starts");
    std::string reference = read_text(log_);
    reference.erase(reference.find('\n'));
    const CORBA::Object_var object = bench.broker.from_text(reference);
    channel_ = CosEventChannelAdmin::EventChannel::_narrow(object);

    const CORBA::Object_var root = bench.broker.orb()->resolve_initial_references("RootPOA");
    adapter_ = PortableServer::POA::_narrow(root);
    const PortableServer::POAManager_var manager = adapter_->the_POAManager();
    manager->activate();
    consumer_id_ = adapter_->activate_object(&consumer_);
    const CosEventComm::PushConsumer_var consumer = consumer_._this();
    const CosEventChannelAdmin::ConsumerAdmin_var consumers = channel_->for_consumers();
    const CosEventChannelAdmin::ProxyPushSupplier_var proxy = consumers->obtain_push_supplier();
    proxy->connect_push_consumer(consumer);
  }
  ~ChannelStore() override { adapter_->deactivate_object(consumer_id_); }

  std::string name() const override { return "omniEvents channel"; }
  const Child& process() const override { return process_; }

  void begin(std::size_t size, unsigned int producers, std::size_t) override {
    const CosEventChannelAdmin::SupplierAdmin_var suppliers = channel_->for_suppliers();
    while (producers_.size() < producers) {
      CosEventChannelAdmin::ProxyPushConsumer_var proxy = suppliers->obtain_push_consumer();
      proxy->connect_push_supplier(CosEventComm::PushSupplier::_nil());
      producers_.push_back(proxy);
    }
    CORBA::OctetSeq data;
    data.length(static_cast<CORBA::ULong>(size));
    event_ <<= data;
    consumer_.take_count();
  }

  void produce(unsigned int producer) override { producers_[producer]->push(event_); }

  std::size_t consume(std::size_t) override { return consumer_.take_count(); }

 private:
  const std::string log_;
  const Child process_;
  Consumer consumer_;
  PortableServer::POA_var adapter_;
  PortableServer::ObjectId_var consumer_id_;
  CosEventChannelAdmin::EventChannel_var channel_;
  std::vector<CosEventChannelAdmin::ProxyPushConsumer_var> producers_;
  CORBA::Any event_;
};

}  // namespace

std::unique_ptr<EventStore> start_event_channel(const Bench& bench) {
  return std::make_unique<ChannelStore>(bench);
}

#else

std::unique_ptr<EventStore> start_event_channel(const Bench&) { return nullptr; }

#endif

}  // namespace portsvc::bench
