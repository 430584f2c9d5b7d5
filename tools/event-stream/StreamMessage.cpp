#include "tools/event-stream/StreamMessage.h"

#include <algorithm>

namespace zagent::tools {

bool IsSubjectWord(const std::string& text) {
  return !text.empty() && text.size() <= 64 && std::all_of(text.begin(), text.end(), [](char c) {
    return c > ' ' && c <= '~' && c != '.' && c != '*' && c != '>';
  });
}

}  // namespace zagent::tools
