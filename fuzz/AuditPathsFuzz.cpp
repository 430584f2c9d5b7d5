// Feeds names to the resolution of paths. The first byte of the input chooses what is known of folders and mounts; the
// lines behind it are the working folder, the name of the PARENT record, the name of the object, the type word, the
// mode and the inode of the object, and the inode of the folder.
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

#include "fuzz/RecordedTree.h"
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
using zagent::fuzz::RecordedTree;
namespace internal = zagent::audit::internal;

constexpr std::size_t kLines = 7;
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

// What is answered is a path, or nothing: with an absolute working folder no name can make it relative.
void MustBeAPath(const std::string& cwd, const std::optional<std::string>& path) {
  if (path && cwd.starts_with('/') && !path->starts_with('/')) std::abort();
}

void UseRecords(const internal::FileContext& context, const std::string& cwd, const PathRecord& parent,
                PathRecord object) {
  const PathFinder finder(context, cwd, -1);
  for (const PathFinder::Start start : {PathFinder::Start(), PathFinder::Start(3)}) {
    Try([&] {
      if (const auto folder = finder.FolderOf(parent, object, start)) {
        MustBeAPath(cwd, finder.ResolveIn(*folder, parent, object));
      }
    });
    Try([&] { MustBeAPath(cwd, finder.ResolveAlone(object, start, start)); });
    Try([&] { static_cast<void>(finder.FolderNamedBy(object, start)); });
  }
  Try([&] { object.Combine(parent); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  if (size == 0) return 0;
  const RecordedTree& tree = RecordedTree::Get();
  const internal::FileContext context = tree.ContextOf(data[0]);
  const Lines lines = ReadLines({reinterpret_cast<const char*>(data + 1), size - 1});
  const std::string cwd = tree.NameOf(lines[0]);
  const std::string parent_name = tree.NameOf(lines[1]);
  const std::string name = tree.NameOf(lines[2]);
  const std::string& word = lines[3];
  const std::string& mode = lines[4];
  const std::string inode = tree.InodeOf(lines[5]);
  const std::string folder_inode = tree.InodeOf(lines[6].empty() ? lines[5] : lines[6]);
  const std::string device = tree.DeviceOf("00:02");
  const auto view = [&](std::string_view path, std::string_view type_word, std::string_view number) {
    RecordFields fields;
    fields.Set(RecordField::Item, "0");
    fields.Set(RecordField::Name, path);
    fields.Set(RecordField::Inode, number);
    fields.Set(RecordField::Dev, device);
    fields.Set(RecordField::Mode, mode);
    fields.Set(RecordField::OUid, "0");
    fields.Set(RecordField::OGid, "0");
    fields.Set(RecordField::NameType, type_word);
    return fields;
  };
  Try([&] { Resolve(cwd, parent_name, name); });
  Try([&] {
    const PathRecord parent(view(parent_name, "PARENT", folder_inode), cwd, "");
    UseRecords(context, cwd, parent, PathRecord(view(name, word, inode), cwd, parent.path));
  });
  static_cast<void>(internal::FolderText(name));
  static_cast<void>(internal::NameWithinParent(parent_name, name));
  Try([&] { static_cast<void>(internal::FolderPart(name)); });
  return 0;
}
