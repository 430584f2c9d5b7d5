#include "src/fim/JsonCopy.h"

#include <cstdint>
#include <string_view>

#include "common/src/util/Json.h"
#include "common/src/util/Utf8.h"

namespace zagent::fim::internal {
namespace {

using rapidjson::SizeType;

constexpr std::size_t kMaxDepth = 64;
constexpr unsigned kFlags =
    rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;

// RapidJSON's output stream over a byte vector.
struct ByteStream {
  using Ch = char;
  void Put(char c) { bytes.push_back(static_cast<unsigned char>(c)); }
  void Flush() {}
  common::Bytes& bytes;
};

// An escaped half of a surrogate pair passes the reader, and is no UTF-8 once it is written: the writer looks too.
using Writer = rapidjson::Writer<ByteStream, rapidjson::UTF8<>, rapidjson::UTF8<>, rapidjson::CrtAllocator,
                                 rapidjson::kWriteValidateEncodingFlag>;
constexpr const char* kBadText = "The document holds a text that is not UTF-8.";

// Passes what the reader finds on to a writer. Answering false ends the reading.
class Copier {
 public:
  using Ch = char;

  Copier(common::Bytes& out, const JsonCopyOptions& options) : stream_{out}, writer_(stream_), options_(options) {}

  // Our own words for why the reading was ended.
  [[nodiscard]] const std::string& Refusal() const { return refusal_; }

  bool Null() { return Scalar() && (skipping_ || writer_.Null()); }
  bool Bool(bool value) { return Scalar() && (skipping_ || writer_.Bool(value)); }
  // Numbers keep their text; RapidJSON calls the others for none.
  bool RawNumber(const Ch* text, SizeType length, bool) {
    return Scalar() && (skipping_ || writer_.RawValue(text, length, rapidjson::kNumberType));
  }
  bool Int(int) { return false; }
  bool Uint(unsigned) { return false; }
  bool Int64(std::int64_t) { return false; }
  bool Uint64(std::uint64_t) { return false; }
  bool Double(double) { return false; }
  bool String(const Ch* text, SizeType length, bool copy) {
    return Scalar() && (skipping_ || writer_.String(text, length, copy) || Refuse(kBadText));
  }

  bool Key(const Ch* text, SizeType length, bool copy) {
    if (depth_ == 1) {
      key_.assign(text, length);
      skipping_ = options_.added_key != nullptr && key_ == options_.added_key;
    }
    return skipping_ || writer_.Key(text, length, copy) || Refuse(kBadText);
  }

  bool StartObject() { return Descend(false) && (skipping_ || writer_.StartObject()); }
  bool StartArray() { return Descend(true) && (skipping_ || writer_.StartArray()); }

  bool EndArray(SizeType) {
    --depth_;
    return skipping_ || writer_.EndArray();
  }

  bool EndObject(SizeType) {
    if (--depth_ != 0) return skipping_ || writer_.EndObject();
    skipping_ = false;
    if (options_.required_array != nullptr && !has_required_array_) {
      return Refuse(std::string("The document has no array '") + options_.required_array + "'.");
    }
    if (options_.added_key != nullptr) {
      writer_.Key(options_.added_key);
      writer_.String(options_.added_text);
    }
    return writer_.EndObject();
  }

 private:
  bool Scalar() { return depth_ > 0 || Refuse("The document is not an object."); }

  bool Descend(bool array) {
    if (depth_ == 0 && array) return Refuse("The document is not an object.");
    if (depth_ == kMaxDepth) return Refuse("The document is nested too deeply.");
    if (depth_ == 1 && array && options_.required_array != nullptr && key_ == options_.required_array) {
      has_required_array_ = true;
    }
    ++depth_;
    return true;
  }

  bool Refuse(const std::string& reason) {
    refusal_ = reason;
    return false;
  }

  ByteStream stream_;
  Writer writer_;
  const JsonCopyOptions& options_;
  std::size_t depth_ = 0;
  std::string key_;  // the last one of the top level
  bool skipping_ = false;
  bool has_required_array_ = false;
  std::string refusal_;
};

// RapidJSON takes the first NUL for the end of the text, and its own look at the encoding reads and writes beyond the
// end of a text that ends within a sequence.
void CheckBytes(std::string_view text) {
  for (std::size_t position = common::util::SkipAscii(text, 0); position < text.size();
       position = common::util::SkipAscii(text, position)) {
    const std::size_t start = position;
    const std::optional<char32_t> code_point = common::util::NextCodePoint(text, position);
    if (!code_point) throw JsonCopyException(kBadText, start);
    if (*code_point == 0) throw JsonCopyException("The document holds a NUL byte.", start);
  }
}

}  // namespace

void CopyJsonObject(common::Bytes text, common::Bytes& out, const JsonCopyOptions& options) {
  CheckBytes({reinterpret_cast<const char*>(text.data()), text.size()});
  text.push_back('\0');
  const std::size_t old_size = out.size();
  Copier copier(out, options);
  rapidjson::InsituStringStream stream(reinterpret_cast<char*>(text.data()));
  rapidjson::Reader reader;
  const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, copier);
  if (result.IsError()) {
    out.resize(old_size);
    throw JsonCopyException(copier.Refusal().empty() ? rapidjson::GetParseError_En(result.Code()) : copier.Refusal(),
                            result.Offset());
  }
}

}  // namespace zagent::fim::internal
