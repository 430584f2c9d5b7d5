#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zagent::ioc::internal {

// Lists in one text of a database: the items stand between ":", with "%", ":", "=" and NUL as "%" and two hexadecimal
// digits. An empty text is the empty list, and "%00" alone an empty item: an item of one NUL and nothing else, which no
// argument and no tag is, comes back as that.
//
//   {"a:b", "", "50%"}  ->  "a%3Ab:%00:50%25"
[[nodiscard]] std::string EncodeItem(std::string_view item);
// What is not encoded well stays as it is.
[[nodiscard]] std::string DecodeItem(std::string_view text);

[[nodiscard]] std::string JoinList(const std::vector<std::string>& items);
[[nodiscard]] std::vector<std::string> ReadList(std::string_view text);

// The items as they stand in the text.
[[nodiscard]] std::vector<std::string_view> SplitList(std::string_view text);

}  // namespace zagent::ioc::internal
