#include "common/src/http/UploadSource.h"

#include <Poco/SHA1Engine.h>
#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

namespace zagent::common {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

}  // namespace

UploadSource UploadSource::Of(const std::string& path, const struct stat& status) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return {path, name.substr(0, name.rfind('.')), status.st_ino,
          status.st_mtim.tv_sec * kNanosecondsPerSecond + status.st_mtim.tv_nsec,
          static_cast<std::uint64_t>(status.st_size)};
}

std::string UploadSource::MakeRequestId(const std::string& agent_id) const {
  const std::string name = agent_id + ";" + prefix + ";" + std::to_string(inode) + ";" + std::to_string(modified) +
                           ";" + std::to_string(size);
  Poco::SHA1Engine sha1;
  return Poco::UUIDGenerator::defaultGenerator()
      .createFromName(Poco::UUID(kNamespace), name, sha1, Poco::UUID::UUID_NAME_BASED_SHA1)
      .toString();
}

}  // namespace zagent::common
