#include "tools/reference-receiver/PageUpload.h"

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>
#include <tuple>

#include "common/src/util/Clock.h"
#include "common/src/util/Json.h"
#include "common/src/util/Utf8.h"
#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tools/reference-receiver/IocBatch.h"

namespace zagent::tools {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;
using common::util::FindMember;

constexpr std::size_t kMaxText = 4096;      // bytes of a name, of a command line
constexpr std::size_t kMaxContent = 8192;   // characters of base64
constexpr std::size_t kMaxArguments = 256;  // of an ancestor
constexpr std::size_t kMaxId = 128;         // of a process; the daemon's have 64
constexpr std::size_t kMaxRules = 32;
constexpr std::size_t kMaxFields = 32;

// At most so many bytes of UTF-8, without a character cut in two.
std::string Cut(const std::string& text, std::size_t max_size) {
  if (text.size() <= max_size) return common::util::ReplaceInvalidUtf8(text);
  std::size_t end = max_size;
  while (end > 0 && max_size - end < 4 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80) --end;
  return common::util::ReplaceInvalidUtf8(text.substr(0, end));
}

// Writes one JSON object, member by member; empty texts are left out.
class ObjectWriter {
 public:
  ObjectWriter() { writer_.StartObject(); }

  void Text(const char* name, const std::string& text, std::size_t max_size = kMaxText) {
    if (text.empty()) return;
    writer_.Key(name);
    Write(text, max_size);
  }
  // A text of the document; a number as its digits.
  void Text(const char* name, const rapidjson::Value* value, std::size_t max_size = kMaxText) {
    if (value == nullptr) return;
    if (value->IsString()) Text(name, common::util::ToString(*value), max_size);
    if (value->IsNumber() || value->IsBool()) Text(name, common::util::WriteJson(*value), max_size);
  }
  void Number(const char* name, std::int64_t number) {
    writer_.Key(name);
    writer_.Int64(number);
  }
  void Flag(const char* name) {
    writer_.Key(name);
    writer_.Bool(true);
  }
  void Begin(const char* name) {
    writer_.Key(name);
    writer_.StartObject();
  }
  void End() { writer_.EndObject(); }
  void Texts(const char* name, const rapidjson::Value* values) {
    if (values == nullptr || !values->IsArray()) return;
    writer_.Key(name);
    writer_.StartArray();
    rapidjson::SizeType count = 0;
    for (const rapidjson::Value& value : values->GetArray()) {
      if (++count > kMaxRules) {
        cut_ = true;
        break;
      }
      if (value.IsString()) Write(common::util::ToString(value), kMaxText);
    }
    writer_.EndArray();
  }

  [[nodiscard]] std::string Take() {
    if (cut_) Flag("cut");
    writer_.EndObject();
    return {buffer_.GetString(), buffer_.GetSize()};
  }

 private:
  void Write(const std::string& text, std::size_t max_size) {
    if (text.size() > max_size) cut_ = true;
    const std::string shown = Cut(text, max_size);
    writer_.String(shown.data(), static_cast<rapidjson::SizeType>(shown.size()));
  }

