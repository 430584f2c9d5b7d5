// Feeds names to the resolution of paths: the lines of the input are the working folder, the name of the PARENT record,
// the name of the object, the type word, the mode and the inode.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/SilentLog.h"
#include "src/audit/events/Event.h"
#include "src/audit/events/PathFinder.h"
#include "src/audit/events/PathRecord.h"
#include "src/audit/events/PathResolution.h"

namespace {

using zagent::audit::internal::NormalisePath;
using zagent::audit::internal::PathFinder;
using zagent::audit::internal::PathRecord;
using zagent::edr::RecordField;
using zagent::edr::RecordFields;
namespace internal = zagent::audit::internal;

constexpr std::size_t kLines = 6;
using Lines = std::array<std::string, kLines>;

Lines ReadLines(std::string_view text) {
  Lines lines;
  for (std::string& line : lines) {
    line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return lines;
}

// An absolute path as its components say it, without a last slash.
std::string Plain(const std::string& path) {
  std::vector<std::string> parts;
  std::string_view rest = path;
  while (!rest.empty()) {
    const std::string_view part = rest.substr(0, rest.find('/'));
    rest.remove_prefix(std::min(part.size() + 1, rest.size()));
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.emplace_back(part);
    }
  }
  std::string plain;
  for (const std::string& part : parts) plain += "/" + part;
  return plain.empty() ? "/" : plain;
}

// Whether `path` is what `text` means, with or without a last slash.
void MustMean(std::string path, const std::string& text) {
  if (path.size() > 1 && path.ends_with('/')) path.pop_back();
  if (path != Plain(text)) std::abort();
  if (NormalisePath(path) != path) std::abort();
}

template <typename Work>
void Try(Work work) {
  try {
    work();
  } catch (const std::exception&) {
    // A name that means nothing says so.
  }
}

void Resolve(const std::string& cwd, const std::string& parent, const std::string& child) {
  std::string text = child;
  if (!text.starts_with('/')) text = (parent.empty() ? "" : parent + "/") + text;
  if (!text.starts_with('/')) text = cwd + "/" + text;
  const std::string path = internal::Event::ResolvePath(cwd, parent, child);
  // A first part that ends in a colon is a drive to the path library.
  if (text.starts_with('/') && text.find(":/") == std::string::npos) MustMean(path, text);
}

void UseRecords(const std::string& cwd, const PathRecord& parent, PathRecord object) {
  internal::FileContext context;
  context.folders = std::make_shared<internal::FolderIdentities>();
  context.proc_root = "/nowhere";
  const PathFinder finder(context, cwd, -1);
  for (const PathFinder::Start start : {PathFinder::Start(), PathFinder::Start(3)}) {
    Try([&] {
      if (const auto folder = finder.FolderOf(parent, object, start)) {
        static_cast<void>(finder.ResolveIn(*folder, parent, object));
      }
    });
    Try([&] { static_cast<void>(finder.ResolveAlone(object, start, start)); });
    Try([&] { static_cast<void>(finder.FolderNamedBy(object, start)); });
  }
  Try([&] { object.Combine(parent); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  const auto [cwd, parent_name, name, word, mode, inode] = ReadLines({reinterpret_cast<const char*>(data), size});
  const auto view = [&, &mode = mode, &inode = inode](std::string_view path, std::string_view type_word) {
    RecordFields fields;
    fields.Set(RecordField::Item, "0");
    fields.Set(RecordField::Name, path);
    fields.Set(RecordField::Inode, inode);
    fields.Set(RecordField::Dev, "fd:00");
    fields.Set(RecordField::Mode, mode);
    fields.Set(RecordField::OUid, "0");
    fields.Set(RecordField::OGid, "0");
    fields.Set(RecordField::NameType, type_word);
    return fields;
  };
  Try([&, &cwd = cwd, &parent = parent_name, &child = name] { Resolve(cwd, parent, child); });
  Try([&, &cwd = cwd, &parent_name = parent_name, &name = name, &word = word] {
    const PathRecord parent(view(parent_name, "PARENT"), cwd, "");
    UseRecords(cwd, parent, PathRecord(view(name, word), cwd, parent.path));
  });
  static_cast<void>(internal::FolderText(name));
  static_cast<void>(internal::NameWithinParent(parent_name, name));
  Try([&name = name] { static_cast<void>(internal::FolderPart(name)); });
  return 0;
}
