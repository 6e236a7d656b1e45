// The in-process bus: endpoints of one process exchanging messages without a network.
//
// Buses are named and kept in the process-wide bus registry; InprocBus::named() creates a bus on
// first use and returns the same bus while anything still holds it. The transport for
// "inproc://NAME" attaches to the bus NAME; other schemes (an embedded broker's, for one) can start
// their services on a bus and then attach their sessions with attach().
//
// Routing:
//   - a request goes to one serving endpoint: the one serving the exact topic, else the first
//     (in serving order) whose wildcard filter matches; with none, the request is dropped and the
//     requester's wait runs out;
//   - a published message goes once to every endpoint with at least one matching subscription;
//   - a point-to-point message goes to the session with the given id, or to every session using
//     the given client name.
// Deliveries to one endpoint keep the order in which the bus accepted them.
//
// Threading: all methods are safe from any thread. Service handlers that run inline run on the
// requester's thread with no bus lock held.
#pragma once

#include <memory>
#include <string>

#include "quorvex/bus/transport.hpp"

namespace quorvex::bus {

class InprocBus {
 public:
  // The bus with this name, created on first use. BusError for an empty name.
  static std::shared_ptr<InprocBus> named(const std::string& name);

  virtual ~InprocBus() = default;
  virtual const std::string& name() const = 0;

  // Attaches an endpoint. BusError naming the bus when it is shut down.
  virtual std::unique_ptr<Transport> attach(const ConnectOptions& options,
                                            std::weak_ptr<TransportListener> listener) = 0;

  // Drops one endpoint's link the way a broker drops a connection; its owner sees on_link_lost.
  // Returns false when no endpoint has that session id.
  virtual bool sever(const std::string& session_id) = 0;
  // Drops every link and refuses attach() and reopen() until restart().
  virtual void shutdown() = 0;
  virtual void restart() = 0;

  virtual std::size_t endpoint_count() const = 0;
};

}  // namespace quorvex::bus
