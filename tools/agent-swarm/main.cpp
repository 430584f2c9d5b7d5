// agent-swarm: uploads as many agents do, and says what became of every single upload.
#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/agent-swarm/Swarm.h"
#include "tools/agent-swarm/SwarmKeys.h"

namespace zagent::tools {
namespace {

constexpr const char* kUsage = R"(Usage: agent-swarm --url URL --ca FILE --keys FILE [switches]
       agent-swarm --make-keys N --keys FILE
  --seconds N         begin uploads for so long (default: 60)
  --senders N         uploads at the same time (default: 32)
  --rate N            uploads a second of all agents (default: as many as go)
  --documents N       make and compress so many of each size before the first upload (default: 128);
                      0: one for each upload, compressed when it is sent
  --stream nats://A,B count in the stream what became of them (with the switches --stream-...)
  --make-keys N       write a keys file with so many agents, and do nothing else
)";

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  SwarmOptions swarm;
  StreamOptions stream;
  std::string keys_file;
  unsigned make_keys = 0;
};

unsigned Number(const std::string& text, unsigned low, unsigned high) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
    throw UsageError("Not a number from " + std::to_string(low) + " to " + std::to_string(high) + ": " + text);
  }
  return value;
}

struct Switch {
  const char* name;
  void (*apply)(Options& options, const std::string& value);
};

constexpr Switch kSwitches[] = {
    {"url", [](Options& o, const std::string& v) { o.swarm.url = v; }},
    {"ca", [](Options& o, const std::string& v) { o.swarm.ca_file = v; }},
    {"keys", [](Options& o, const std::string& v) { o.keys_file = v; }},
    {"seconds",
     [](Options& o, const std::string& v) { o.swarm.duration = std::chrono::seconds(Number(v, 1, 86'400)); }},
    {"senders", [](Options& o, const std::string& v) { o.swarm.senders = Number(v, 1, 1'000); }},
    {"rate", [](Options& o, const std::string& v) { o.swarm.per_second = Number(v, 1, 1'000'000); }},
    {"documents", [](Options& o, const std::string& v) { o.swarm.documents = Number(v, 0, 10'000); }},
    {"make-keys", [](Options& o, const std::string& v) { o.make_keys = Number(v, 1, 1'000'000); }},
};

Options ParseArguments(int argc, char** argv) {
  std::vector<option> long_options;
  for (const Switch& entry : kSwitches) long_options.push_back({entry.name, required_argument, nullptr, 0});
  for (const StreamSwitch& entry : kStreamSwitches) {
    if (!entry.makes_stream) long_options.push_back({entry.name, required_argument, nullptr, 0});
  }
  long_options.push_back({});
  Options options;
  int index = 0;
  int found = 0;
  opterr = 0;
  // No other thread exists yet. NOLINTNEXTLINE(concurrency-mt-unsafe)
  while ((found = getopt_long(argc, argv, "", long_options.data(), &index)) != -1) {
    if (found == '?') throw UsageError(std::string("Not a switch, or without its value: ") + argv[optind - 1]);
    const auto place = static_cast<std::size_t>(index);
    if (place < std::size(kSwitches)) {
      kSwitches[place].apply(options, optarg);
      continue;
    }
    try {
      ApplyStreamSwitch(options.stream, long_options[place].name, optarg);
    } catch (const std::invalid_argument& error) {
      throw UsageError(error.what());
    }
  }
  if (optind < argc) throw UsageError(std::string("Not a switch: ") + argv[optind]);
  if (options.keys_file.empty()) throw UsageError("--keys is missing");
  if (options.make_keys == 0 && options.swarm.url.empty()) throw UsageError("--url is missing");
  return options;
}

// True when every upload was accepted and nothing was lost or doubled.
bool Report(const SwarmResult& result, const SwarmAccount* account) {
  std::size_t large = 0;
  std::size_t accepted = 0;
  std::size_t repeated = 0;
  std::size_t again = 0;
  std::vector<std::chrono::microseconds> latencies;
  for (const SwarmUpload& upload : result.uploads) {
    if (upload.is_accepted && upload.is_large) ++large;
    if (upload.is_accepted) ++accepted;
    if (upload.is_repeated) ++repeated;
    if (upload.tries > 1) ++again;
    if (upload.is_accepted) latencies.push_back(upload.latency);
  }
  const double seconds = result.took.count();
  const auto milliseconds = [&](double percent) {
    return static_cast<double>(Percentile(latencies, percent).count()) / 1'000;
  };
  std::printf("uploads            %zu in %.1f s\n", result.uploads.size(), seconds);
  std::printf("accepted           %zu, of them %zu of 100 KiB\n", accepted, large);
  std::printf("sent again         %zu after a failure, %zu after success (%u of these refused)\n", again, repeated,
              result.refused_repeats);
  std::printf("latency            %.1f ms median, %.1f ms 99th percentile, %.1f ms at most\n", milliseconds(50),
              milliseconds(99), milliseconds(100));
  if (account != nullptr) {
    std::printf("in the stream      %zu, %zu lost, %zu doubled\n", account->stored, account->lost, account->doubled);
  }
  const std::size_t lost = account == nullptr ? result.uploads.size() - accepted : account->lost;
  const std::size_t doubled = account == nullptr ? 0 : account->doubled;
  std::printf(
      "uploads=%zu uploads_per_second=%.1f all_per_second=%.1f lost=%zu doubled=%zu median_ms=%.1f p99_ms=%.1f "
      "processor_ms=%.2f\n",
      accepted, static_cast<double>(large) / seconds, static_cast<double>(accepted) / seconds, lost, doubled,
      milliseconds(50), milliseconds(99),
      accepted == 0 ? 0 : static_cast<double>(result.processor.count()) / 1'000 / static_cast<double>(accepted));
  return accepted == result.uploads.size() && lost == 0 && doubled == 0 && result.refused_repeats == 0 && accepted > 0;
}

int Run(int argc, char** argv) {
  try {
    Options options = ParseArguments(argc, argv);
    if (options.make_keys > 0) {
      WriteSwarmKeys(options.keys_file, options.make_keys);
      return 0;
    }
    options.swarm.agents = ReadSwarmKeys(options.keys_file);
    options.swarm.on_begin = [] { std::cerr << "uploads begin" << std::endl; };
    const SwarmResult result = RunSwarm(options.swarm);
    if (options.stream.urls.empty()) return Report(result, nullptr) ? 0 : 1;
    const SwarmAccount account = CountInStream(options.stream, result.uploads);
    return Report(result, &account) ? 0 : 1;
  } catch (const UsageError& error) {
    std::cerr << error.what() << "\n" << kUsage;
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "agent-swarm: " << error.what() << "\n";
    return 1;
  }
}

}  // namespace
}  // namespace zagent::tools

int main(int argc, char** argv) {
  return zagent::tools::Run(argc, argv);
}
