#pragma once

#include <memory>
#include <string>

#include "src/edr/DigestPace.h"
#include "src/ioc/protobuf/DirectoryEvent.h"
#include "src/ioc/protobuf/EventBuilder.h"
#include "src/ioc/protobuf/FileLooks.h"
#include "src/ioc/protobuf/FileTypeIdentifier.h"
#include "src/ioc/protobuf/KnownPaths.h"
#include "src/ioc/protobuf/Messages.h"

namespace zagent::ioc::internal::protobuf {

// Events of files. The directory of a file is described first when the platform does not know it. The end of a file is
// told only when the platform knows the file; nothing is told of one that was gone before it could be looked at. A
// large file that is written all the time is told without digests in between, and no file with the type of another.
class FileEvent final : public EventBuilder {
 public:
  // The largest size that every reader of JSON still has exactly. Only a file with holes claims more.
  static constexpr std::int64_t kMaxSize = (std::int64_t{1} << 53U) - 1;

  // All outlive the object; `digests` is the cache of the events.
  FileEvent(const TtlProcessTree& tree, const ReportedObjects& reported, const DirectoryEvent& directories,
            edr::DigestPace& pace, const common::util::DigestCache& digests, const common::util::Clock& clock);
  FileEvent(const FileEvent&) = delete;
  FileEvent& operator=(const FileEvent&) = delete;
  ~FileEvent() override;

  [[nodiscard]] Report Build(const edr::Event& event) const override;
  // All events that come from here on until the next call have happened by now.
  void BeginTurn() { looks_.BeginTurn(); }
  // Frees what is remembered of the latest events. Reports stay what they are.
  void Forget();

 private:
  using Message = com::ostrel::ioc::model::proto::event::FileEvent;

  [[nodiscard]] bool IsReported(const std::string& id, const std::string& path) const;
  [[nodiscard]] ReportedObjects::Times SetState(const edr::Event& event, const common::ImageInfo& file,
                                                Message& message) const;
  [[nodiscard]] const FileLooks::Look* FindKnown(const edr::Event& event, const common::ImageInfo& file,
                                                 const std::string& path) const;
  static void SetDigests(const FileLooks::Look& look, const std::string& path, Message& message);
  static void SetDigests(const edr::Event& event, const std::string& path, Message& message);

  const TtlProcessTree& tree_;
  const ReportedObjects& reported_;
  const DirectoryEvent& directories_;
  edr::DigestPace& pace_;
  const common::util::DigestCache& digests_;
  const common::util::Clock& clock_;
  mutable FileLooks looks_;
  mutable KnownPaths paths_;
  const FileTypeIdentifier types_;
  mutable KnownActors actors_;
  mutable LatestSettings settings_;
  const std::unique_ptr<Message> message_;  // that of the event at hand, in the memory of the one before
};

}  // namespace zagent::ioc::internal::protobuf
