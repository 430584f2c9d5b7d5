#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zagent::tools {

// An upload as the page shows it. Texts of a payload are UTF-8 here, whatever they were, and of bounded length: one
// that was longer ends early, and its event has the member "cut".
struct PageUpload {
  // The start of a program, as a batch of indicators of compromise tells it.
  struct Start {
    std::string unique_id;
    std::string parent_unique_id;  // empty when it is not known
    std::int64_t pid = 0;
    std::int64_t parent_pid = 0;
    std::string path;
    std::string user;
    std::string arguments;
  };

  struct Event {
    // A JSON object of what the payload says. Common: "kind" ("fim" or "ioc"), "time" (UTC), "action", "what" (kind of
    // the object), "path", "to" of a rename, "actor" with "path", "pid", "user" and "auditUser". What there is not is
    // absent.
    std::string json;
    // Of indicators of compromise: who acted, of a process who started it.
    std::string actor_id;
    std::int64_t actor_pid = 0;
    std::string actor_path;
    std::string actor_user;
    std::optional<Start> start;  // of the start of a program
  };

  enum class Kind { Fim, Ioc, Health, Other };
  Kind kind = Kind::Other;
  std::string host;                           // of a batch: the name of the machine
  std::uint64_t sequence_number = 0;          // of a batch; 0: none
  std::vector<Event> events;                  // oldest first
  std::vector<std::string> health;            // rows of a status document, a JSON object each
  std::map<std::string, std::uint64_t> lost;  // what the rows say was lost, by field

  // `target` is the path that it came to. What is no document and no batch has no events and is `Other`. Takes a few
  // times the size of the payload while it lasts.
  static PageUpload Read(const std::string& target, const std::string& payload);
};

}  // namespace zagent::tools
