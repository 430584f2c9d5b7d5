#include "src/edr/LinkedPath.h"

#include <Poco/Exception.h>
#include <Poco/File.h>

#include <climits>
#include <cstdlib>
#include <memory>

namespace zagent::edr {
namespace {

// Of what is too long to be the path of a file, looking for the folders one by one would take for ever.
bool CanHaveLinks(const std::string& path) {
  return path.starts_with('/') && path.size() < PATH_MAX;
}

bool IsSymlink(const std::string& path) {
  try {
    return Poco::File(path).isLink();
  } catch (const Poco::Exception&) {
    // A name that is too long is no Poco::FileException, and nothing to fall over either.
    return false;
  }
}

std::optional<std::string> Canonical(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(canonicalize_file_name(path.c_str()), &std::free);
  if (resolved == nullptr) return std::nullopt;
  return std::string(resolved.get());
}

std::string Join(const std::string& folder, const std::string& name) {
  return folder.ends_with('/') ? folder + name : folder + "/" + name;
}

// A tidy path with the links among its folders followed, as far as these exist, and the last part as it is.
std::string WithRealFolders(const std::string& path) {
  std::string folder = path;
  std::string rest;
  while (folder != "/") {
    const std::size_t slash = folder.rfind('/');
    rest = rest.empty() ? folder.substr(slash + 1) : Join(folder.substr(slash + 1), rest);
    folder = slash == 0 ? "/" : folder.substr(0, slash);
    if (const std::optional<std::string> real = Canonical(folder)) return Join(*real, rest);
  }
  return path;
}

}  // namespace

bool LeadsThroughLink(const std::string& path) {
  return CanHaveLinks(path) && (IsSymlink(path) || WithRealFolders(path) != path);
}

std::optional<std::string> ResolveLink(const std::string& path) {
  if (!CanHaveLinks(path)) return path;
  if (std::optional<std::string> real = Canonical(path)) return real;
  if (IsSymlink(path)) return std::nullopt;
  return WithRealFolders(path);
}

}  // namespace zagent::edr
