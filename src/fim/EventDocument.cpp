#include "src/fim/EventDocument.h"

#include <Poco/Base64Encoder.h>

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <sstream>
#include <type_traits>

#include "common/src/util/Clock.h"
#include "common/src/util/Json.h"
#include "common/src/util/Log.h"
#include "common/src/util/Utf8.h"
#include "src/edr/process/ImageInfo.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim::internal {
namespace {

using edr::EventType;

bool IsOneOf(EventType type, std::initializer_list<EventType> types) {
  return std::find(types.begin(), types.end(), type) != types.end();
}

std::string HexText(const std::vector<unsigned char>& bytes) {
  static constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const unsigned char byte : bytes) {
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0x0FU];
  }
  return text;
}

std::string Base64Text(const std::vector<unsigned char>& bytes) {
  std::ostringstream text;
  Poco::Base64Encoder encoder(text);
  encoder.rdbuf()->setLineLength(0);
  encoder.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  encoder.close();
  return text.str();
}

std::string SizeText(std::int64_t size) {
  std::array<char, 24> text{};
  std::snprintf(text.data(), text.size(), "0x%" PRIx64, static_cast<std::uint64_t>(size));
  return text.data();
}

const char* TypeText(edr::ObjectType type) {
  if (type == edr::ObjectType::File) return "File";
  return type == edr::ObjectType::Directory ? "Directory" : "Unknown";
}

// Writes one document. Each member is asked for before its key is written, so that what an accessor throws leaves no
// half of it behind.
class DocumentWriter {
 public:
  explicit DocumentWriter(const edr::Event& event) : event_(event), writer_(buffer_) {}

  std::string Write(const EventDocumentParts& parts) {
    writer_.StartObject();
    WriteEvent();
    WriteRules(parts.associated_rules);
    if (event_.GetType() != EventType::Baseline) WriteActor();
    WriteSecuritySettings();
    WriteOperation();
    WriteSize();
    if (parts.collect_hashes) WriteHash(parts.pace);
    if (parts.content) WriteContent(*parts.content);
    WritePathBytes();
    writer_.EndObject();
    return {buffer_.GetString(), buffer_.GetSize()};
  }

 private:
  void WriteEvent() {
    Member("successStatus", [&] { return event_.IsSuccessful() ? "yes" : "no"; });
    Member("timestamp", [&] { return common::util::FormatUtc(event_.GetTimestamp()); });
    Member("eventId", [&] { return event_.GetId(); });
    Member("eventAction", [&] { return event_.GetAction(); });
    Member("eventClass", [] { return "Disk"; });
    Member("eventType", [&] { return TypeText(event_.GetObjectType()); });
    Member("imagePath", [&] { return Path(event_.GetFile()); });
  }

  void WriteRules(const std::vector<std::string>& ids) {
    writer_.Key("associatedRules");
    writer_.StartArray();
    for (const std::string& id : ids) Value(id);
    writer_.EndArray();
  }

  void WriteActor() {
    Object("actor", [&] {
      // Nobody known.
      if (IsAnsweredBelow(1, [&] { return event_.GetActorProcessId(); })) return;
      Member("imagePath", [&] { return Path(event_.GetImage()); });
      Member("processID", [&] { return event_.GetActorProcessId(); });
      Member("userName", [&] { return event_.GetActorUserName(); });
      Member("userID", [&] { return event_.GetActorUserId(); });
      Member("auditUserName", [&] { return event_.GetActorLoginName(); });
      Member("auditUserID", [&] { return event_.GetActorAuid(); });
      Member("procTitle", [&] { return event_.GetCommandLine(); });
    });
  }

  template <typename Ask>
  bool IsAnsweredBelow(std::int32_t bound, Ask ask) {
    std::int32_t answer = bound;
    return Answered("actor", [&] { answer = ask(); }) && answer < bound;
  }

  void WriteSecuritySettings() {
    if (event_.GetType() != EventType::AttributeChange) return;
    Object("securitySettings", [&] {
      WriteSettings("old", [&] { return event_.GetFile(); });
      WriteSettings("new", [&] { return event_.GetNewFile(); });
    });
  }

  template <typename Ask>
  void WriteSettings(const char* key, Ask ask) {
    const common::ImageInfo* file = nullptr;
    if (!Answered(key, [&] { file = ask(); }) || file == nullptr) return;
    Object(key, [&] {
      Member("uid", [&] { return file->GetOwnerId(); });
      Member("gid", [&] { return file->GetGroupId(); });
      Member("permission", [&] { return file->GetPermission(); });
      Member("owner", [&] { return file->GetOwnerName(); });
      Member("group", [&] { return file->GetGroupName(); });
    });
  }

