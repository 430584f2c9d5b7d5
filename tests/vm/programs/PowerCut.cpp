// power-cut: a disk whose every write is recorded in the order in which it became safe, and what would be left of it
// had the power failed at any moment. Works on the device-mapper target log-writes.
//
//   power-cut begin DATA LOG        makes /dev/dm-0: DATA, with its writes recorded on LOG
//   power-cut mark TEXT             puts a mark among the writes
//   power-cut end                   takes /dev/dm-0 away; the record is complete then
//   power-cut moments LOG COUNT SEED   COUNT random moments between the first and the last mark, a line each: "ENTRY
//   LAST-MARK" power-cut replay LOG OUT ENTRY  writes to OUT what was on the disk after so many entries of the record
//   power-cut check FOLDER LAST     reads the spool "items" of FOLDER to its end: items 1 to LAST are there, whole, in
//                                   order, once
#include <fcntl.h>
#include <linux/dm-ioctl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "common/src/storage/SpoolStorage.h"
#include "common/src/util/UniqueFd.h"
#include "tests/e2e/storage/NumberedItems.h"
#include "tests/fakes/FakeDataFormatter.h"

namespace {

using zagent::common::StorageCode;
using zagent::common::util::UniqueFd;

constexpr const char* kName = "recorded";
constexpr std::size_t kBioSector = 512;

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// ---- the device mapper

// A request to the device mapper with what follows its header.
class DmRequest {
 public:
  explicit DmRequest(const std::string& extra = "") : buffer_(kSize) {
    Header().version[0] = DM_VERSION_MAJOR;
    Header().data_size = kSize;
    Header().data_start = sizeof(dm_ioctl);
    std::strncpy(Header().name, kName, sizeof Header().name - 1);
    extra.copy(buffer_.data() + sizeof(dm_ioctl), kSize - sizeof(dm_ioctl) - 1);
  }
  dm_ioctl& Header() { return *reinterpret_cast<dm_ioctl*>(buffer_.data()); }
  void Do(unsigned long command, const char* what) {
    const UniqueFd control(open("/dev/mapper/control", O_RDWR | O_CLOEXEC));
    if (!control || ioctl(control.Get(), command, buffer_.data()) != 0) Fail(what);
  }

 private:
  static constexpr std::size_t kSize = 4096;
  std::vector<char> buffer_;
};

std::uint64_t SizeOf(const std::string& device) {
  const UniqueFd fd(open(device.c_str(), O_RDONLY | O_CLOEXEC));
  const off_t size = fd ? lseek(fd.Get(), 0, SEEK_END) : -1;
  if (size < 0) Fail(device);
  return static_cast<std::uint64_t>(size);
}

void Begin(const std::string& data, const std::string& log) {
  DmRequest().Do(DM_DEV_CREATE, "create");
  dm_target_spec target{};
  target.length = SizeOf(data) / kBioSector;
  std::strncpy(target.target_type, "log-writes", sizeof target.target_type - 1);
  std::string table(reinterpret_cast<const char*>(&target), sizeof target);
  table += data + " " + log;
  DmRequest load(table);
  load.Header().target_count = 1;
  load.Do(DM_TABLE_LOAD, "load");
  DmRequest().Do(DM_DEV_SUSPEND, "resume");  // without the flag of a suspension
}

void Mark(const std::string& text) {
  const dm_target_msg message{};
  std::string body(reinterpret_cast<const char*>(&message), sizeof message);
  DmRequest(body + "mark " + text).Do(DM_TARGET_MSG, "mark");
}

// ---- the record: a first sector that tells how many entries follow, each a sector of its own before its data

struct LogHead {
  std::uint64_t magic;
  std::uint64_t version;
  std::uint64_t entries;
  std::uint32_t sector_size;
};

struct LogEntry {
  std::uint64_t sector;
  std::uint64_t sectors;
  std::uint64_t flags;
  std::uint64_t data_length;
};

constexpr std::uint64_t kMagic = 0x6a736677736872ULL;
constexpr std::uint64_t kDiscard = 1U << 2;
constexpr std::uint64_t kMark = 1U << 3;

// Calls `visit` for each entry from the first on, until it answers false. `data` is what was written, or a mark's text.
void Walk(const std::string& log,
          const std::function<bool(std::uint64_t index, const LogEntry&, const std::string& data,
                                   std::uint32_t sector_size)>& visit) {
  std::ifstream in(log, std::ios::binary);
  LogHead head{};
  in.read(reinterpret_cast<char*>(&head), sizeof head);
  if (!in || head.magic != kMagic) throw std::runtime_error(log + " is no record");
  std::uint64_t at = head.sector_size;
  for (std::uint64_t index = 0; index < head.entries; ++index) {
    LogEntry entry{};
    in.seekg(static_cast<std::streamoff>(at));
    in.read(reinterpret_cast<char*>(&entry), sizeof entry);
    const bool has_sectors = (entry.flags & (kDiscard | kMark)) == 0;
    std::string data((entry.flags & kMark) != 0 ? entry.data_length
                     : has_sectors              ? entry.sectors * head.sector_size
                                                : 0,
                     '\0');
    if (has_sectors) in.seekg(static_cast<std::streamoff>(at + head.sector_size));
    in.read(data.data(), static_cast<std::streamsize>(data.size()));
    if (!in) throw std::runtime_error(log + " ends early");
    if (!visit(index + 1, entry, data, head.sector_size)) return;
    at += head.sector_size + (has_sectors ? data.size() : 0);
  }
}

// The number at the start of a mark; 0 for a mark of the target itself.
std::uint64_t NumberOf(const std::string& mark) {
  return std::strtoull(mark.c_str(), nullptr, 10);
}

void Moments(const std::string& log, std::uint64_t count, std::uint64_t seed) {
  std::vector<std::uint64_t> marks;  // by entry: the last number that was marked so far
  Walk(log, [&](std::uint64_t, const LogEntry& entry, const std::string& data, std::uint32_t) {
    const std::uint64_t before = marks.empty() ? 0 : marks.back();
    marks.push_back((entry.flags & kMark) != 0 ? std::max(before, NumberOf(data)) : before);
    return true;
  });
  const auto first = static_cast<std::uint64_t>(
      std::find_if(marks.begin(), marks.end(), [](std::uint64_t mark) { return mark != 0; }) - marks.begin());
  if (first == marks.size()) throw std::runtime_error("nothing was marked");
  // Nothing is owed anew behind the last mark.
  const auto end = static_cast<std::uint64_t>(std::find(marks.begin(), marks.end(), marks.back()) - marks.begin()) + 1;
  std::mt19937_64 random(seed);
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t index = first + random() % (end - first);
    std::cout << index + 1 << " " << marks[index] << "\n";
  }
}

