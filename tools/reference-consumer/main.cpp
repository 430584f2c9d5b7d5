// reference-consumer: reads what receivers have published and prints a line for each event, or each upload as JSON.
#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tools/event-stream/StreamMessage.h"
#include "tools/event-stream/StreamOptions.h"
#include "tools/event-stream/StreamReader.h"
#include "tools/reference-consumer/MessageLines.h"

namespace zagent::tools {
namespace {

constexpr const char* kUsage = R"(Usage: reference-consumer --stream nats://A,B [switches]
  --name NAME         what the engine remembers this reader by; several of one name share the work
                      (default: reference-consumer)
  --customer ID       read the uploads of this customer only; give it a name of its own
  --json              print each upload as a line of JSON
  --idle SECONDS      end when nothing has come for so long (default: never)
The stream:
)";

constexpr int kBatch = 16;
constexpr std::chrono::milliseconds kLook{1'000};

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Options {
  StreamOptions stream;
  StreamReader::Options reader{"reference-consumer"};
  bool is_json = false;
  std::chrono::seconds idle{0};
};

std::string Word(const std::string& text) {
  if (!IsSubjectWord(text)) throw UsageError("Not a word of a subject: " + text);
  return text;
}

std::chrono::seconds Seconds(const std::string& text) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value == 0 || value > 86'400) {
    throw UsageError("Not a number from 1 to 86400: " + text);
  }
  return std::chrono::seconds(value);
}

struct Switch {
  const char* name;
  bool has_value;
  void (*apply)(Options& options, const std::string& value);
};

constexpr Switch kSwitches[] = {
    {"name", true, [](Options& o, const std::string& v) { o.reader.name = Word(v); }},
    {"customer", true,
     [](Options& o, const std::string& v) { o.reader.subject = std::string(kSubjectRoot) + "." + Word(v) + ".>"; }},
    {"json", false, [](Options& o, const std::string&) { o.is_json = true; }},
    {"idle", true, [](Options& o, const std::string& v) { o.idle = Seconds(v); }},
    {"help", false, [](Options&, const std::string&) { throw UsageError(""); }},
};

Options ParseArguments(int argc, char** argv) {
  std::vector<option> long_options;
  for (const Switch& entry : kSwitches) {
    long_options.push_back({entry.name, entry.has_value ? required_argument : no_argument, nullptr, 0});
  }
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
    const std::string value = optarg == nullptr ? "" : optarg;
    const auto place = static_cast<std::size_t>(index);
    if (place < std::size(kSwitches)) {
      kSwitches[place].apply(options, value);
      continue;
    }
    try {
      ApplyStreamSwitch(options.stream, long_options[place].name, value);
    } catch (const std::invalid_argument& error) {
      throw UsageError(error.what());
    }
  }
  if (optind < argc) throw UsageError(std::string("Not a switch: ") + argv[optind]);
  if (options.stream.urls.empty()) throw UsageError("--stream is missing");
  return options;
}

volatile std::sig_atomic_t g_ended = 0;

void End(int) {
  g_ended = 1;
}

void PrintMessage(const Options& options, const StreamReader::Message& message) {
  if (options.is_json) {
    std::cout << JsonLineOf(message) << "\n";
    return;
  }
  for (const std::string& line : DescribeMessage(message)) std::cout << line << "\n";
}

// What was printed is acknowledged, never the other way round: a message may come twice, none is lost.
void Consume(const Options& options) {
  StreamConnection connection(options.stream, StreamConnection::Stream::Require,
                              [](const std::string& line) { std::cerr << line + "\n"; });
  StreamReader reader(connection, options.reader);
  auto last = std::chrono::steady_clock::now();
  std::string told;
  while (g_ended == 0) {
    std::vector<StreamReader::Message> messages;
    try {
      messages = reader.Read(kBatch, kLook);
      told.clear();
    } catch (const std::runtime_error& error) {
      if (told != error.what()) std::cerr << "error: " << (told = error.what()) << "\n";
      std::this_thread::sleep_for(kLook);
    }
    const auto now = std::chrono::steady_clock::now();
    if (!messages.empty()) last = now;
    if (options.idle.count() > 0 && now - last >= options.idle) return;
    if (messages.empty()) continue;
    for (const StreamReader::Message& message : messages) PrintMessage(options, message);
    std::cout.flush();
    if (!std::cout) {
      reader.GiveBack(messages);
      throw std::runtime_error("Cannot write the output");
    }
    (void)reader.Acknowledge(messages);  // what is not comes again
  }
}

int Run(int argc, char** argv) {
  try {
    const Options options = ParseArguments(argc, argv);
    for (const int signal : {SIGINT, SIGTERM}) (void)std::signal(signal, End);
    Consume(options);
    return 0;
  } catch (const UsageError& error) {
    std::cerr << error.what() << (*error.what() == '\0' ? "" : "\n") << kUsage;
    for (const StreamSwitch& entry : kStreamSwitches) {
      if (!entry.makes_stream) std::cerr << "  --" << entry.name << " " << entry.help << "\n";
    }
    return 2;
  } catch (const std::exception& error) {
    std::cerr << "reference-consumer: " << error.what() << "\n";
    return 1;
  }
}

}  // namespace
}  // namespace zagent::tools

int main(int argc, char** argv) {
  return zagent::tools::Run(argc, argv);
}
