#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "src/edr/Event.h"
#include "src/edr/LRUCache.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/protobuf/IocEvents.pb.h"

// Parts that several messages have in common.
namespace zagent::ioc::internal::protobuf {

// Names on disk are bytes, the platform refuses a whole batch for one text that is not UTF-8: every text goes through
// here. Each byte that is none becomes U+FFFD.
std::string Repaired(std::string_view text);
// The same in the memory of `to`.
void SetRepaired(std::string_view text, std::string& to);

// {"Uid":0,"Gid":0,"Permission":644,"OwnerName":"root","GroupName":"root"}; the permission in octal digits. Empty for
// an image of which the path alone is known.
std::string SecuritySettings(const common::ImageInfo& image);

// The settings of one object after the other, as SecuritySettings tells them: in a burst they are mostly those of one
// before. For one thread.
class LatestSettings {
 public:
  // Valid until the next call.
  const std::string& Of(const common::ImageInfo& image);

 private:
  struct Known {
    std::uint32_t owner_id = 0;
    std::uint32_t group_id = 0;
    std::uint32_t permission = 0;
    std::string owner_name;
    std::string group_name;
    std::string settings;  // empty until there is one
  };
  std::array<Known, 16> known_;  // one takes the place of another by its numbers
};

// The process as the one that did something. The program is the one that ran when it did: `image`, when it is known and
// has a path; else the program of the process.
void FillActor(const ProcessInfo& process, const common::ImageInfo* image,
               com::ostrel::ioc::model::proto::event::Actor& actor);
// The actor of an event. Throws common::GenericProcessTreeException when the tree does not have it.
void FillActor(const TtlProcessTree& tree, const edr::Event& event,
               com::ostrel::ioc::model::proto::event::Actor& actor);

// The actors of the latest events, as FillActor makes them, serialised as the field of the event of a file or a
// process: most of a burst is the work of few processes. An actor whose names nobody knows yet is made anew each time.
// For one thread.
class KnownActors {
 public:
  // Valid until the next call. Throws what FillActor throws.
  const std::string& FieldOf(const TtlProcessTree& tree, const edr::Event& event);
  const std::string& FieldOf(const std::shared_ptr<const ProcessInfo>& process);
  void Forget() { known_.Clear(); }

 private:
  struct Known {
    std::weak_ptr<const ProcessInfo> process;
    std::string field;
  };
  const std::string& Make(const ProcessInfo& process, const common::ImageInfo* image);

  edr::LRUCache<std::int32_t, Known> known_{256};
  std::string made_;
};

std::string UniqueProcessId(const ProcessInfo& process);

// The image that an event answers with, null when it has none.
const common::ImageInfo* ImageOf(const edr::Event& event);

// "Generating protobuf for ...", `subject` being a path or a process.
void LogGenerating(const edr::Event& event, const std::string& subject);

}  // namespace zagent::ioc::internal::protobuf
