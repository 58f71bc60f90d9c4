// Command-to-reply latency of the hub's MQTT client, beside the broker's own request/response
// round trip measured in the same run on the same broker.
//
//   BM_BrokerRoundTrip: a bare responder client answers each request on another topic.
//   BM_HubCommandToReply: the hub's client (router, de-duplication, "get_power_threshold" read
//   from the board's configuration store, reply through MqttCommandAck) answers the command.
// Both requesters publish with QoS 2; both responders subscribe with QoS 0 and answer with
// QoS 2, as the hub does. The hub benchmark reports its mean as a ratio to the baseline's.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "base/log.h"
#include "benchsupport.h"
#include "cloud/mqttclient.h"
#include "platform/board.h"
#include "platform/boardmaker.h"

namespace {

using benchsupport::FreePort;

bool Accepts(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

// A mosquitto broker of its own on a free loopback port, ended with the process.
struct BenchBroker {
  pid_t pid = -1;
  uint16_t port = 0;
  std::string dir;

  bool Start() {
    char tmpl[] = "/tmp/tarvo-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return false;
    dir = tmpl;
    port = FreePort();
    const std::string conf = dir + "/mosquitto.conf";
    std::ofstream(conf) << "listener " << port
                        << " 127.0.0.1\nallow_anonymous true\npersistence false\n"
                           "log_dest none\nset_tcp_nodelay true\n";
    const char* program =
        access("/usr/sbin/mosquitto", X_OK) == 0 ? "/usr/sbin/mosquitto" : "/usr/bin/mosquitto";
    pid = fork();
    if (pid == 0) {
      execl(program, program, "-c", conf.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    for (int i = 0; i < 1000 && pid > 0; i++) {
      if (Accepts(port)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  ~BenchBroker() {
    if (pid > 0) {
      kill(pid, SIGTERM);
      waitpid(pid, nullptr, 0);
    }
    std::error_code ec;
    if (!dir.empty()) std::filesystem::remove_all(dir, ec);
  }
};

// Publishes a request and waits for the response whose text starts with the request's id.
class Requester {
 public:
  Requester(uint16_t port, const char* response_topic) {
    mosq_ = mosquitto_new(nullptr, true, this);
    mosquitto_message_callback_set(mosq_, OnMessage);
    mosquitto_subscribe_callback_set(mosq_, OnSubscribe);
    mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
    if (mosquitto_connect(mosq_, "127.0.0.1", port, 60) != MOSQ_ERR_SUCCESS) std::abort();
    mosquitto_subscribe(mosq_, nullptr, response_topic, 2);
    mosquitto_loop_start(mosq_);
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [&] { return subscribed_; });
  }
  ~Requester() {
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
  }
  // false on a time-out
  bool RoundTrip(const char* topic, int id, const std::string& payload) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      want_ = "{\"id\":" + std::to_string(id) + ",";
      got_ = false;
    }
    mosquitto_publish(mosq_, nullptr, topic, static_cast<int>(payload.size()), payload.data(), 2,
                      false);
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(10), [&] { return got_; });
  }

 private:
  static void OnSubscribe(struct mosquitto*, void* self, int, int, const int*) {
    auto* r = static_cast<Requester*>(self);
    std::lock_guard<std::mutex> lock(r->mutex_);
    r->subscribed_ = true;
    r->cv_.notify_all();
  }
  static void OnMessage(struct mosquitto*, void* self, const struct mosquitto_message* m) {
    auto* r = static_cast<Requester*>(self);
    std::lock_guard<std::mutex> lock(r->mutex_);
    const char* p = static_cast<const char*>(m->payload);
    if (m->payloadlen >= static_cast<int>(r->want_.size()) &&
        std::memcmp(p, r->want_.data(), r->want_.size()) == 0) {
      r->got_ = true;
      r->cv_.notify_all();
    }
  }
  struct mosquitto* mosq_;
  std::mutex mutex_;
  std::condition_variable cv_;
  bool subscribed_ = false;
  std::string want_;
  bool got_ = false;
};

// Answers every request on "bench/request" with {"id":N,"result":[0]} on "bench/response".
class Responder {
 public:
  explicit Responder(uint16_t port) {
    mosq_ = mosquitto_new(nullptr, true, nullptr);
    mosquitto_message_callback_set(mosq_, OnMessage);
    mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
    if (mosquitto_connect(mosq_, "127.0.0.1", port, 60) != MOSQ_ERR_SUCCESS) std::abort();
    mosquitto_subscribe(mosq_, nullptr, "bench/request", 0);
    mosquitto_loop_start(mosq_);
  }
  ~Responder() {
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
  }

 private:
  static void OnMessage(struct mosquitto* mosq, void*, const struct mosquitto_message* m) {
    std::string request(static_cast<const char*>(m->payload), static_cast<size_t>(m->payloadlen));
    int id = std::atoi(request.c_str() + 6);  // {"id":N,...
    std::string reply = "{\"id\":" + std::to_string(id) + ",\"result\":[0]}";
    mosquitto_publish(mosq, nullptr, "bench/response", static_cast<int>(reply.size()), reply.data(),
                      2, false);
  }
  struct mosquitto* mosq_;
};

struct World {
  BenchBroker broker;
  std::string board;
  bool ok = false;
  double broker_mean_us = 0;

  World() {
    mosquitto_lib_init();
    if (!broker.Start()) return;
    char tmpl[] = "/tmp/tarvo-bench-board-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return;
    board = tmpl;
    platform::BoardOptions options;
    options.force = true;
    std::string error;
    if (platform::MakeBoardRoot(board, options, &error) != 0) {
      std::fprintf(stderr, "board: %s\n", error.c_str());
      return;
    }
    // The hub's records would go to syslog at every message; keep the measurement to MQTT.
    tlog::Open(3);
    setenv("TARVO_MQTT_HOST", "127.0.0.1", 1);
    setenv("TARVO_MQTT_PORT", std::to_string(broker.port).c_str(), 1);
    platform::SetRootForTest(board);
    InitMqtt();
    for (int i = 0; i < 1000 && !IsMqttConnected(); i++) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ok = IsMqttConnected();
  }
  ~World() {
    std::error_code ec;
    if (!board.empty()) std::filesystem::remove_all(board, ec);
  }
};

World& TheWorld() {
  static World world;
  return world;
}

int g_id = 30000000;

void BM_BrokerRoundTrip(benchmark::State& state) {
  World& world = TheWorld();
  if (!world.ok) {
    state.SkipWithError("no broker");
    return;
  }
  Responder responder(world.broker.port);
  Requester requester(world.broker.port, "bench/response");
  // Wait until the responder's subscription is in place.
  while (!requester.RoundTrip("bench/request", g_id, "{\"id\":" + std::to_string(g_id) + "}")) {
  }
  auto start = std::chrono::steady_clock::now();
  int64_t n = 0;
  for (auto _ : state) {
    int id = ++g_id;
    if (!requester.RoundTrip("bench/request", id, "{\"id\":" + std::to_string(id) + "}")) {
      state.SkipWithError("no response");
      return;
    }
    n++;
  }
  auto us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start);
  world.broker_mean_us = n > 0 ? us.count() / n : 0;
}
BENCHMARK(BM_BrokerRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_HubCommandToReply(benchmark::State& state) {
  World& world = TheWorld();
  if (!world.ok) {
    state.SkipWithError("no broker or hub client");
    return;
  }
  Requester requester(world.broker.port, "zelo/command_ack");
  auto start = std::chrono::steady_clock::now();
  int64_t n = 0;
  for (auto _ : state) {
    int id = ++g_id;
    std::string command =
        "{\"id\":" + std::to_string(id) + ",\"method\":\"get_power_threshold\",\"params\":[]}";
    if (!requester.RoundTrip("zelo/command", id, command)) {
      state.SkipWithError("no reply");
      return;
    }
    n++;
  }
  auto us = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start);
  if (n > 0 && world.broker_mean_us > 0) {
    state.counters["ratio_to_broker"] = (us.count() / n) / world.broker_mean_us;
  }
}
BENCHMARK(BM_HubCommandToReply)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
