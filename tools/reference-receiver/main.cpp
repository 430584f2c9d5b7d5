// reference-receiver: accepts the daemon's uploads as the platform does and prints a line for each event.
#include <getopt.h>
#include <malloc.h>
#include <csignal>

#include <array>
#include <charconv>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "tools/reference-receiver/ReferenceReceiver.h"

namespace zagent::tools {
namespace {

constexpr const char* kUsage = R"(Usage: reference-receiver --customer ID --agent ID --activation ID [switches]
       reference-receiver --keys FILE [switches]
  --keys FILE         take the uploads of many agents: a line each of customer id, agent id and activation id
  --hmac-v3 FILE      take version 3 of the signature with these keys
  --listen ADDRESS    listen on this address (default: 127.0.0.1)
  --port N            listen on this port (default: a free one)
  --threads N         answer so many requests at the same time (default: 32)
  --ca-out FILE       write the certificate that clients must trust
  --cert-store DIR    keep certificate and key there, so that a restart changes neither
  --client-ca FILE    accept only clients with a certificate that leads to this one
  --store DIR         write every accepted payload to a file
  --max-body MIB      refuse larger bodies, compressed or not (default: 128)
  --validate          refuse documents of events that do not follow their schema
  --quiet             print no lines for what is accepted
  --status CODE[xN]   answer the first N requests (default: all) with this status
  --only-for TEXT     force a status, or cut a body, of requests whose path holds this text only
  --delay MS          wait before every answer
  --reset             reset the connection instead of an answer
  --lose-answers N    accept the first N uploads, but reset the connection instead of the answer
  --truncate          accept, but cut the body of the answer
  --reset-body        accept, but reset the connection in the body of the answer
  --stall-body        accept, but send no more than the beginning of the answer's body
  --no-z-srv          leave out the header Z-SRV
  --page PORT         show what comes on a page on this port (0: a free one), with a token in its address
  --page-address IP   serve the page there (default: 127.0.0.1); it is plain HTTP
  --proxy PORT        be an HTTP proxy on this port, too (0: a free one)
  --proxy-status CODE let the proxy answer everything with this status
Publish accepted payloads to a stream instead of files:
)";

void PrintUsage() {
  std::cerr << kUsage;
  for (const StreamSwitch& entry : kStreamSwitches) std::cerr << "  --" << entry.name << " " << entry.help << "\n";
}

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

unsigned Number(std::string_view text, unsigned low, unsigned high) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < low || value > high) {
    throw UsageError("Not a number from " + std::to_string(low) + " to " + std::to_string(high) + ": " +
                     std::string(text));
  }
  return value;
}

int StatusCode(std::string_view text) {
  return static_cast<int>(Number(text, 200, 599));
}

void SetStatus(ReceiverOptions& options, std::string_view text) {
  const std::size_t x = text.find('x');
  options.status = StatusCode(text.substr(0, x));
  options.status_requests = x == std::string_view::npos ? 0 : Number(text.substr(x + 1), 1, 1'000'000);
}

struct Switch {
  const char* name;
  bool has_value;
  void (*apply)(ReceiverOptions& options, const std::string& value);
};