void Replay(const std::string& log, const std::string& out, std::uint64_t last) {
  std::string disk(SizeOf(out), '\0');
  Walk(log, [&](std::uint64_t index, const LogEntry& entry, const std::string& data, std::uint32_t sector_size) {
    if (index > last) return false;
    if ((entry.flags & (kDiscard | kMark)) == 0) disk.replace(entry.sector * sector_size, data.size(), data);
    return true;
  });
  const UniqueFd fd(open(out.c_str(), O_WRONLY | O_CLOEXEC));
  for (std::size_t written = 0; written < disk.size();) {
    const ssize_t count = write(fd.Get(), disk.data() + written, disk.size() - written);
    if (count <= 0) Fail(out);
    written += static_cast<std::size_t>(count);
  }
  if (fsync(fd.Get()) != 0) Fail(out);
}

// ---- the spool

void Check(const std::string& folder, std::uint64_t last) {
  zagent::common::Scheduler scheduler;
  scheduler.Start();
  zagent::common::SpoolStorage spool(scheduler, folder, "items", std::make_unique<zagent::fakes::FakeDataFormatter>(),
                                     {64, 600, 4});
  std::uint64_t next = 1;
  for (auto file = spool.Read(); file->code == StorageCode::Success; file = spool.Read()) {
    const auto numbers = zagent::e2e::ParseItems(file->data);
    if (!numbers && next <= last)
      throw std::runtime_error("torn: " + file->path + " before item " + std::to_string(last));
    for (const std::uint64_t number : numbers.value_or(std::vector<std::uint64_t>())) {
      if (number != next) throw std::runtime_error(std::to_string(number) + " instead of " + std::to_string(next));
      ++next;
    }
    if (!spool.Delete(std::move(file))) throw std::runtime_error("a file cannot be deleted");
  }
  if (next <= last)
    throw std::runtime_error(std::to_string(last - next + 1) + " items are lost from " + std::to_string(next));
  std::cout << "items 1 to " << next - 1 << ", owed were " << last << "\n";
}

int Run(const std::vector<std::string>& words) {
  const std::string command = words.empty() ? "" : words[0];
  if (command == "begin" && words.size() == 3) {
    Begin(words[1], words[2]);
  } else if (command == "mark" && words.size() == 2) {
    Mark(words[1]);
  } else if (command == "end" && words.size() == 1) {
    DmRequest().Do(DM_DEV_REMOVE, "remove");
  } else if (command == "moments" && words.size() == 4) {
    Moments(words[1], std::stoull(words[2]), std::stoull(words[3]));
  } else if (command == "replay" && words.size() == 4) {
    Replay(words[1], words[2], std::stoull(words[3]));
  } else if (command == "check" && words.size() == 3) {
    Check(words[1], std::stoull(words[2]));
  } else {
    std::cerr << "usage: power-cut begin|mark|end|moments|replay|check ...\n";
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::cout << "power-cut: " << error.what() << "\n";
    return 1;
  }
}
