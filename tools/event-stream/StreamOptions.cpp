#include "tools/event-stream/StreamOptions.h"

#include <charconv>
#include <stdexcept>

namespace zagent::tools {
namespace {

std::int64_t Number(const std::string& text, std::int64_t low, std::int64_t high) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
    throw std::invalid_argument("Not a number from " + std::to_string(low) + " to " + std::to_string(high) + ": " +
                                text);
  }
  return value;
}

bool DropsOldest(const std::string& text) {
  if (text != "refuse" && text != "drop-oldest") throw std::invalid_argument("Not refuse or drop-oldest: " + text);
  return text == "drop-oldest";
}

std::string Name(const std::string& text) {
  if (text.empty() || text.size() > 200 || text.find_first_of(" \t\r\n.*>/\\") != std::string::npos) {
    throw std::invalid_argument("Not a name of a stream: " + text);
  }
  return text;
}

struct Taker {
  const char* name;
  void (*apply)(StreamOptions& options, const std::string& value);
};

constexpr Taker kTakers[] = {
    {"stream", [](StreamOptions& o, const std::string& v) { o.urls = v; }},
    {"stream-name", [](StreamOptions& o, const std::string& v) { o.name = Name(v); }},
    {"stream-login", [](StreamOptions& o, const std::string& v) { o.login_file = v; }},
    {"stream-credentials", [](StreamOptions& o, const std::string& v) { o.credentials_file = v; }},
    {"stream-ca", [](StreamOptions& o, const std::string& v) { o.ca_file = v; }},
    {"stream-cert", [](StreamOptions& o, const std::string& v) { o.certificate_file = v; }},
    {"stream-key", [](StreamOptions& o, const std::string& v) { o.key_file = v; }},
    {"stream-replicas",
     [](StreamOptions& o, const std::string& v) { o.replicas = static_cast<unsigned>(Number(v, 1, 5)); }},
    {"stream-size", [](StreamOptions& o, const std::string& v) { o.max_bytes = Number(v, 1, 1LL << 30U) << 20U; }},
    {"stream-age",
     [](StreamOptions& o, const std::string& v) { o.max_age = std::chrono::hours(Number(v, 1, 87'600)); }},
    {"stream-window",
     [](StreamOptions& o, const std::string& v) { o.duplicate_window = std::chrono::minutes(Number(v, 1, 10'080)); }},
    {"stream-full", [](StreamOptions& o, const std::string& v) { o.drop_oldest = DropsOldest(v); }},
    {"stream-ack",
     [](StreamOptions& o, const std::string& v) { o.ack_wait = std::chrono::milliseconds(Number(v, 100, 50'000)); }},
};

}  // namespace

bool ApplyStreamSwitch(StreamOptions& options, const std::string& name, const std::string& value) {
  for (const Taker& taker : kTakers) {
    if (name != taker.name) continue;
    taker.apply(options, value);
    return true;
  }
  return false;
}

}  // namespace zagent::tools
