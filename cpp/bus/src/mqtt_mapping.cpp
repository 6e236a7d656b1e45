#include "mqtt_mapping.hpp"

#include <algorithm>
#include <cstdlib>

#include "quorvex/bus/message.hpp"
#include "quorvex/bus/transport.hpp"
#include "quorvex/core/codec.hpp"
#include "quorvex/core/query.hpp"
#include "quorvex/core/topic.hpp"

namespace quorvex::bus::mqtt {
namespace {

constexpr std::size_t kGoneKept = 10000;
constexpr std::string_view kRequest = "req/";
constexpr std::string_view kReply = "reply/";
constexpr std::string_view kInbox = "inbox/";
constexpr std::string_view kPublication = "pub/";
constexpr std::string_view kInterest = "interest/";
constexpr std::string_view kInterestQuery = "interest-query";

bool starts_with(std::string_view text, std::string_view head) {
  return text.size() >= head.size() && text.substr(0, head.size()) == head;
}

[[noreturn]] void refuse_address(const std::string& url, const std::string& why) {
  throw BusError("cannot connect to host '" + host_for_display(url) + "': " + why +
                 "; expected mqtt://HOST:PORT or mqtts://HOST:PORT, with options session_expiry "
                 "(seconds), cafile, capath or group after '?'");
}

// "abc/rest" -> ("abc", "rest"); the level before the first "/" and what follows it.
std::pair<std::string_view, std::string_view> first_level(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return {text, {}};
  return {text.substr(0, slash), text.substr(slash + 1)};
}

std::string encode_record(core::Value record) { return core::encode(record); }

}  // namespace

BrokerAddress parse_broker_address(const std::string& url) {
  BrokerAddress address;
  const std::size_t scheme_end = url.find("://");
  if (scheme_end == std::string::npos) refuse_address(url, "no scheme");
  const std::string scheme = url.substr(0, scheme_end);
  if (scheme == "mqtts") {
    address.tls = true;
    address.port = 8883;
  } else if (scheme != "mqtt") {
    refuse_address(url, "the scheme is not mqtt or mqtts");
  }
  std::string rest = url.substr(scheme_end + 3);
  std::string query;
  if (const std::size_t mark = rest.find('?'); mark != std::string::npos) {
    query = rest.substr(mark + 1);
    rest.resize(mark);
  }
  if (!rest.empty() && rest.back() == '/') rest.pop_back();
  if (const std::size_t at = rest.rfind('@'); at != std::string::npos) {
    const std::string userinfo = rest.substr(0, at);
    rest = rest.substr(at + 1);
    const std::size_t colon = userinfo.find(':');
    address.user = userinfo.substr(0, colon);
    if (colon != std::string::npos) address.password = userinfo.substr(colon + 1);
  }
  std::string port_text;
  if (!rest.empty() && rest.front() == '[') {
    const std::size_t close = rest.find(']');
    if (close == std::string::npos) refuse_address(url, "an IPv6 address without its closing ']'");
    address.host = rest.substr(1, close - 1);
    if (close + 1 < rest.size()) {
      if (rest[close + 1] != ':') refuse_address(url, "text after the IPv6 address");
      port_text = rest.substr(close + 2);
    }
  } else {
    const std::size_t colon = rest.rfind(':');
    address.host = rest.substr(0, colon);
    if (colon != std::string::npos) port_text = rest.substr(colon + 1);
  }
  if (address.host.empty()) refuse_address(url, "no host name");
  if (address.host.find('/') != std::string::npos) refuse_address(url, "a path after the host");
  auto number = [&](const std::string& text, const char* what, long low, long high) {
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value < low || value > high) {
      refuse_address(url, std::string(what) + " '" + text + "' is not a whole number from " +
                              std::to_string(low) + " to " + std::to_string(high));
    }
    return value;
  };
  if (!port_text.empty() || rest.back() == ':')
    address.port = static_cast<int>(number(port_text, "port", 1, 65535));
  core::for_each_query_option(query, [&](const std::string& key, const std::string& value) {
    if (key == "session_expiry") {
      address.session_expiry_s = static_cast<std::uint32_t>(number(value, "session_expiry", 0, 4294967294L));
    } else if (key == "cafile") {
      address.cafile = value;
    } else if (key == "capath") {
      address.capath = value;
    } else if (key == "group") {
      if (value.empty() || value.find_first_of("/+#") != std::string::npos)
        refuse_address(url, "group '" + value + "' is not a shared-subscription group name");
      address.group = value;
    } else {
      refuse_address(url, "unknown option '" + key + "'");
    }
  });
  if (address.cafile.empty() && address.capath.empty()) {
    if (const char* cafile = std::getenv("QUORVEX_MQTT_CAFILE")) address.cafile = cafile;
  }
  return address;
}

