// What travels on the bus: messages, the identity of a requester, session events and errors.
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace quorvex::bus {

// A topic and its msgpack payload. Immutable once sent and shared by every receiver of a publish.
struct Message {
  std::string topic;
  std::string payload;
};
using MessagePtr = std::shared_ptr<const Message>;

inline MessagePtr make_message(std::string topic, std::string payload) {
  return std::make_shared<const Message>(Message{std::move(topic), std::move(payload)});
}

// The session that sent a request, as a service sees it. The token is a secret: never log it.
struct Requester {
  std::string session_id;
  std::string client_name;
  std::string token;
  bool waits = false;  // the sender is blocked until the reply (a blocking request)
};

// Codes of session events. The numbers are part of the wire contract with Python callers
// (the `event_code` argument of the event callback).
enum class SessionEventCode : int {
  Connected = 0,          // connect() succeeded
  Reconnecting = 1,       // the link was lost; retrying with the reconnect settings
  Reconnected = 2,        // the link is back; subscriptions were restored
  Down = 3,               // the link was lost and every retry failed; the session-down callback follows
  SubscriptionError = 4,  // a subscription was refused, or could not be restored after a reconnect
  SlowConsumer = 5,       // published messages were dropped: the listener fell behind the queue's bound
};

// "connected", "reconnecting", "reconnected", "down", "subscription error", "slow consumer".
const char* event_name(SessionEventCode code);

struct SessionEvent {
  SessionEventCode code;
  int response_code;  // 0 for normal transitions, else an error number of the transport
  std::string info;   // human-readable detail (never holds credentials)
};

// A bus operation that could not be done: unknown scheme, unreachable host, session not connected,
// invalid topic or option. The message says what was wrong and what was expected.
class BusError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace quorvex::bus
