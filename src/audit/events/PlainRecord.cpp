#include "src/audit/events/PlainRecord.h"

#include <emmintrin.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

namespace zagent::audit::internal {
namespace {

using edr::RecordField;
using edr::SetOf;

constexpr std::string_view kNull = "(null)";

bool IsLetterOrDigit(char character) {
  return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'z') ||
         (character >= 'A' && character <= 'Z');
}

// Whether a word's value may reach beyond the word: the quote that it begins with is not closed at its end, and only
// there.
bool IsOpen(std::string_view value) {
  if (value.empty() || value.front() == '\'' || value.front() == '{') return true;
  return value.front() == '"' && (value.size() < 3 || value.find('"', 1) != value.size() - 1);
}

constexpr std::uint8_t kNoDigit = 0xff;

// What the kernel's digits of hexadecimal numbers stand for.
constexpr std::array<std::uint8_t, 256> MakeDigits() {
  std::array<std::uint8_t, 256> digits{};
  for (std::uint8_t& digit : digits) digit = kNoDigit;
  for (std::size_t value = 0; value < 10; ++value) digits['0' + value] = static_cast<std::uint8_t>(value);
  for (std::size_t value = 10; value < 16; ++value) digits['A' + value - 10] = static_cast<std::uint8_t>(value);
  return digits;
}
constexpr std::array<std::uint8_t, 256> kDigits = MakeDigits();

std::uint8_t DigitOf(char character) {
  return kDigits[static_cast<unsigned char>(character)];
}

// The text that the kernel wrote in hexadecimal, for a blank, a quote or a sign that cannot be printed is in it. The
// words of a command line are separated by NULs there, and by blanks here; no other text has one.
std::optional<std::string_view> Decode(std::string_view value, bool is_command_line, ValueStore& values) {
  constexpr std::string_view kAbstract = "00";  // of a socket's name
  if (value.size() % 2 != 0 || (value.starts_with(kAbstract) && !is_command_line)) return std::nullopt;
  char* const text = values.Allocate(value.size() / 2);
  for (std::size_t at = 0; at < value.size(); at += 2) {
    const std::uint8_t high = DigitOf(value[at]);
    const std::uint8_t low = DigitOf(value[at + 1]);
    if (high == kNoDigit || low == kNoDigit) return std::nullopt;
    const auto byte = static_cast<char>(high << 4 | low);
    if (byte == '\0' && !is_command_line) return std::nullopt;
    text[at / 2] = byte != '\0' ? byte : ' ';
  }
  return std::string_view(text, value.size() / 2);
}

std::optional<std::string_view> PlainValue(RecordField field, std::string_view value, bool decoded,
                                           ValueStore& values) {
  if (value.front() == '"') return decoded ? value.substr(1, value.size() - 2) : value;
  if (value == kNull) {
    // A file may really be called "(null)", which the kernel then quotes.
    if (field == RecordField::Name) return std::string_view("");
    if (!decoded || field == RecordField::Proctitle) return value;
  }
  if (decoded) {
    // An address is more than a text.
    if (field == RecordField::Saddr) return std::nullopt;
    return Decode(value, field == RecordField::Proctitle, values);
  }
  // A key in hexadecimal may be several.
  if (field == RecordField::Key || !IsLetterOrDigit(value.back())) return std::nullopt;
  return value;
}

// One word of a record, "name=value".
struct Word {
  std::string_view name;
  edr::FieldNameKey key;
  std::string_view value;
};

// Sixteen bytes of text at once; beyond the text's end there are blanks.
class Block {
 public:
  static constexpr unsigned kSize = 16;

