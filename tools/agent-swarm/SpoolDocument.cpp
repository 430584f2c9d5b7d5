#include "tools/agent-swarm/SpoolDocument.h"

#include <array>
#include <cstdio>
#include <string>

#include "common/src/util/Clock.h"

namespace zagent::tools {
namespace {

struct Actor {
  const char* program;
  const char* user;
  unsigned uid;
};

constexpr std::array<const char*, 3> kActions = {"Write", "Create", "Delete"};
constexpr std::array<const char*, 6> kFolders = {"/etc",     "/etc/ssh",        "/usr/local/bin",
                                                 "/var/www", "/srv/app/config", "/home/alice/.ssh"};
constexpr std::array<const char*, 6> kNames = {"service", "cache", "index", "session", "report", "unit"};
constexpr std::array<const char*, 4> kEndings = {"conf", "txt", "json", "db"};
constexpr std::array<Actor, 4> kActors = {{{"/usr/bin/vi", "alice", 1000},
                                           {"/usr/bin/dpkg", "root", 0},
                                           {"/usr/sbin/nginx", "www-data", 33},
                                           {"/usr/bin/rsync", "backup", 34}}};

template <typename Choices>
const auto& OneOf(const Choices& choices, std::mt19937_64& random) {
  return choices[random() % choices.size()];
}

std::string Digest(std::mt19937_64& random) {
  std::string digest;
  for (int i = 0; i < 4; ++i) {
    char part[17];
    std::snprintf(part, sizeof(part), "%016llx", static_cast<unsigned long long>(random()));
    digest += part;
  }
  return digest;
}

void AppendEvent(std::string& text, const std::string& time, std::mt19937_64& random) {
  const std::string action = OneOf(kActions, random);
  const Actor& actor = OneOf(kActors, random);
  const std::string path = std::string(OneOf(kFolders, random)) + "/" + OneOf(kNames, random) + "-" +
                           std::to_string(random() % 10'000) + "." + OneOf(kEndings, random);
  text += R"({"successStatus":"yes","timestamp":")" + time + R"(","eventId":)" + std::to_string(random() % 1'000'000) +
          R"(,"eventAction":")" + action + R"(","eventClass":"Disk","eventType":"File","imagePath":")" + path +
          R"(","associatedRules":["5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0a01"],"actor":{"imagePath":")" + actor.program +
          R"(","processID":)" + std::to_string(300 + random() % 30'000) + R"(,"userName":")" + actor.user +
          R"(","userID":)" + std::to_string(actor.uid) +
          R"(,"auditUserName":"alice","auditUserID":1000,"procTitle":")" + actor.program + " " + path + R"("})";
  if (action != "Delete") {
    char size[24];
    std::snprintf(size, sizeof(size), "0x%llx", static_cast<unsigned long long>(random() % 1'000'000));
    text += std::string(R"(,"size":{"new":")") + size + R"("},"fileContentHash":")" + Digest(random) + "\"";
  }
  text += "}";
}

}  // namespace

std::vector<unsigned char> MakeSpoolDocument(std::size_t size, std::mt19937_64& random) {
  const std::string time = common::util::FormatUtc(common::util::ToNanoseconds(common::util::Clock::Real().Now()));
  std::string text = R"({"events":[)";
  const std::string end = R"(],"timestamp":")" + time + "\"}";
  do {
    if (text.back() == '}') text += ",";
    AppendEvent(text, time, random);
  } while (text.size() + end.size() < size);
  text += end;
  return {text.begin(), text.end()};
}

}  // namespace zagent::tools
