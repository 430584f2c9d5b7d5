#pragma once

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <cstddef>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

// Logging of the whole program.
//
//   ZLOG_ERROR("Storage: Failed to open " << path << ": " << ErrnoText(error));
//
// The level is tested before the arguments are evaluated. The first words of a line come from the room: an
// unqualified call of LogPrefix() is looked up from the enclosing namespace, so lines of zagent::common and
// zagent::audit begin with "[<thread id>]: " and a component that declares its own LogPrefix() in its namespace
// begins with its tag ("[FIM]: ").
//
// Control bytes of a text are written as "\x0a": a file name with a line end cannot forge a line.
//
// Logging never throws and never ends the program: what a channel throws (a log folder that vanished, a full disk)
// is swallowed.

namespace zagent {

// "[<kernel thread id>]: ", built once a thread.
const std::string& LogPrefix();

namespace common::util {

// The process's loggers, configured from one Poco property file that the parent agent owns.
// Init runs while no other thread logs to Poco: HoldUntilInit keeps their lines away from it. Get and Write may be
// called from every thread.
class Log {
 public:
  // From here on lines of all threads are held in memory, at every level, at most kMaxHeldLines (what comes behind them
  // is lost). Init writes those whose level is enabled then, in their order and with their times, before any later
  // line; one that fails leaves them held, for TakeHeld. Call it before the first thread that logs.
  static void HoldUntilInit();
  static constexpr std::size_t kMaxHeldLines = 1'000;

  // Holds no longer, for there will be no Init: answers what was held, in its order.
  static std::vector<Poco::Message> TakeHeld();

  // Reads the property file, configures Poco's loggers and creates missing log folders (mode 0700).
  // Throws std::runtime_error "Logger is already initialized" on a second call; what Poco throws on a bad file or on
  // a logger without a channel (Poco::NullPointerException) passes through.
  static void Init(const std::string& name, const std::string& config_file);

  // Applies changed levels of the loggers that the file names; everything else of the file is left alone.
  // What Poco throws on an unreadable file or a bad level passes through.
  static void Reload(const std::string& config_file);

  // The logger named at Init, "edr" before it.
  static Poco::Logger& Get();

  // True when raw audit traffic is wanted: the logger "edr_events" is at trace.
  static bool IsEventTraceEnabled();
  // Raw records are written as they are: the kernel has encoded what could steer a terminal.
  static void WriteEventTrace(const std::string& text);

  static bool IsEnabled(Poco::Message::Priority priority);
  static void Write(Poco::Message::Priority priority, const std::string& text) noexcept;

  // The level's name in a log configuration, "fatal" (1) to "trace" (8); empty for any other value.
  static std::string PriorityName(int priority);
};

}  // namespace common::util
}  // namespace zagent

#define ZLOG_AT(priority, text)                                      \
  do {                                                               \
    if (::zagent::common::util::Log::IsEnabled(priority)) {          \
      std::ostringstream zlog_line;                                  \
      zlog_line << LogPrefix() << text; /* NOLINT */                 \
      ::zagent::common::util::Log::Write(priority, zlog_line.str()); \
    }                                                                \
  } while (false)

#define ZLOG_FATAL(text) ZLOG_AT(Poco::Message::PRIO_FATAL, text)
#define ZLOG_ERROR(text) ZLOG_AT(Poco::Message::PRIO_ERROR, text)
#define ZLOG_WARNING(text) ZLOG_AT(Poco::Message::PRIO_WARNING, text)
#define ZLOG_INFO(text) ZLOG_AT(Poco::Message::PRIO_INFORMATION, text)
#define ZLOG_DEBUG(text) ZLOG_AT(Poco::Message::PRIO_DEBUG, text)
#define ZLOG_TRACE(text) ZLOG_AT(Poco::Message::PRIO_TRACE, text)
