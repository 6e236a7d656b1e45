// Shared pieces of the bus tests: a recording session listener and per-test bus names.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quorvex/bus/inproc.hpp"
#include "quorvex/bus/responder.hpp"
#include "quorvex/bus/session.hpp"

namespace bus_test {

using namespace std::chrono_literals;
using quorvex::bus::Delivery;
using quorvex::bus::DeliveryKind;

struct Seen {
  DeliveryKind kind;
  std::string topic;
  std::string payload;
  std::string corrid;
  int event_code = -1;
  std::string info;
  std::thread::id thread;
};

// Records every delivery; an optional hook runs for each one on the dispatcher thread.
class RecordingListener : public quorvex::bus::SessionListener {
 public:
  void set_hook(std::function<void(const Delivery&)> hook) {
    std::lock_guard<std::mutex> lock(mutex_);
    hook_ = std::make_shared<std::function<void(const Delivery&)>>(std::move(hook));
  }

  void deliver(std::vector<Delivery>& batch, const std::atomic<bool>& stop) override {
    for (const auto& d : batch) {
      if (stop) return;
      Seen seen{d.kind, "", "", "", -1, "", std::this_thread::get_id()};
      if (d.message) {
        seen.topic = d.message->topic;
        seen.payload = d.message->payload;
      }
      if (d.request) seen.corrid = d.request->corrid;
      if (d.event) {
        seen.event_code = static_cast<int>(d.event->code);
        seen.info = d.event->info;
      }
      std::shared_ptr<std::function<void(const Delivery&)>> hook;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        seen_.push_back(seen);
        changed_.notify_all();
        hook = hook_;
      }
      if (hook) (*hook)(d);
    }
  }

  // Waits until `pred` holds over the recorded deliveries, up to `timeout`.
  bool wait_until(const std::function<bool(const std::vector<Seen>&)>& pred,
                  std::chrono::milliseconds timeout = 5s) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return pred(seen_); });
  }
  bool wait_count(DeliveryKind kind, std::size_t n, std::chrono::milliseconds timeout = 5s) {
    return wait_until([&](const std::vector<Seen>& s) { return count(s, kind) >= n; }, timeout);
  }
  std::vector<Seen> of(DeliveryKind kind) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Seen> out;
    for (const auto& s : seen_) {
      if (s.kind == kind) out.push_back(s);
    }
    return out;
  }
  std::vector<Seen> all() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_;
  }
  static std::size_t count(const std::vector<Seen>& s, DeliveryKind kind) {
    std::size_t n = 0;
    for (const auto& x : s) n += x.kind == kind;
    return n;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Seen> seen_;
  std::shared_ptr<std::function<void(const Delivery&)>> hook_;
};

inline std::string bus_host() {
  const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
  return std::string("inproc://") + info->test_suite_name() + "." + info->name();
}

inline quorvex::bus::ConnectOptions options(const std::string& host,
                                            const std::string& client_name = "client") {
  quorvex::bus::ConnectOptions o;
  o.host = host;
  o.user = "user";
  o.password = "secret-password";
  o.client_name = client_name;
  return o;
}

// A connected session with its recording listener.
struct Client {
  std::shared_ptr<RecordingListener> listener = std::make_shared<RecordingListener>();
  quorvex::bus::Session session{listener};

  explicit Client(const std::string& host, const std::string& client_name = "client") {
    session.connect(options(host, client_name));
  }
  explicit Client(const quorvex::bus::ConnectOptions& o) { session.connect(o); }
};

}  // namespace bus_test