void check_mqtt_topic(std::string_view topic, std::string_view action) {
  if (topic.find_first_of("+#") != std::string_view::npos) {
    throw core::TopicError(std::string(action) + ": topic '" + std::string(topic) +
                           "' cannot travel over MQTT, where '+' and '#' are wildcards; expected a "
                           "topic without them");
  }
}

std::string to_mqtt_filter(std::string_view filter, std::string_view action) {
  std::string out;
  out.reserve(filter.size());
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = filter.find('/', start);
    const bool last = slash == std::string_view::npos;
    const std::string_view level = filter.substr(start, last ? std::string_view::npos : slash - start);
    if (level == "*") {
      out += '+';
    } else if (level == ">" && last) {
      out += '#';
    } else if (level.find_first_of("+#") != std::string_view::npos) {
      throw core::TopicError(std::string(action) + ": filter '" + std::string(filter) + "' has the level '" +
                             std::string(level) +
                             "', which MQTT cannot carry; expected '*' or '>' as wildcards and "
                             "levels without '+' or '#'");
    } else {
      out.append(level);
    }
    if (last) return out;
    out += '/';
    start = slash + 1;
  }
}

// ---- TopicMap ----

TopicMap::TopicMap(const std::string& vpn) {
  if (vpn.empty()) return;
  if (vpn.find_first_of("+#") != std::string::npos || vpn.front() == '$' ||
      vpn.find('\0') != std::string::npos) {
    throw BusError("the vpn '" + vpn +
                   "' cannot be an MQTT topic prefix; expected text without '+', '#' or a leading '$'");
  }
  prefix_ = vpn.back() == '/' ? vpn : vpn + "/";
}

std::string TopicMap::request(const std::string& session_id, const std::string& topic) const {
  std::string out;
  out.reserve(prefix_.size() + kRequest.size() + session_id.size() + 1 + topic.size());
  out.append(prefix_).append(kRequest).append(session_id).append(1, '/').append(topic);
  return out;
}

std::string TopicMap::service_filter(const std::string& group, const std::string& mqtt_filter) const {
  return "$share/" + group + "/" + prefix_ + std::string(kRequest) + "+/" + mqtt_filter;
}

std::string TopicMap::reply(const std::string& session_id) const {
  return prefix_ + std::string(kReply) + session_id;
}

std::string TopicMap::inbox(const std::string& session_id, const std::string& topic) const {
  return prefix_ + std::string(kInbox) + session_id + "/" + topic;
}

std::string TopicMap::inbox_filter(const std::string& session_id) const {
  return prefix_ + std::string(kInbox) + session_id + "/#";
}

std::string TopicMap::publication(const std::string& topic) const {
  std::string out;
  out.reserve(prefix_.size() + kPublication.size() + topic.size());
  out.append(prefix_).append(kPublication).append(topic);
  return out;
}

std::string TopicMap::subscription(const std::string& mqtt_filter) const {
  return prefix_ + std::string(kPublication) + mqtt_filter;
}

std::string TopicMap::interest(const std::string& session_id) const {
  return prefix_ + std::string(kInterest) + session_id;
}

std::string TopicMap::interest_filter() const { return prefix_ + std::string(kInterest) + "+"; }

std::string TopicMap::interest_query() const { return prefix_ + std::string(kInterestQuery); }

TopicMap::Received TopicMap::parse(std::string_view mqtt_topic) const {
  Received out;
  if (!starts_with(mqtt_topic, prefix_)) return out;
  const std::string_view rest = mqtt_topic.substr(prefix_.size());
  if (starts_with(rest, kPublication)) {
    out.kind = Kind::Publication;
    out.topic = rest.substr(kPublication.size());
  } else if (starts_with(rest, kReply)) {
    out.kind = Kind::Reply;
    out.session_id = rest.substr(kReply.size());
  } else if (starts_with(rest, kRequest) || starts_with(rest, kInbox)) {
    const bool request = starts_with(rest, kRequest);
    const auto [session_id, topic] = first_level(rest.substr(request ? kRequest.size() : kInbox.size()));
    if (session_id.empty() || topic.empty()) return out;
    out.kind = request ? Kind::Request : Kind::Inbox;
    out.session_id = session_id;
    out.topic = topic;
  } else if (starts_with(rest, kInterest)) {
    out.kind = Kind::Interest;
    out.session_id = rest.substr(kInterest.size());
  } else if (rest == kInterestQuery) {
    out.kind = Kind::InterestQuery;
  }
  return out;
}