constexpr std::array<Switch, 29> kSwitches = {{
    {"keys", true, [](ReceiverOptions& o, const std::string& v) { o.keys_file = v; }},
    {"listen", true, [](ReceiverOptions& o, const std::string& v) { o.address = v; }},
    {"threads", true, [](ReceiverOptions& o, const std::string& v) { o.max_threads = Number(v, 2, 4'096); }},
    {"customer", true, [](ReceiverOptions& o, const std::string& v) { o.customer_id = v; }},
    {"agent", true, [](ReceiverOptions& o, const std::string& v) { o.agent_id = v; }},
    {"activation", true, [](ReceiverOptions& o, const std::string& v) { o.activation_id = v; }},
    {"hmac-v3", true, [](ReceiverOptions& o, const std::string& v) { o.hmac_v3_file = v; }},
    {"port", true,
     [](ReceiverOptions& o, const std::string& v) { o.port = static_cast<std::uint16_t>(Number(v, 0, 65535)); }},
    {"ca-out", true, [](ReceiverOptions& o, const std::string& v) { o.ca_file = v; }},
    {"store", true, [](ReceiverOptions& o, const std::string& v) { o.store_folder = v; }},
    {"max-body", true,
     [](ReceiverOptions& o, const std::string& v) { o.max_body_size = std::size_t{Number(v, 1, 65'536)} << 20U; }},
    {"validate", false, [](ReceiverOptions& o, const std::string&) { o.validate = true; }},
    {"quiet", false, [](ReceiverOptions& o, const std::string&) { o.quiet = true; }},
    {"status", true, [](ReceiverOptions& o, const std::string& v) { SetStatus(o, v); }},
    {"only-for", true, [](ReceiverOptions& o, const std::string& v) { o.only_for = v; }},
    {"delay", true,
     [](ReceiverOptions& o, const std::string& v) { o.delay = std::chrono::milliseconds(Number(v, 0, 3'600'000)); }},
    {"reset", false, [](ReceiverOptions& o, const std::string&) { o.reset = true; }},
    {"cert-store", true, [](ReceiverOptions& o, const std::string& v) { o.cert_folder = v; }},
    {"client-ca", true, [](ReceiverOptions& o, const std::string& v) { o.client_ca_file = v; }},
    {"lose-answers", true, [](ReceiverOptions& o, const std::string& v) { o.lose_answers = Number(v, 1, 1'000'000); }},
    {"truncate", false,
     [](ReceiverOptions& o, const std::string&) { o.body_fault = ReceiverOptions::BodyFault::Truncate; }},
    {"reset-body", false,
     [](ReceiverOptions& o, const std::string&) { o.body_fault = ReceiverOptions::BodyFault::Reset; }},
    {"stall-body", false,
     [](ReceiverOptions& o, const std::string&) { o.body_fault = ReceiverOptions::BodyFault::Stall; }},
    {"no-z-srv", false, [](ReceiverOptions& o, const std::string&) { o.z_srv = false; }},
    {"page", true,
     [](ReceiverOptions& o, const std::string& v) { o.page_port = static_cast<std::uint16_t>(Number(v, 0, 65535)); }},
    {"page-address", true, [](ReceiverOptions& o, const std::string& v) { o.page_address = v; }},
    {"proxy", true,
     [](ReceiverOptions& o, const std::string& v) { o.proxy_port = static_cast<std::uint16_t>(Number(v, 0, 65535)); }},
    {"proxy-status", true, [](ReceiverOptions& o, const std::string& v) { o.proxy_status = StatusCode(v); }},
    {"help", false, [](ReceiverOptions&, const std::string&) { throw UsageError(""); }},
}};

ReceiverOptions ParseArguments(int argc, char** argv) {
  std::vector<option> long_options;
  const auto add = [&](const char* name, bool has_value) {
    long_options.push_back({name, has_value ? required_argument : no_argument, nullptr, 0});
  };
  for (const Switch& entry : kSwitches) add(entry.name, entry.has_value);
  for (const StreamSwitch& entry : kStreamSwitches) add(entry.name, true);
  long_options.push_back({});
  ReceiverOptions options;
  StreamOptions stream;
  bool has_stream_switch = false;
  int index = 0;
  int found = 0;
  opterr = 0;
  // No other thread exists yet. NOLINTNEXTLINE(concurrency-mt-unsafe)
  while ((found = getopt_long(argc, argv, "", long_options.data(), &index)) != -1) {
    if (found == '?') throw UsageError(std::string("Not a switch, or without its value: ") + argv[optind - 1]);
    const std::string value = optarg == nullptr ? "" : optarg;
    const auto place = static_cast<std::size_t>(index);
    if (place < kSwitches.size()) {
      kSwitches.at(place).apply(options, value);
      continue;
    }
    try {
      ApplyStreamSwitch(stream, long_options[place].name, value);
    } catch (const std::invalid_argument& error) {
      throw UsageError(error.what());
    }
    has_stream_switch = true;
  }
  if (optind < argc) throw UsageError(std::string("Not a switch: ") + argv[optind]);
  if (has_stream_switch && stream.urls.empty()) throw UsageError("A switch of a stream without --stream");
  if (has_stream_switch) options.stream = stream;
  return options;
}

// Every upload takes some hundred KiB for a moment. To give them back to the kernel each time and to ask for them again
// would take a tenth of the processor time: so much may stay.
void KeepFreedMemory() {
  mallopt(M_MMAP_THRESHOLD, 4 << 20);
  mallopt(M_TRIM_THRESHOLD, 2 << 20);
}

void PrintLine(const std::string& line) {
  std::cout << line << std::endl;
}

int Run(int argc, char** argv) {
  // Threads that Poco starts inherit the mask: the signals wait for sigwait below.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  KeepFreedMemory();
  try {
    ReceiverOptions options = ParseArguments(argc, argv);
    options.print = PrintLine;
    const ReferenceReceiver receiver(std::move(options));
    int signal = 0;
    sigwait(&signals, &signal);
    return 0;
  } catch (const UsageError& error) {
    std::cerr << error.what() << (*error.what() == '\0' ? "" : "\n");
    PrintUsage();
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "reference-receiver: " << error.what() << "\n";
    return 1;
  }
}

}  // namespace
}  // namespace zagent::tools

int main(int argc, char** argv) {
  return zagent::tools::Run(argc, argv);
}
