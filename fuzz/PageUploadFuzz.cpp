// Feeds bytes to the receiver's page as an upload to each kind of path: what it makes of them must be JSON of bounded
// texts, which a browser can read whatever they were.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/src/util/Json.h"
#include "common/src/util/Utf8.h"
#include "tests/fakes/FakeClock.h"
#include "tools/reference-receiver/PageFeed.h"

namespace {

using zagent::tools::PageFeed;
using zagent::tools::PageUpload;

constexpr std::size_t kMaxObject = 1UL << 20U;  // of an event: some bounded texts, each byte six characters at most

void Expect(bool holds) {
  if (!holds) std::abort();
}

bool IsUtf8(const std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    if (!zagent::common::util::NextCodePoint(text, i)) return false;
  }
  return true;
}

rapidjson::Document Parsed(const std::string& json) {
  Expect(IsUtf8(json));
  rapidjson::Document document;
  zagent::common::util::ParseJson(document, json);
  Expect(!document.HasParseError());
  return document;
}

void ExpectObject(const std::string& json) {
  Expect(json.size() <= kMaxObject && json.find('\n') == std::string::npos);
  Expect(Parsed(json).IsObject());
}

void Show(const std::string& target, const std::string& payload) {
  const PageUpload upload = PageUpload::Read(target, payload);
  for (const PageUpload::Event& event : upload.events) ExpectObject(event.json);
  for (const std::string& row : upload.health) ExpectObject(row);

  const zagent::fakes::FakeClock clock;
  PageFeed feed(clock);
  feed.OnUpload("agent", target, payload);
  feed.OnUpload("agent", target, payload);
  const PageFeed::Portion portion = feed.EventsFrom(1, kMaxObject);
  Expect(portion.is_empty == upload.events.empty());
  const rapidjson::Document events = Parsed(portion.json);
  Expect(events.IsArray() && events.Size() == portion.next - 1);
  Expect(Parsed(feed.Health()).IsArray());
  ExpectObject(feed.Books());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string payload(reinterpret_cast<const char*>(data), size);
  for (const char* target : {"/v1/fim", "/v1/status", "/linuxagentevent/v1/customer/c/agent/a"}) Show(target, payload);
  return 0;
}
