#include "common/src/util/Concealment.h"

#include "common/src/util/Base64.h"
#include "common/src/util/Cleanse.h"

namespace zagent::common::util {
namespace {

void Combine(std::string& text, unsigned char byte) {
  for (char& c : text) c = static_cast<char>(static_cast<unsigned char>(c) ^ byte);
}

}  // namespace

std::string Conceal(const std::string& text, unsigned char byte) {
  std::string combined = text;
  const ScopedCleanse cleanse(combined);
  Combine(combined, byte);
  try {
    return Base64Encode(combined);
  } catch (const Base64Exception& error) {
    throw XORException(std::string("Failed to conceal data: ") + error.what());
  }
}

std::string Reveal(const std::string& concealed, unsigned char byte) {
  try {
    std::string text = Base64Decode(concealed);
    Combine(text, byte);
    return text;
  } catch (const Base64Exception& error) {
    throw XORException(std::string("Failed to reveal data: ") + error.what());
  }
}

}  // namespace zagent::common::util