  void WriteOperation() {
    if (event_.GetType() != EventType::Rename) return;
    Object("operation", [&] {
      Member("new", [&] { return Path(event_.GetNewFile()); });
      Member("old", [&] { return Path(event_.GetFile()); });
    });
  }

  void WriteSize() {
    if (event_.GetObjectType() != edr::ObjectType::File ||
        !IsOneOf(event_.GetType(), {EventType::Create, EventType::Read, EventType::Write, EventType::AttributeChange,
                                    EventType::Rename})) {
      return;
    }
    std::int64_t size = -1;
    if (!Answered("size", [&] { size = event_.GetFileSize(); }) || size == -1) return;
    Object("size", [&] { Member("new", [&] { return SizeText(size); }); });
  }

  void WriteHash(edr::DigestPace* pace) {
    // Only files have a digest.
    if (event_.GetObjectType() != edr::ObjectType::File ||
        !IsOneOf(event_.GetType(),
                 {EventType::Create, EventType::Delete, EventType::Write, EventType::Rename, EventType::Baseline})) {
      return;
    }
    if (pace != nullptr && !pace->Admits(PathOnDisk())) return;
    std::string digest;
    Answered("fileContentHash", [&] {
      digest = Digest(pace);
      if (!digest.empty()) ZLOG_DEBUG("PATH: " << Path(event_.GetFile()) << " SHA256: " << digest);
    });
    if (digest.empty()) return;
    Member("fileContentHash", [&] { return digest; });
  }

  // A baseline is of the file as it was looked at, and no event of audit stands behind it.
  std::string Digest(const edr::DigestPace* pace) const {
    if (event_.GetType() == EventType::Baseline && event_.GetFile() != nullptr) {
      return event_.GetFile()->GetDigest(pace != nullptr ? &pace->Cache() : nullptr);
    }
    return HexText(event_.GetFileContentHash(edr::ContentHash::Sha256));
  }

  std::string PathOnDisk() const {
    const common::ImageInfo* file = event_.GetType() == EventType::Rename ? event_.GetNewFile() : event_.GetFile();
    return file != nullptr ? file->GetPath() : "";
  }

  void WriteContent(const FileContent& content) {
    Member("fileContent", [&] { return Base64Text(content.bytes); });
    Member("contentStatus", [&] { return content.status; });
  }

  // Two names that are no text look the same once they are made one.
  void WritePathBytes() {
    const common::ImageInfo* file = nullptr;
    if (!Answered("imagePathBytes", [&] { file = event_.GetFile(); }) || file == nullptr) return;
    const std::string& path = file->GetPath();
    if (common::util::ReplaceInvalidUtf8(path) == path) return;
    Member("imagePathBytes", [&] { return Base64Text({path.begin(), path.end()}); });
  }

  // False, with a debug line, when the question has no answer.
  template <typename Ask>
  bool Answered(const char* key, Ask ask) {
    try {
      ask();
      return true;
    } catch (const std::exception& error) {
      ZLOG_DEBUG("Event document without '" << key << "': " << error.what());
      return false;
    }
  }

  template <typename Ask>
  void Member(const char* key, Ask ask) {
    // What is asked for may be a reference into the event: it is copied.
    std::optional<std::decay_t<decltype(ask())>> value;
    if (!Answered(key, [&] { value.emplace(ask()); })) return;
    writer_.Key(key);
    Value(*value);
  }

  template <typename Body>
  void Object(const char* key, Body body) {
    writer_.Key(key);
    writer_.StartObject();
    body();
    writer_.EndObject();
  }

  static std::string Path(const common::ImageInfo* image) {
    if (image == nullptr) throw edr::EventException("the event names no file");
    return image->GetPath();
  }

  void Value(const std::string& text) { writer_.String(common::util::ReplaceInvalidUtf8(text)); }
  void Value(const char* text) { writer_.String(text); }
  void Value(std::uint32_t number) { writer_.Uint(number); }
  void Value(std::int32_t number) { writer_.Int(number); }

  const edr::Event& event_;
  rapidjson::StringBuffer buffer_;
  rapidjson::Writer<rapidjson::StringBuffer> writer_;
};

}  // namespace

std::string BuildEventDocument(const edr::Event& event, const EventDocumentParts& parts) {
  return DocumentWriter(event).Write(parts);
}

}  // namespace zagent::fim::internal
