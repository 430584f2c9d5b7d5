#include "src/ioc/process/SnapshotDBTtlProcess.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <stdexcept>
#include <string_view>

#include "common/src/storage/Serializer.h"
#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/ListText.h"

namespace zagent::ioc::internal::models {
namespace {

using common::Serializer;

std::uint32_t GetUnsigned(Serializer& columns) {
  return static_cast<std::uint32_t>(columns.GetInteger());
}

std::int32_t GetPid(Serializer& columns) {
  const std::int64_t pid = columns.GetInteger();
  if (pid < 1 || pid > std::numeric_limits<std::int32_t>::max()) {
    throw std::out_of_range("There is no process with pid " + std::to_string(pid));
  }
  return static_cast<std::int32_t>(pid);
}

SnapshotDBTtlProcess::Image GetImage(Serializer& columns) {
  SnapshotDBTtlProcess::Image image;
  image.device_id = columns.GetString();
  image.file_attributes = GetUnsigned(columns);
  image.file_inode = static_cast<std::uint64_t>(columns.GetInteger());
  image.file_path = columns.GetString();
  image.owner_gid = GetUnsigned(columns);
  image.owner_group = columns.GetString();
  image.owner_name = columns.GetString();
  image.owner_uid = GetUnsigned(columns);
  image.file_fs_attributes = columns.GetString();
  return image;
}

void PutImage(common::Bytes& row, const SnapshotDBTtlProcess::Image& image) {
  Serializer::Put(row, image.device_id);
  Serializer::Put(row, std::int64_t{image.file_attributes});
  Serializer::Put(row, static_cast<std::int64_t>(image.file_inode));
  Serializer::Put(row, image.file_path);
  Serializer::Put(row, std::int64_t{image.owner_gid});
  Serializer::Put(row, image.owner_group);
  Serializer::Put(row, image.owner_name);
  Serializer::Put(row, std::int64_t{image.owner_uid});
  Serializer::Put(row, image.file_fs_attributes);
}

std::vector<std::int32_t> ReadPids(const std::string& text) {
  std::vector<std::int32_t> pids;
  for (const std::string_view item : SplitList(text)) {
    std::int32_t pid = 0;
    const auto [end, error] = std::from_chars(item.data(), item.data() + item.size(), pid);
    if (error == std::errc() && end == item.data() + item.size()) pids.push_back(pid);
  }
  return pids;
}

std::string JoinPids(const std::vector<std::int32_t>& pids) {
  std::string text;
  for (const std::int32_t pid : pids) {
    if (!text.empty()) text += ':';
    text += std::to_string(pid);
  }
  return text;
}

std::vector<std::pair<std::string, std::string>> ReadTags(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> tags;
  for (const std::string_view item : SplitList(text)) {
    const std::size_t equals = item.find('=');
    if (equals == std::string_view::npos) {
      ZLOG_ERROR("Tag value " << item << " is deformed in db.");
      continue;
    }
    tags.emplace_back(DecodeItem(item.substr(0, equals)), DecodeItem(item.substr(equals + 1)));
  }
  return tags;
}

std::string JoinTags(const std::vector<std::pair<std::string, std::string>>& tags) {
  std::string text;
  for (const auto& [key, value] : tags) {
    if (!text.empty()) text += ':';
    text += EncodeItem(key) + '=' + EncodeItem(value);
  }
  return text;
}

}  // namespace

SnapshotDBTtlProcess::Image::Image(const common::ImageInfo& image)
    : device_id(image.GetDevice()),
      file_attributes(image.GetPermission()),
      file_inode(image.GetInode()),
      file_path(image.GetPath()),
      owner_gid(image.GetGroupId()),
      owner_group(image.GetGroupName()),
      owner_name(image.GetOwnerName()),
      owner_uid(image.GetOwnerId()),
      file_fs_attributes(image.GetText()) {}

common::ImageInfo SnapshotDBTtlProcess::Image::ToImageInfo() const {
  return {device_id,   file_attributes, file_inode, file_path,         owner_gid,
          owner_group, owner_name,      owner_uid,  file_fs_attributes};
}

SnapshotDBTtlProcess::SnapshotDBTtlProcess(const ProcessInfo& process)
    : process_id(process.GetPid()),
      arguments(process.GetArguments()),
      auid(process.GetAuid()),
      children(process.GetChildren().begin(), process.GetChildren().end()),
      creation_time(process.GetCreationTime()),
      cwd(process.GetCwd()),
      euid(process.GetEuid()),
      image(*process.GetImage()),
      parent(process.GetParent()),
      score(process.GetScore()),
      uid(process.GetUserId()) {
  std::sort(children.begin(), children.end());
  if (process.HasSecondaryImage()) secondary_image = Image(*process.GetSecondaryImage());
  for (const auto& [key, value] : process.GetTags()) tags.emplace_back(key, value);
  std::sort(tags.begin(), tags.end());
}

SnapshotDBTtlProcess::SnapshotDBTtlProcess(const common::Bytes& row) {
  Serializer columns(row);
  process_id = GetPid(columns);
  arguments = ReadList(columns.GetString());
  auid = GetUnsigned(columns);
  children = ReadPids(columns.GetString());
  creation_time = columns.GetInteger();
  cwd = columns.GetString();
  euid = GetUnsigned(columns);
  image = GetImage(columns);
  parent = static_cast<std::int32_t>(columns.GetInteger());
  score = columns.GetInteger();
  secondary_image = GetImage(columns);
  tags = ReadTags(columns.GetString());
  uid = GetUnsigned(columns);
}

common::Bytes SnapshotDBTtlProcess::ToRow() const {
  common::Bytes row;
  Serializer::Put(row, std::int64_t{process_id});
  Serializer::Put(row, JoinList(arguments));
  Serializer::Put(row, std::int64_t{auid});
  Serializer::Put(row, JoinPids(children));
  Serializer::Put(row, creation_time);
  Serializer::Put(row, cwd);
  Serializer::Put(row, std::int64_t{euid});
  PutImage(row, image);
  Serializer::Put(row, std::int64_t{parent});
  Serializer::Put(row, score);
  PutImage(row, secondary_image);
  Serializer::Put(row, JoinTags(tags));
  Serializer::Put(row, std::int64_t{uid});
  return row;
}

ProcessInfo::Description SnapshotDBTtlProcess::ToDescription() const {
  ProcessInfo::Description known;
  known.pid = process_id;
  known.arguments = arguments;
  known.auid = auid;
  known.uid = uid;
  known.euid = euid;
  known.creation_time = creation_time;
  known.cwd = cwd;
  known.image = image.ToImageInfo();
  if (!secondary_image.file_path.empty()) known.secondary_image = secondary_image.ToImageInfo();
  return known;
}

}  // namespace zagent::ioc::internal::models
