#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>

namespace zagent::fuzz {

// Log lines are built as in production at their most talkative level, and go nowhere. Once a process.
inline void SilenceLog() {
  static const bool silenced = [] {
    Poco::Logger& logger = Poco::Logger::get("edr");
    logger.setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    logger.setLevel(Poco::Message::PRIO_TRACE);
    return true;
  }();
  static_cast<void>(silenced);
}

}  // namespace zagent::fuzz
