// How the bus maps onto MQTT 5 (docs/protocol.md, "The bus on MQTT"): the address of a broker,
// the topics of requests, replies, inboxes, publications and subscription interest, and the
// interest records every session keeps on the broker. Private to the bus library; no network here.
//
// Threading: free functions and values; InterestTable has no lock of its own.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "quorvex/core/topic_index.hpp"
#include "quorvex/core/value.hpp"

namespace quorvex::bus::mqtt {

// mqtt://[USER[:PASSWORD]@]HOST[:PORT][?OPTION=VALUE&...], or mqtts:// for TLS.
struct BrokerAddress {
  bool tls = false;
  std::string host;  // a name, an IPv4 address or an IPv6 address without its brackets
  int port = 1883;
  std::string user;  // from the address; the connect options' user and password come first
  std::string password;
  std::uint32_t session_expiry_s = 600;  // how long the broker keeps a session's inbox after its link drops
  std::string cafile;  // mqtts: trusted authorities (default: $QUORVEX_MQTT_CAFILE, else the system's)
  std::string capath;
  std::string group;  // services: the shared-subscription group (default: the client name)
};

// BusError naming the host (credentials hidden) when the address is not usable.
BrokerAddress parse_broker_address(const std::string& url);

// The MQTT filter of a bus filter: a "*" level becomes "+", a last ">" becomes "#". TopicError
// (prefixed with `action`) for a level MQTT cannot carry: one holding "+" or "#".
std::string to_mqtt_filter(std::string_view filter, std::string_view action);
// TopicError (prefixed with `action`) for a topic MQTT cannot carry: "+" or "#" anywhere.
void check_mqtt_topic(std::string_view topic, std::string_view action);

// The topics of one environment (the vpn's prefix).
class TopicMap {
 public:
  // BusError for a vpn MQTT cannot carry as a topic prefix.
  explicit TopicMap(const std::string& vpn);

  const std::string& prefix() const { return prefix_; }
  std::string request(const std::string& session_id, const std::string& topic) const;
  std::string service_filter(const std::string& group, const std::string& mqtt_filter) const;
  std::string reply(const std::string& session_id) const;
  std::string inbox(const std::string& session_id, const std::string& topic) const;
  std::string inbox_filter(const std::string& session_id) const;
  std::string publication(const std::string& topic) const;
  std::string subscription(const std::string& mqtt_filter) const;
  std::string interest(const std::string& session_id) const;
  std::string interest_filter() const;
  std::string interest_query() const;

  enum class Kind { Request, Reply, Inbox, Publication, Interest, InterestQuery, Unknown };
  struct Received {
    Kind kind = Kind::Unknown;
    std::string_view session_id;  // Request: the sender; Reply, Inbox: the owner; Interest: whose
    std::string_view topic;       // Request, Inbox, Publication: the bus topic
  };
  // A topic as it arrives, back in bus terms; views into `mqtt_topic`.
  Received parse(std::string_view mqtt_topic) const;

 private:
  std::string prefix_;
};

// Interest records: what a session subscribes to, kept on the broker for services to read.
namespace interest {
std::string snapshot(const std::string& client_name, const std::vector<std::string>& filters);
std::string added(const std::string& filter);
std::string removed(const std::string& filter);
std::string gone();
}  // namespace interest

// What the sessions of a bus subscribe to, from their interest records: which filters have
// subscribers, which sessions use a client name, and which sessions have left for good.
class InterestTable {
 public:
  using Notify = std::function<void(const std::string& filter, bool active)>;

  // Applies one record of `session_id`; `changed` hears every filter that gained its first
  // session or lost its last. A malformed record is ignored.
  void apply(const std::string& session_id, std::string_view record, const Notify& changed);
  // Forgets every session, as after reconnecting to a broker that may have lost them.
  void clear(const Notify& changed);

  bool has_subscribers(const std::string& topic) const { return active_.matches_any(topic); }
  std::vector<std::string> active_filters() const;
  std::vector<std::string> sessions_named(const std::string& client_name) const;
  // True for a session whose record said it left (its will, or its own goodbye).
  bool gone(const std::string& session_id) const { return gone_.count(session_id) != 0; }

 private:
  struct SessionInterest {
    std::string client_name;
    std::set<std::string> filters;
  };
  void add(SessionInterest& session, const std::string& filter, const Notify& changed);
  void remove(SessionInterest& session, const std::string& filter, const Notify& changed);
  void drop(const std::string& session_id, const Notify& changed);

  std::map<std::string, SessionInterest> sessions_;
  core::TopicFilterIndex<std::size_t> active_;  // filter -> number of sessions
  std::set<std::string> gone_;
  std::vector<std::string> gone_order_;  // oldest first, to keep gone_ bounded
};

}  // namespace quorvex::bus::mqtt
