#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/agent-swarm/SwarmKeys.h"
#include "tools/event-stream/StreamOptions.h"

namespace zagent::tools {

// Uploads of many agents, each with keys of its own and one upload at a time, over connections that are kept and that
// all share. Agents take turns; odd ones sign by version 1, even ones by version 2. An upload that fails comes again
// under its own Z-REQID, as a spool file does, until it is accepted or the time for that is over; some that were
// accepted come again as well, as after an answer that was lost, and in the same way.
struct SwarmOptions {
  std::string url;  // "https://host:port"
  std::string ca_file;
  std::vector<SwarmAgent> agents;
  std::chrono::seconds duration{60};
  std::chrono::seconds patience{120};  // behind it, for uploads that were not accepted yet
  unsigned further_attempts = 3;       // of each call of Upload, five seconds apart as the daemon's
  unsigned senders = 32;               // uploads at the same time
  double per_second = 0;               // of all agents; 0: as many as go
  std::size_t large_size = 100UL * 1024;
  std::size_t small_size = 2UL * 1024;
  unsigned small_percent = 20;
  unsigned repeated_percent = 5;
  // So many of each size are made and compressed before the first upload, which then takes one of them. 0: each upload
  // has a document of its own, compressed when it is sent.
  unsigned documents = 128;
  std::function<void()> on_begin;  // called before the first upload; may be empty
};

// One upload, and what its sender knows of it.
struct SwarmUpload {
  std::string id;  // Z-REQID
  bool is_large = false;
  bool is_accepted = false;
  bool is_repeated = false;             // was sent again after it had been accepted
  unsigned tries = 0;                   // calls of Upload, each with the attempts of its own
  std::chrono::microseconds latency{};  // from the first try to the acceptance
  std::chrono::microseconds since_start{};
};

struct SwarmResult {
  std::vector<SwarmUpload> uploads;
  unsigned refused_repeats = 0;           // were not answered with success until the time was over
  std::chrono::duration<double> took{};   // from the first upload to the end of the last that began in time
  std::chrono::microseconds processor{};  // time of this process in it, user's and system's
};

// Blocks until the last upload has ended.
SwarmResult RunSwarm(const SwarmOptions& options);

// What the stream has of the uploads, each counted by its id. Of others it says nothing.
struct SwarmAccount {
  std::size_t stored = 0;
  std::size_t lost = 0;     // not in the stream, accepted or not
  std::size_t doubled = 0;  // further copies
};

// Reads the stream's headers from its beginning. Throws std::runtime_error when the engine does not answer.
SwarmAccount CountInStream(const StreamOptions& stream, const std::vector<SwarmUpload>& uploads);
// The pure half: `ids` is what the stream has, in any order.
SwarmAccount Account(const std::vector<SwarmUpload>& uploads, const std::vector<std::string>& ids);

// The value below which so many per cent of them lie; 0 of none.
std::chrono::microseconds Percentile(std::vector<std::chrono::microseconds> values, double percent);

}  // namespace zagent::tools
