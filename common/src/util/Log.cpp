#include "common/src/util/Log.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Path.h>
#include <Poco/Util/LoggingConfigurator.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace zagent {

const std::string& LogPrefix() {
  thread_local const std::string prefix = "[" + std::to_string(gettid()) + "]: ";
  return prefix;
}

namespace common::util {
namespace {

// What every line asks for, told or not: there from the beginning, so that nobody asks first whether it is.
constinit std::atomic<bool> is_holding{false};  // changes under held_mutex
// The logger named at Init. Loggers live until the process ends, so the look-up in Poco's locked registry is paid once.
constinit std::atomic<Poco::Logger*> named_logger{nullptr};

struct State {
  std::atomic<bool> initialized{false};
  Poco::Util::LoggingConfigurator configurator;
  std::mutex held_mutex;
  std::vector<Poco::Message> held;
};

State& TheState() {
  // Never destroyed: threads that outlive main's statics may still log.
  static State* const state = new State;  // NOLINT(cppcoreguidelines-owning-memory)
  return *state;
}

void CreateFolders(const std::string& file) {
  const Poco::Path folder = Poco::Path(file).makeAbsolute().parent();
  Poco::Path growing("/");
  for (int i = 0; i < folder.depth(); ++i) {
    growing.pushDirectory(folder[i]);
    if (mkdir(growing.toString().c_str(), 0700) != 0 && errno != EEXIST) {
      throw Poco::CreateFileException(growing.toString());
    }
  }
}

void CreateFolderOf(Poco::Channel::Ptr channel) {
  while (auto* formatting = dynamic_cast<Poco::FormattingChannel*>(channel.get())) {
    channel = formatting->getChannel();
  }
  if (!channel) throw Poco::NullPointerException("logger without a channel");
  try {
    const std::string file = channel->getProperty("path");
    if (!file.empty()) CreateFolders(file);
  } catch (const Poco::PropertyNotSupportedException&) {
    // This channel does not write to a file.
  }
}

std::vector<std::string> LoggerNames() {
  std::vector<std::string> names;
  Poco::Logger::names(names);
  return names;
}

// File names and arguments come from anybody: a line stays one line, and none of its bytes steers a terminal.
std::string Escaped(const std::string& text) {
  const auto is_control = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
  if (std::none_of(text.begin(), text.end(), is_control)) return text;
  static constexpr char kHex[] = "0123456789abcdef";
  std::string escaped;
  escaped.reserve(text.size() + 16);
  for (const char c : text) {
    if (!is_control(c)) {
      escaped += c;
      continue;
    }
    escaped += "\\x";
    escaped += kHex[static_cast<unsigned char>(c) >> 4];
    escaped += kHex[static_cast<unsigned char>(c) & 15];
  }
  return escaped;
}

// False when nothing is held any more: the line is the caller's to write.
bool Hold(State& state, const std::string& text, Poco::Message::Priority priority) {
  const std::lock_guard lock(state.held_mutex);
  if (!is_holding) return false;
  if (state.held.size() < Log::kMaxHeldLines) state.held.emplace_back("", Escaped(text), priority);
  return true;
}

void WriteHeld(State& state, Poco::Logger& logger) {
  const std::lock_guard lock(state.held_mutex);
  for (Poco::Message& line : state.held) {
    line.setSource(logger.name());
    try {
      logger.log(line);                // asks its level itself
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): lost like any other line
    }
  }
  state.held = {};
  is_holding = false;
}

Poco::Logger& EventLogger() {
  static Poco::Logger& logger = Poco::Logger::get("edr_events");
  return logger;
}

}  // namespace

void Log::HoldUntilInit() {
  State& state = TheState();
  const std::lock_guard lock(state.held_mutex);
  is_holding = !state.initialized;
}

std::vector<Poco::Message> Log::TakeHeld() {
  State& state = TheState();
  const std::lock_guard lock(state.held_mutex);
  is_holding = false;
  return std::exchange(state.held, {});
}

void Log::Init(const std::string& name, const std::string& config_file) {
  State& state = TheState();
  if (state.initialized) throw std::runtime_error("Logger is already initialized");
  const Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> config(
      new Poco::Util::PropertyFileConfiguration(config_file));
  state.configurator.configure(config);
  for (const std::string& logger : LoggerNames()) CreateFolderOf(Poco::Logger::get(logger).getChannel());
  Poco::Logger& logger = Poco::Logger::get(name);
  named_logger = &logger;
  state.initialized = true;
  WriteHeld(state, logger);
}

void Log::Reload(const std::string& config_file) {
  const Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> config(
      new Poco::Util::PropertyFileConfiguration(config_file));
  const std::vector<std::string> names = LoggerNames();
  for (unsigned index = 0;; ++index) {
    const std::string key = "logging.loggers.l" + std::to_string(index);
    if (!config->has(key + ".level") || !config->has(key + ".name")) return;
    const std::string level = config->getString(key + ".level");
    const std::string name = config->getString(key + ".name");
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      ZLOG_INFO("Ignoring unknown logger " << name);
      continue;
    }
    ZLOG_INFO("Updating log level to " << level);
    Poco::Logger::get(name).setLevel(level);
  }
}

Poco::Logger& Log::Get() {
  Poco::Logger* const logger = named_logger;
  return logger != nullptr ? *logger : Poco::Logger::get("edr");
}

bool Log::IsEventTraceEnabled() {
  // Before Init only "edr" may exist: a logger created too early keeps the default channel for ever.
  return TheState().initialized && EventLogger().is(Poco::Message::PRIO_TRACE);
}

void Log::WriteEventTrace(const std::string& text) {
  try {
    EventLogger().trace(text);
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
  }
}

bool Log::IsEnabled(Poco::Message::Priority priority) {
  // Before there is a configuration nobody knows what is wanted.
  return is_holding || Get().is(priority);
}

void Log::Write(Poco::Message::Priority priority, const std::string& text) noexcept {
  try {
    if (is_holding && Hold(TheState(), text, priority)) return;
    Poco::Logger& logger = Get();
    logger.log(Poco::Message(logger.name(), Escaped(text), priority));
  } catch (...) {  // NOLINT(bugprone-empty-catch)
    // A log line that cannot be written is lost: the program goes on.
  }
}

std::string Log::PriorityName(int priority) {
  static constexpr std::array<const char*, 8> kNames = {"fatal",  "critical",    "error", "warning",
                                                        "notice", "information", "debug", "trace"};
  if (priority < 1 || priority > static_cast<int>(kNames.size())) return "";
  return kNames[static_cast<std::size_t>(priority) - 1];
}

}  // namespace common::util
}  // namespace zagent
