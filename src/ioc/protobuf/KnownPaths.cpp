#include "src/ioc/protobuf/KnownPaths.h"

#include <string_view>
#include <utility>

#include "src/ioc/protobuf/IocEvents.pb.h"
#include "src/ioc/protobuf/Messages.h"
#include "src/ioc/protobuf/UniqueId.h"

namespace zagent::ioc::internal::protobuf {
namespace {

std::string_view NameOf(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

// What follows the last dot of a name; the dot of a hidden file is none.
std::string_view ExtensionOf(std::string_view name) {
  const std::size_t dot = name.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

std::string ParentOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (path.empty() || path.front() != '/' || slash + 1 == path.size()) return {};
  return slash == 0 ? "/" : path.substr(0, slash);
}

KnownPaths::Path Make(const std::string& path) {
  KnownPaths::Path made{UniquePathId(path), ParentOf(path), {}, {}};
  made.parent_id = UniquePathId(made.parent);
  com::ostrel::ioc::model::proto::event::FileEvent message;
  message.set_uniqueid(made.id);
  message.set_parentdirectoryid(made.parent_id);
  message.set_filename(Repaired(NameOf(path)));
  message.set_fullpath(Repaired(path));
  message.set_extension(Repaired(ExtensionOf(NameOf(path))));
  made.fields = message.SerializeAsString();
  return made;
}

}  // namespace

const KnownPaths::Path& KnownPaths::Of(const std::string& path) {
  if (const Path* const known = known_.Find(path)) return *known;
  made_ = Make(path);
  if (path.size() > kMaxText) return made_;
  known_.Put(path, std::move(made_));
  return *known_.Find(path);
}

}  // namespace zagent::ioc::internal::protobuf
