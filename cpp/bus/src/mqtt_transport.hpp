// The transport of the mqtt:// and mqtts:// schemes (private to the bus library).
#pragma once

#include <memory>

#include "quorvex/bus/transport.hpp"

namespace quorvex::bus {

// Connects to the MQTT 5 broker of options.host; blocks up to options.connect_timeout_ms.
// BusError naming the host (never the password) when it cannot.
std::unique_ptr<Transport> open_mqtt_transport(const ConnectOptions& options,
                                               std::weak_ptr<TransportListener> listener);

}  // namespace quorvex::bus
