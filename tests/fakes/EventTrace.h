#pragma once

#include <string>

#include "common/src/util/Log.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::fakes {

// Collects the raw audit traffic of the logger "edr_events" while it lives. That logger exists once the program's
// logging is configured, which happens once a process: with the first of these.
class EventTrace {
 public:
  [[nodiscard]] bool Has(const std::string& text) const { return capture_.Has(text); }
  [[nodiscard]] int Count(const std::string& text) const { return capture_.Count(text); }
  [[nodiscard]] std::string All() const { return capture_.All(); }

 private:
  static std::string ConfiguredName() {
    static const std::string name = [] {
      const TempFolder folder;
      common::util::Log::Init("edr", folder.Write("log.properties",
                                                  "logging.channels.c1.class = NullChannel\n"
                                                  "logging.loggers.root.channel = c1\n"
                                                  "logging.loggers.root.level = none\n"
                                                  "logging.loggers.l0.name = edr\n"
                                                  "logging.loggers.l0.channel = c1\n"
                                                  "logging.loggers.l0.level = none\n"
                                                  "logging.loggers.l1.name = edr_events\n"
                                                  "logging.loggers.l1.channel = c1\n"
                                                  "logging.loggers.l1.level = none\n"));
      return std::string("edr_events");
    }();
    return name;
  }

  LogCapture capture_{ConfiguredName()};
};

}  // namespace zagent::fakes
