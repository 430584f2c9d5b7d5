#pragma once

#include <string>

namespace zagent::common::util {

// The scheme of an absolute URL ("https" of "HTTPS://host/path"), in lower case; empty for any other text.
std::string UrlScheme(const std::string& url);

// True for an absolute URL to which nothing is ever uploaded: any scheme but http and https.
bool HasForeignScheme(const std::string& url);

}  // namespace zagent::common::util
