// C++ counterparts for benchmarks and tests: an echo service, bursts measured without Python, and
// the in-process bus's administrative calls (drop a link, shut down) for testing session events.
#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <chrono>

#include "interpreter.hpp"
#include "quorvex/bus/inproc.hpp"
#include "quorvex/bus/responder.hpp"
#include "quorvex/core/codec.hpp"

namespace pymqlink {
namespace {

namespace bus = quorvex::bus;
using Seconds = std::chrono::duration<double>;

// Replies to every request with its own payload.
class EchoService {
 public:
  EchoService(const std::string& host, const std::string& topic_filter, bool inline_dispatch) {
    bus::ResponderOptions options;
    options.client_name = "echo";
    options.dispatch = inline_dispatch ? bus::Dispatch::Inline : bus::Dispatch::Worker;
    without_gil([&] {
      responder_ = std::make_unique<bus::Responder>(host, options);
      responder_->serve(topic_filter,
                        [](const bus::ServiceRequest& r) { r.reply(std::string(r.payload())); });
    });
  }
  ~EchoService() {
    GilRelease release;
    responder_.reset();
  }
  void close() {
    without_gil([&] { responder_->close(); });
  }

 private:
  std::unique_ptr<bus::Responder> responder_;
};

std::string bytes_of(nb::bytes data) { return std::string(data.c_str(), data.size()); }

}  // namespace

void bind_bench(nb::module_& m) {
  nb::class_<EchoService>(m, "EchoService", "A C++ service that replies with each request's payload.")
      .def(nb::init<const std::string&, const std::string&, bool>(), nb::arg("host"), nb::arg("topic_filter"),
           nb::arg("inline") = true)
      .def("close", &EchoService::close);

  m.def(
      "_publish_burst",
      [](const std::string& host, const std::string& topic, nb::bytes payload, std::size_t count) {
        const std::string bytes = bytes_of(payload);
        return without_gil([&] {
          bus::ResponderOptions options;
          options.client_name = "burst";
          bus::Responder publisher(host, options);
          const auto start = std::chrono::steady_clock::now();
          for (std::size_t i = 0; i < count; ++i) publisher.publish(topic, bytes);
          return Seconds(std::chrono::steady_clock::now() - start).count();
        });
      },
      nb::arg("host"), nb::arg("topic"), nb::arg("payload"), nb::arg("count"),
      "Publishes `count` copies of `payload` from C++; returns the seconds spent publishing.");

  m.def(
      "_decode_burst",
      [](nb::bytes payload, std::size_t count) {
        const std::string bytes = bytes_of(payload);
        return without_gil([&] {
          const auto start = std::chrono::steady_clock::now();
          std::size_t entries = 0;
          for (std::size_t i = 0; i < count; ++i) entries += quorvex::core::decode(bytes).size();
          const double seconds = Seconds(std::chrono::steady_clock::now() - start).count();
          // Using the count keeps the decoding from being optimised away.
          return entries == 0 ? -seconds : seconds;
        });
      },
      nb::arg("payload"), nb::arg("count"),
      "Decodes `payload` `count` times into C++ values; returns the seconds spent.");

  m.def(
      "_inproc_sever",
      [](const std::string& bus_name, const std::string& session_id) {
        return without_gil([&] { return bus::InprocBus::named(bus_name)->sever(session_id); });
      },
      nb::arg("bus_name"), nb::arg("session_id"),
      "Drops one session's link to the in-process bus, as a broker dropping a connection would.");
  m.def(
      "_inproc_shutdown",
      [](const std::string& bus_name, bool down) {
        without_gil([&] {
          auto named = bus::InprocBus::named(bus_name);
          down ? named->shutdown() : named->restart();
        });
      },
      nb::arg("bus_name"), nb::arg("down") = true,
      "Shuts the in-process bus down (every link dropped, reconnects refused), or with down=False reopens "
      "it.");
}

}  // namespace pymqlink
