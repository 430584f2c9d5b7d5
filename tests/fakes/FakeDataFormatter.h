#pragma once

#include <functional>
#include <string>

#include "common/src/storage/DataFormatter.h"

namespace zagent::fakes {

inline common::Bytes ToBytes(const std::string& text) {
  return {text.begin(), text.end()};
}
inline std::string ToText(const common::Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

// Joins items as they are. Two items are special: kRefused is not taken, and with kUnserialisable among its items it
// cannot finish.
class FakeDataFormatter final : public common::DataFormatter {
 public:
  static constexpr const char* kRefused = "refused";
  static constexpr const char* kUnserialisable = "unserialisable";

  void Append(const common::Bytes& data) override {
    const std::string item = ToText(data);
    if (item == kRefused) throw common::DataFormatterException("FakeDataFormatter: refused");
    text_ += item;
  }
  common::Bytes Finish() override {
    if (text_.find(kUnserialisable) != std::string::npos) {
      throw common::DataFormatterException("FakeDataFormatter: unserialisable");
    }
    return ToBytes(text_);
  }
  [[nodiscard]] std::size_t Size() const override { return text_.size(); }
  void Clear() override { text_.clear(); }
  void OnStored() override {
    if (on_stored) on_stored();
  }

  std::function<void()> on_stored;

 private:
  std::string text_;
};

}  // namespace zagent::fakes
