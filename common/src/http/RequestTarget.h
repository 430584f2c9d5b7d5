#pragma once

#include <stdexcept>
#include <string>

namespace zagent::common {

class InvalidUrlException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// An absolute URL in the form in which it goes over the wire, so that what is signed is what is sent: the bytes of path
// and query as they were configured ("%2F", "//" and ".." stay), but for blanks, control and non-ASCII bytes, which are
// percent-encoded; "/" for an empty path, no empty query (libcurl drops its "?" towards a proxy), no fragment. Done
// twice it changes nothing more. Throws InvalidUrlException "Invalid URL: <url>" without a scheme or a host, and for a
// port that is none.
std::string UrlAsSent(const std::string& url);

// Path and query of UrlAsSent: the target of the request line.
std::string RequestTarget(const std::string& url);

}  // namespace zagent::common
