// One request as the broker's desks see it, the reports it causes, and the table of services:
// which desk answers a topic and who may call it.
//
// Threading: not thread-safe; the broker core decides one request at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "quorvex/core/value.hpp"
#include "quorvex/paper/broker_core.hpp"
#include "sessions.hpp"

namespace quorvex::paper {

// A report for a session, queued after the reply of the request that caused it.
struct Report {
  std::string session_id;
  std::string topic;
  std::string payload;  // msgpack
};

struct Request {
  Request(const Caller& c, const std::string& t, const core::Value& p) : caller(c), topic(t), payload(p) {}

  const Caller& caller;
  const std::string& topic;
  const core::Value& payload;
  std::size_t payload_bytes = 0;  // as it came, before decoding
  BusSession* session = nullptr;  // set by the auth desk for every service that needs a token
  std::vector<Report> reports;
  // A service may answer with a reply it encoded (or cached) itself instead of a response.
  std::string encoded_reply;

  const Person& person() const { return *session->person; }
  bool simulation() const { return session->simulation; }
};

// Who may call a topic.
enum class Access : std::uint8_t {
  Open,            // no token (logins, error tracking)
  Session,         // a token of any session
  LiveOnly,        // refused to simulation sessions: the simulation environment lacks it
  SimulationOnly,  // the api/v1/paper/ topics
};

class ServiceTable {
 public:
  using Service = std::function<core::Value(Request&)>;
  struct Route {
    Service service;
    Access access = Access::Session;
  };

  // Replaces an earlier service of the same topic.
  void serve(const std::string& topic, Access access, Service service) {
    routes_[topic] = Route{std::move(service), access};
  }
  // Serves api/v1/<category>/<name> and its simulation twin api/v1/paper/<name>.
  void serve_with_paper_twin(const std::string& category, const std::string& name, const Service& service) {
    serve("api/v1/" + category + "/" + name, Access::Session, service);
    serve("api/v1/paper/" + name, Access::SimulationOnly, service);
  }
  const Route* find(const std::string& topic) const {
    const auto it = routes_.find(topic);
    return it == routes_.end() ? nullptr : &it->second;
  }
  const std::unordered_map<std::string, Route>& routes() const { return routes_; }

 private:
  std::unordered_map<std::string, Route> routes_;
};

// A service that runs one of a desk's member functions.
template <typename Desk>
ServiceTable::Service bound(Desk* desk, core::Value (Desk::*method)(Request&)) {
  return [desk, method](Request& request) { return (desk->*method)(request); };
}

}  // namespace quorvex::paper