// ---- interest records ----

namespace interest {

std::string snapshot(const std::string& client_name, const std::vector<std::string>& filters) {
  core::Value list = core::Value::array({});
  for (const auto& filter : filters) list.push_back(core::Value(filter));
  return encode_record(core::Value::map({{"client", client_name}, {"filters", std::move(list)}}));
}

std::string added(const std::string& filter) {
  return encode_record(core::Value::map({{"add", core::Value::array({core::Value(filter)})}}));
}

std::string removed(const std::string& filter) {
  return encode_record(core::Value::map({{"remove", core::Value::array({core::Value(filter)})}}));
}

std::string gone() { return encode_record(core::Value::map({{"gone", true}})); }

}  // namespace interest

void InterestTable::apply(const std::string& session_id, std::string_view record, const Notify& changed) {
  core::Value value;
  try {
    value = core::decode(record);
  } catch (const std::exception&) {
    return;  // not a record of ours
  }
  if (!value.is_map()) return;
  if (value.get("gone").is_bool() && value.get_bool("gone")) {
    drop(session_id, changed);
    if (gone_.insert(session_id).second) {
      gone_order_.push_back(session_id);
      if (gone_order_.size() > kGoneKept) {
        gone_.erase(gone_order_.front());
        gone_order_.erase(gone_order_.begin());
      }
    }
    return;
  }
  // A session that states its interest is alive, whatever was said of it before: a broker
  // shutting down sends every session's will, and the sessions come back when it does.
  if (gone_.erase(session_id) != 0) {
    gone_order_.erase(std::remove(gone_order_.begin(), gone_order_.end(), session_id), gone_order_.end());
  }
  auto filters_of = [&](const char* key) {
    std::vector<std::string> out;
    const core::Value& list = value.get(key);
    if (!list.is_array()) return out;
    for (const auto& item : list.as_array()) {
      if (item.is_string() && !item.as_string().empty()) out.push_back(item.as_string());
    }
    return out;
  };
  SessionInterest& session = sessions_[session_id];
  if (value.get("filters").is_array()) {
    const std::vector<std::string> now = filters_of("filters");
    const std::set<std::string> wanted(now.begin(), now.end());
    std::vector<std::string> dropped;
    std::set_difference(session.filters.begin(), session.filters.end(), wanted.begin(), wanted.end(),
                        std::back_inserter(dropped));
    for (const auto& filter : dropped) remove(session, filter, changed);
    for (const auto& filter : wanted) add(session, filter, changed);
    const core::Value& client = value.get("client");
    session.client_name = client.is_string() ? client.as_string() : std::string();
  }
  for (const auto& filter : filters_of("add")) add(session, filter, changed);
  for (const auto& filter : filters_of("remove")) remove(session, filter, changed);
}

void InterestTable::add(SessionInterest& session, const std::string& filter, const Notify& changed) {
  if (!session.filters.insert(filter).second) return;
  if (++active_[filter] == 1 && changed) changed(filter, true);
}

void InterestTable::remove(SessionInterest& session, const std::string& filter, const Notify& changed) {
  if (session.filters.erase(filter) == 0) return;
  std::size_t* count = active_.find(filter);
  if (count == nullptr || --*count > 0) return;
  active_.erase(filter);
  if (changed) changed(filter, false);
}

void InterestTable::drop(const std::string& session_id, const Notify& changed) {
  auto it = sessions_.find(session_id);
  if (it == sessions_.end()) return;
  const std::set<std::string> filters = it->second.filters;
  for (const auto& filter : filters) remove(it->second, filter, changed);
  sessions_.erase(it);
}

void InterestTable::clear(const Notify& changed) {
  std::vector<std::string> ids;
  for (const auto& entry : sessions_) ids.push_back(entry.first);
  for (const auto& id : ids) drop(id, changed);
}

std::vector<std::string> InterestTable::active_filters() const {
  std::vector<std::string> out;
  active_.for_each([&](const std::string& filter, std::size_t) { out.push_back(filter); });
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::string> InterestTable::sessions_named(const std::string& client_name) const {
  std::vector<std::string> out;
  for (const auto& entry : sessions_) {
    if (entry.second.client_name == client_name) out.push_back(entry.first);
  }
  return out;
}

}  // namespace quorvex::bus::mqtt
