#include "common/src/storage/SpoolFolder.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <stdexcept>

#include "common/src/util/ErrnoText.h"

namespace zagent::common {

std::string PrepareSpoolFolder(const std::string& owner, std::string path, const std::string& working_directory) {
  if (path.empty() || path.front() != '/') path = working_directory + path;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  std::size_t slash = 0;
  while (slash != std::string::npos) {
    slash = path.find('/', slash + 1);
    const std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), 0700) == 0 || errno == EEXIST) continue;
    const std::string reason = util::ErrnoText(errno);
    throw std::runtime_error(std::string(owner).append(": Failed to create ").append(part).append(": ").append(reason));
  }
  return path;
}

}  // namespace zagent::common