  rapidjson::StringBuffer buffer_;
  rapidjson::Writer<rapidjson::StringBuffer> writer_{buffer_};
  bool cut_ = false;
};

// ---- file integrity monitoring

void WriteSettings(ObjectWriter& out, const char* name, const rapidjson::Value* settings) {
  if (settings == nullptr) return;
  out.Begin(name);
  for (const char* member : {"owner", "uid", "group", "gid", "permission"}) {
    out.Text(member, FindMember(*settings, member));
  }
  out.End();
}

PageUpload::Event FimEvent(const rapidjson::Value& event) {
  static const rapidjson::Value kNone;
  const auto part = [&event](const char* name) -> const rapidjson::Value& {
    const rapidjson::Value* found = FindMember(event, name);
    return found == nullptr ? kNone : *found;
  };
  ObjectWriter out;
  out.Text("kind", "fim");
  out.Text("time", FindMember(event, "timestamp"));
  out.Text("action", FindMember(event, "eventAction"));
  out.Text("what", FindMember(event, "eventType"));
  out.Text("path", FindMember(event, "imagePath"));
  out.Text("to", FindMember(part("operation"), "new"));
  const rapidjson::Value& actor = part("actor");
  out.Begin("actor");
  out.Text("path", FindMember(actor, "imagePath"));
  out.Text("pid", FindMember(actor, "processID"));
  out.Text("user", FindMember(actor, "userName"));
  out.Text("auditUser", FindMember(actor, "auditUserName"));
  out.Text("title", FindMember(actor, "procTitle"));
  out.End();
  out.Text("success", FindMember(event, "successStatus"));
  out.Text("eventId", FindMember(event, "eventId"));
  out.Texts("rules", FindMember(event, "associatedRules"));
  out.Text("size", FindMember(part("size"), "new"));
  out.Text("sha256", FindMember(event, "fileContentHash"));
  out.Text("content", FindMember(event, "fileContent"), kMaxContent);
  out.Text("contentStatus", FindMember(event, "contentStatus"));
  out.Text("pathBytes", FindMember(event, "imagePathBytes"));
  WriteSettings(out, "before", FindMember(part("securitySettings"), "old"));
  WriteSettings(out, "after", FindMember(part("securitySettings"), "new"));
  return {out.Take(), "", 0, "", "", std::nullopt};
}

// ---- health

bool TellsOfLosses(const rapidjson::Value& row) {
  const rapidjson::Value* code = FindMember(row, "statusCode");
  return code != nullptr && code->IsInt() && (code->GetInt() == 4004 || code->GetInt() == 4104);
}

std::string HealthRow(const rapidjson::Value& row, std::map<std::string, std::uint64_t>& lost) {
  const bool tells_of_losses = TellsOfLosses(row);
  ObjectWriter out;
  out.Text("time", FindMember(row, "dateTime"));
  out.Text("context", FindMember(row, "contextId"));
  out.Text("code", FindMember(row, "statusCode"));
  out.Text("state", FindMember(row, "state"));
  const rapidjson::Value* fields = FindMember(row, "additionalFields");
  if (fields != nullptr && fields->IsObject()) {
    out.Begin("fields");
    std::size_t count = 0;
    for (const auto& field : fields->GetObject()) {
      if (++count > kMaxFields) break;
      const std::string name = Cut(common::util::ToString(field.name), 64);
      out.Text(name.c_str(), &field.value, 512);
      if (tells_of_losses && field.value.IsUint64() && field.value.GetUint64() > 0) {
        std::uint64_t& sum = lost[name];
        const std::uint64_t room = std::numeric_limits<std::uint64_t>::max() - sum;
        sum += std::min(room, field.value.GetUint64());
      }
    }
    out.End();
  }
  return out.Take();
}

PageUpload ReadDocument(const std::string& payload) {
  PageUpload upload;
  rapidjson::Document json;
  common::util::ParseJson(json, payload);
  if (json.HasParseError()) return upload;
  if (const rapidjson::Value* events = FindMember(json, "events"); events != nullptr && events->IsArray()) {
    upload.kind = PageUpload::Kind::Fim;
    for (const rapidjson::Value& event : events->GetArray()) upload.events.push_back(FimEvent(event));
  }
  if (const rapidjson::Value* rows = FindMember(json, "status"); rows != nullptr && rows->IsArray()) {
    if (upload.kind == PageUpload::Kind::Other) upload.kind = PageUpload::Kind::Health;
    for (const rapidjson::Value& row : rows->GetArray()) upload.health.push_back(HealthRow(row, upload.lost));
  }
  return upload;
}

// ---- indicators of compromise

// An event with what decides about its place: the messages have the events by kind.
struct Placed {
  std::int64_t timestamp;
  int rank;  // within a second: a start comes first, an end last
  PageUpload::Event event;
};

void WriteActor(ObjectWriter& out, const wire::Actor& actor) {
  out.Begin("actor");
  if (actor.processid() != 0 || !actor.imagepath().empty()) {
    out.Text("path", actor.imagepath());
    out.Text("pid", std::to_string(actor.processid()));
    out.Text("user", actor.username());
  }
  out.End();
}

template <typename Message>
void Begin(ObjectWriter& out, const Message& message, const char* what, const std::string& path) {
  const std::string& name = wire::EventAction_Name(message.eventaction());
  out.Text("kind", "ioc");
  out.Text("time", common::util::FormatUtc(message.timestamp()));
  out.Text("action", name.empty() ? std::to_string(message.eventaction()) : name);
  out.Text("what", what);
  out.Text("path", path);
  WriteActor(out, message.actor());
}

// An id that is too long to be kept is none: its process is known by its pid.
std::string IdOf(const std::string& id) {
  return id.size() > kMaxId ? "" : id;
}

template <typename Message>
Placed End(const Message& message, ObjectWriter& out, int rank) {
  const wire::Actor& actor = message.actor();
  return {message.timestamp(),
          rank,
          {out.Take(), IdOf(actor.uniqueprocessid()), actor.processid(), Cut(actor.imagepath(), kMaxText),
           Cut(actor.username(), kMaxArguments), std::nullopt}};
}

Placed IocEvent(const wire::DirectoryEvent& event) {
  ObjectWriter out;
  Begin(out, event, "Directory", event.path());
  out.Text("settings", event.securitysettings());
  return End(event, out, 1);
}

Placed IocEvent(const wire::FileEvent& event) {
  const bool is_rename = !event.oldpath().empty();
  ObjectWriter out;
  Begin(out, event, "File", is_rename ? event.oldpath() : event.fullpath());
  if (is_rename) out.Text("to", event.fullpath());
  out.Text("settings", event.securitysettings());
  if (event.eventaction() != wire::DELETE) out.Text("size", std::to_string(event.size()));
  out.Text("type", event.type());
  out.Text("sha256", event.sha256());
  return End(event, out, 1);
}

Placed IocEvent(const wire::NetworkEvent& event) {
  const bool is_local = event.remoteaddress().empty();
  const std::string& address = is_local ? event.localaddress() : event.remoteaddress();
  const bool is_ipv6 = address.find(':') != std::string::npos;
  const std::string port = std::to_string(is_local ? event.localport() : event.remoteport());
  ObjectWriter out;
  Begin(out, event, "Network", (is_ipv6 ? "[" + address + "]" : address) + ":" + port);
  return End(event, out, 1);
}

Placed IocEvent(const wire::ProcessEvent& event) {
  ObjectWriter out;
  Begin(out, event, "Process", event.imagepath());
  out.Text("pid", std::to_string(event.processid()));
  out.Text("user", event.username());
  out.Text("arguments", event.arguments());
  out.Text("folder", event.currentdirectory());
  out.Text("status", event.status());
  if (event.elevated()) out.Flag("elevated");
  out.Text("settings", event.securitysettings());
  const bool is_start = event.eventaction() == wire::RUNNING;
  Placed placed = End(event, out, is_start ? 0 : 2);
  // An end may have lost its parent by now; its pid is still told.
  if (placed.event.actor_pid == 0) placed.event.actor_pid = event.parentprocessid();
  if (is_start) {
    placed.event.start = {IdOf(event.uniqueid()),
                          IdOf(event.actor().uniqueprocessid()),
                          event.processid(),
                          event.parentprocessid(),
                          Cut(event.imagepath(), kMaxText),
                          Cut(event.username(), kMaxArguments),
                          Cut(event.arguments(), kMaxArguments)};
  }
  return placed;
}

Placed IocEvent(const wire::LoadedModule& event) {
  ObjectWriter out;
  Begin(out, event, "Module", event.modulename());
  return End(event, out, 1);
}

template <typename Events>
void AddAll(const Events& events, std::vector<Placed>& placed) {
  for (const auto& event : events) placed.push_back(IocEvent(event));
}

PageUpload ReadBatch(const std::string& payload) {
  PageUpload upload;
  wire::IoCEvent message;
  if (payload.size() > std::numeric_limits<int>::max() || !message.ParseFromString(payload)) return upload;
  upload.kind = PageUpload::Kind::Ioc;
  upload.host = Cut(message.agent().computername(), kMaxArguments);
  upload.sequence_number = message.sequenceno();
  std::vector<Placed> placed;
  AddAll(message.directoryevent(), placed);
  AddAll(message.fileevent(), placed);
  AddAll(message.networkevent(), placed);
  AddAll(message.processevent(), placed);
  AddAll(message.loadedmodule(), placed);
  std::stable_sort(placed.begin(), placed.end(), [](const Placed& a, const Placed& b) {
    return std::tie(a.timestamp, a.rank) < std::tie(b.timestamp, b.rank);
  });
  upload.events.reserve(placed.size());
  for (Placed& one : placed) upload.events.push_back(std::move(one.event));
  return upload;
}

}  // namespace

PageUpload PageUpload::Read(const std::string& target, const std::string& payload) {
  return IsIocTarget(target) ? ReadBatch(payload) : ReadDocument(payload);
}

}  // namespace zagent::tools
