#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "tools/reference-receiver/PageFeed.h"

namespace zagent::tools {

// Serves the page and its events over plain HTTP, from construction to destruction, with one thread. Answers GET below
// its token only, and each connection once. What the browser gets:
//
//   <url>            the page; <url>page.js and so on, what it is made of (tools/reference-receiver/page)
//   <url>events      server-sent events without end: "start" with {"run": <text>, "max": <how many the list keeps>};
//                    "events" with PageFeed::Portion::json and the id "<run>.<number of the last>"; "health" and
//                    "books" with what PageFeed gives, when they have changed, books every five seconds at the latest.
//                    With
//                    "?after=<id>" it goes on behind that event, if the run is this one.
//
// A reader that takes nothing for a while is left; it costs nobody else time, and memory for one portion.
class PageServer {
 public:
  static constexpr std::size_t kMaxConnections = 64;  // at the bound the oldest without a stream of events goes
  static constexpr std::size_t kMaxReaders = 32;      // streams of events; the next one is answered 503
  static constexpr std::size_t kMaxHead = 8192;       // bytes of a request
  static constexpr std::size_t kMaxPortion = 256UL * 1024;

  struct Settings {
    std::string address = "127.0.0.1";                  // IPv4 or IPv6
    std::uint16_t port = 0;                             // 0: a free one
    std::chrono::milliseconds request_patience{5000};   // for a whole request, and for the end of its answer
    std::chrono::milliseconds reader_patience{30'000};  // for a reader that takes nothing
  };

  // Throws std::exception for what is no address and for a port that is taken. `feed` outlives it, and has no other
  // listener.
  PageServer(PageFeed& feed, Settings settings);
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;
  ~PageServer();

  // "http://127.0.0.1:<port>/<token>/": whoever knows it sees everything, so it goes to nobody else.
  [[nodiscard]] std::string GetUrl() const;

 private:
  class Loop;
  std::unique_ptr<Loop> loop_;
};

}  // namespace zagent::tools