  Block(const char* at, const char* end) {
    const auto left = static_cast<std::size_t>(end - at);
    if (left >= kSize) {
      bytes_ = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    } else {
      char padded[kSize];
      std::memset(padded, ' ', kSize);
      std::memcpy(padded, at, left);
      bytes_ = _mm_loadu_si128(reinterpret_cast<const __m128i*>(padded));
    }
  }
  // Where the byte stands; kSize when it does not.
  [[nodiscard]] unsigned Find(char byte) const {
    const int equal = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes_, _mm_set1_epi8(byte)));
    return static_cast<unsigned>(std::countr_zero(static_cast<unsigned>(equal) | 1U << kSize));
  }
  // The first eight bytes or fewer, the first one lowest.
  [[nodiscard]] std::uint64_t First(unsigned count) const {
    const auto bytes = static_cast<std::uint64_t>(_mm_cvtsi128_si64(bytes_));
    return count < sizeof(bytes) ? bytes & ((std::uint64_t{1} << (8 * count)) - 1) : bytes;
  }

 private:
  __m128i bytes_;
};

// The blank that ends a word, or the text's end.
const char* EndOfWord(const char* at, const char* end) {
  while (at < end) {
    const unsigned blank = Block(at, end).Find(' ');
    if (blank < Block::kSize) return at + blank;
    at += Block::kSize;
  }
  return end;
}

// Takes the next word from the front of the text, which is not empty; false for one that has no value. No name that
// anybody reads is longer than a block.
bool TakeWord(std::string_view& text, Word& word) {
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  const Block block(begin, end);
  const unsigned blank = block.Find(' ');
  const char* const word_end = blank < Block::kSize ? begin + blank : EndOfWord(begin + Block::kSize, end);
  const unsigned length = block.Find('=');
  if (length >= blank) return false;
  word.name = {begin, length};
  word.key = {block.First(length), length};
  word.value = {begin + length + 1, word_end};
  text = {word_end == end ? end : word_end + 1, end};
  return true;
}

bool IsArgument(std::string_view name) {
  return name.size() > 1 && name[0] == 'a' && name[1] >= '0' && name[1] <= '9';
}

enum class Outcome { NotPlain, Passed, Set };

Outcome ReadArgument(const Word& word, bool decoded, ValueStore& values, edr::RecordFields& fields) {
  const std::optional<std::size_t> index = edr::ArgumentNamed(word.name);
  if (!index) return Outcome::NotPlain;
  const bool is_quoted = word.value.front() == '"';
  if (!decoded && !IsLetterOrDigit(word.value.back())) return Outcome::NotPlain;
  const auto value = !decoded    ? std::optional(word.value)
                     : is_quoted ? std::optional(word.value.substr(1, word.value.size() - 2))
                                 : Decode(word.value, false, values);
  if (!value) return Outcome::NotPlain;
  fields.SetArgument(*index, *value);
  return Outcome::Set;
}

Outcome ReadWord(const Word& word, const RecordRendering& rendering, ValueStore& values, edr::RecordFields& fields) {
  if (IsOpen(word.value)) return Outcome::NotPlain;
  if (rendering.arguments && IsArgument(word.name)) {
    return ReadArgument(word, DecodesArguments(rendering), values, fields);
  }
  const std::optional<RecordField> field = edr::FieldNames::Find(word.name, word.key);
  if (!field || (rendering.wanted & SetOf(*field)) == 0) {
    // auparse passes over signs before a name, which may then be another.
    return !word.name.empty() && IsLetterOrDigit(word.name.front()) ? Outcome::Passed : Outcome::NotPlain;
  }
  const auto plain = PlainValue(*field, word.value, (rendering.decoded & SetOf(*field)) != 0, values);
  if (!plain) return Outcome::NotPlain;
  fields.Set(*field, *plain);
  return Outcome::Set;
}

}  // namespace

bool ReadPlainRecord(std::string_view text, const RecordRendering& rendering, ValueStore& values,
                     edr::RecordFields& fields) {
  Word word;
  while (!text.empty()) {
    if (!TakeWord(text, word)) return false;
    const Outcome outcome = ReadWord(word, rendering, values, fields);
    if (outcome == Outcome::NotPlain) return false;
    if (outcome == Outcome::Set && IsComplete(rendering, fields.Present())) return true;
  }
  return true;
}

}  // namespace zagent::audit::internal
