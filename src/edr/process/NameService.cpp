#include "src/edr/process/NameService.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <unordered_map>
#include <vector>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr std::size_t kFirstBuffer = 1024;
// A group of many thousand members needs a large one; this is far beyond any of them.
constexpr std::size_t kLargestBuffer = 64UL * 1024UL * 1024UL;

// The words and the call of one database.
struct UserDatabase {
  using Entry = struct passwd;
  static constexpr const char* kFailed = "Failed to get user name for uid ";
  static constexpr const char* kMissing = "User name not found for uid ";
  static int Find(std::uint32_t id, Entry* entry, std::vector<char>& buffer, Entry** found) {
    return getpwuid_r(id, entry, buffer.data(), buffer.size(), found);
  }
  static const char* Name(const Entry& entry) { return entry.pw_name; }
};

struct GroupDatabase {
  using Entry = struct group;
  static constexpr const char* kFailed = "Failed to get group name for gid ";
  static constexpr const char* kMissing = "Group name not found for gid ";
  static int Find(std::uint32_t id, Entry* entry, std::vector<char>& buffer, Entry** found) {
    return getgrgid_r(id, entry, buffer.data(), buffer.size(), found);
  }
  static const char* Name(const Entry& entry) { return entry.gr_name; }
};

template <typename Database>
std::string FindName(std::uint32_t id) {
  std::vector<char> buffer(kFirstBuffer);
  typename Database::Entry entry{};
  typename Database::Entry* found = nullptr;
  int error = Database::Find(id, &entry, buffer, &found);
  while (error == ERANGE && buffer.size() < kLargestBuffer) {
    buffer.resize(buffer.size() * 2);
    error = Database::Find(id, &entry, buffer, &found);
  }
  if (error != 0) throw std::out_of_range(Database::kFailed + std::to_string(id) + ": " + util::ErrnoText(error));
  if (found == nullptr) throw std::out_of_range(Database::kMissing + std::to_string(id));
  return Database::Name(entry);
}

// Names by id. A name that was found is kept for good; a miss is asked for again.
template <typename Database>
class NameCache {
 public:
  std::string Get(std::uint32_t id) {
    {
      const std::lock_guard lock(mutex_);
      const auto known = names_.find(id);
      if (known != names_.end()) return known->second;
    }
    try {
      // Outside the lock: the database may be a network away.
      std::string name = FindName<Database>(id);
      const std::lock_guard lock(mutex_);
      names_.emplace(id, name);
      return name;
    } catch (const std::out_of_range& error) {
      ZLOG_WARNING(error.what());
      return std::to_string(id);
    }
  }

 private:
  std::mutex mutex_;
  std::unordered_map<std::uint32_t, std::string> names_;
};

}  // namespace

std::string UserName(std::uint32_t uid) {
  static NameCache<UserDatabase> cache;
  return cache.Get(uid);
}

std::string GroupName(std::uint32_t gid) {
  static NameCache<GroupDatabase> cache;
  return cache.Get(gid);
}

}  // namespace zagent::common
