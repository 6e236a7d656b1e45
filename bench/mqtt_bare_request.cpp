// The baseline of bench/mqtt_request.py: a blocking request/reply through an MQTT 5 broker with
// libmosquitto and nothing else. An echo client answers on "bench/rep" what arrives on
// "bench/req"; the caller publishes and waits for the answer, ROUNDS times, QoS 0, both over
// loopback with TCP_NODELAY, as the bus's transport does.
//   mqtt_bare_request HOST PORT ROUNDS PAYLOAD_BYTES   prints "median_us p99_us"
#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Waiter {
  std::mutex mutex;
  std::condition_variable changed;
  long answered = 0;
};

mosquitto* open_client(const char* id, const char* host, int port, void* context) {
  mosquitto* m = mosquitto_new(id, true, context);
  mosquitto_int_option(m, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(m, MOSQ_OPT_TCP_NODELAY, 1);
  if (mosquitto_connect_bind_v5(m, host, port, 30, nullptr, nullptr) != MOSQ_ERR_SUCCESS) {
    std::fprintf(stderr, "cannot connect to %s:%d\n", host, port);
    std::exit(2);
  }
  return m;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: mqtt_bare_request HOST PORT ROUNDS PAYLOAD_BYTES\n");
    return 2;
  }
  const char* host = argv[1];
  const int port = std::atoi(argv[2]);
  const long rounds = std::atol(argv[3]);
  const std::string payload(static_cast<std::size_t>(std::atol(argv[4])), 'x');
  mosquitto_lib_init();

  mosquitto* echo = open_client("bench-echo", host, port, nullptr);
  mosquitto_message_v5_callback_set(
      echo, [](mosquitto* m, void*, const mosquitto_message* msg, const mosquitto_property*) {
        mosquitto_publish_v5(m, nullptr, "bench/rep", msg->payloadlen, msg->payload, 0, false, nullptr);
      });
  mosquitto_subscribe_v5(echo, nullptr, "bench/req", 0, 0, nullptr);

  Waiter waiter;
  mosquitto* caller = open_client("bench-caller", host, port, &waiter);
  mosquitto_message_v5_callback_set(
      caller, [](mosquitto*, void* context, const mosquitto_message*, const mosquitto_property*) {
        auto* w = static_cast<Waiter*>(context);
        std::lock_guard<std::mutex> lock(w->mutex);
        ++w->answered;
        w->changed.notify_all();
      });
  mosquitto_subscribe_v5(caller, nullptr, "bench/rep", 0, 0, nullptr);
  mosquitto_loop_start(echo);
  mosquitto_loop_start(caller);

  auto round_trip = [&](long n) {
    mosquitto_publish_v5(caller, nullptr, "bench/req", static_cast<int>(payload.size()), payload.data(), 0,
                         false, nullptr);
    std::unique_lock<std::mutex> lock(waiter.mutex);
    return waiter.changed.wait_for(lock, std::chrono::seconds(2), [&] { return waiter.answered >= n; });
  };
  long sent = 0;
  // The subscriptions settle while the first rounds go unanswered.
  for (int tries = 0; tries < 50 && !round_trip(++sent); ++tries) {
    std::lock_guard<std::mutex> lock(waiter.mutex);
    sent = waiter.answered;
  }
  for (int i = 0; i < 200; ++i) round_trip(++sent);  // warm up
  std::vector<double> samples;
  samples.reserve(static_cast<std::size_t>(rounds));
  for (long i = 0; i < rounds; ++i) {
    const auto start = std::chrono::steady_clock::now();
    if (!round_trip(++sent)) {
      std::fprintf(stderr, "a reply did not come\n");
      return 1;
    }
    samples.push_back(
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  std::sort(samples.begin(), samples.end());
  std::printf("%.2f %.2f\n", samples[samples.size() / 2], samples[samples.size() * 99 / 100]);
  mosquitto_loop_stop(caller, true);
  mosquitto_loop_stop(echo, true);
  mosquitto_destroy(caller);
  mosquitto_destroy(echo);
  mosquitto_lib_cleanup();
  return 0;
}
