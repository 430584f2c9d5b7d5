#include "tools/reference-receiver/UploadSink.h"

#include "tools/reference-receiver/IocBatch.h"

namespace zagent::tools {

const char* ToString(UploadKind kind) {
  switch (kind) {
    case UploadKind::Ioc:
      return "ioc";
    case UploadKind::Status:
      return "status";
    default:
      return "fim";
  }
}

UploadKind KindOfTarget(const std::string& target) {
  if (IsIocTarget(target)) return UploadKind::Ioc;
  const std::string path = target.substr(0, target.find('?'));
  return path.ends_with("/status") ? UploadKind::Status : UploadKind::Fim;
}

}  // namespace zagent::tools
