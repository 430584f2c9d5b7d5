#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <mutex>
#include <string>
#include <vector>

namespace zagent::fakes {

// Collects the lines of the logger "edr" (or another) while it lives, at every level.
class LogCapture {
 public:
  explicit LogCapture(const std::string& logger = "edr") : logger_(Poco::Logger::get(logger)) {
    old_channel_ = logger_.getChannel();
    old_level_ = logger_.getLevel();
    logger_.setChannel(channel_);
    logger_.setLevel(Poco::Message::PRIO_TRACE);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() {
    logger_.setLevel(old_level_);
    logger_.setChannel(old_channel_);
  }

  [[nodiscard]] std::vector<Poco::Message> Lines() const { return channel_->Lines(); }

  [[nodiscard]] bool Has(const std::string& text) const { return Count(text) != 0; }
  [[nodiscard]] bool Has(Poco::Message::Priority priority, const std::string& text) const {
    for (const Poco::Message& line : Lines()) {
      if (line.getPriority() == priority && line.getText().find(text) != std::string::npos) return true;
    }
    return false;
  }
  // How many lines hold `text`.
  [[nodiscard]] int Count(const std::string& text) const {
    int count = 0;
    for (const Poco::Message& line : Lines()) count += line.getText().find(text) != std::string::npos ? 1 : 0;
    return count;
  }
  // Everything, for the message of a failed assertion.
  [[nodiscard]] std::string All() const {
    std::string all;
    for (const Poco::Message& line : Lines()) all += line.getText() + "\n";
    return all;
  }

 private:
  class Memory : public Poco::Channel {
   public:
    void log(const Poco::Message& message) override {
      const std::lock_guard lock(mutex_);
      lines_.push_back(message);
    }
    std::vector<Poco::Message> Lines() const {
      const std::lock_guard lock(mutex_);
      return lines_;
    }

   private:
    mutable std::mutex mutex_;
    std::vector<Poco::Message> lines_;
  };

  Poco::Logger& logger_;
  Poco::AutoPtr<Memory> channel_{new Memory};
  Poco::Channel::Ptr old_channel_;
  int old_level_ = 0;
};

}  // namespace zagent::fakes
