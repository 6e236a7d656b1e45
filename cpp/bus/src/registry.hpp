// The process-wide bus registry (private to the bus library).
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quorvex/bus/transport.hpp"

namespace quorvex::bus {
class InprocBus;

namespace detail {

// What close_all_endpoints() closes: sessions and responders.
class Endpoint {
 public:
  virtual ~Endpoint() = default;
  virtual void close_endpoint() = 0;
};

// The only mutable state of the process outside the objects users create.
struct Registry {
  Registry();
  std::mutex mutex;
  std::map<std::string, TransportFactory> transports;
  std::map<std::string, std::weak_ptr<InprocBus>> buses;
  std::vector<std::weak_ptr<Endpoint>> endpoints;
};

Registry& registry();

// Remembers an endpoint for close_all_endpoints() (weakly: it may go away on its own).
void track_endpoint(const std::shared_ptr<Endpoint>& endpoint);

// "inproc://x" -> "x"; "" without a scheme.
std::string host_address(const std::string& host);

}  // namespace detail
}  // namespace quorvex::bus
