#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"

namespace zagent::common {

// Answers the proxies for a URL as texts in the order to try them. Called from any thread; never throws.
using ProxySource = std::function<std::vector<std::string>(const std::string& url)>;

// The variable `ostrel_https_proxy`: proxies with ';' between them, each in the clear or enciphered (DecipherProxy).
ProxySource EnvironmentProxySource();

// A file with one proxy a line, in the clear or enciphered; blank lines and lines that begin with '#' are left out.
// Read anew each time, its first 64 KiB. A file that is missing is an empty list; anything but a regular file is not
// read.
ProxySource FileProxySource(std::string path);

// What the system's settings say (libproxy), without "direct://" and SOCKS.
ProxySource SystemProxySource();

// A source that may block, asked on a thread of its own: who asks waits for at most `limit`, then gets an empty list
// and a warning. While the thread hangs nobody asks again, and it is left to itself when the source goes: what the
// question uses is kept alive by it.
ProxySource Bounded(ProxySource source, std::chrono::nanoseconds limit, util::Clock& clock = util::Clock::Real());

struct ProxySources {
  ProxySource environment;
  ProxySource system;
  ProxySource file;

  static constexpr const char* kFile = "/etc/ostrel/host-warden/proxy.conf";
  static constexpr std::chrono::seconds kSystemLimit{5};

  // The three above; the system is asked with a limit of 5 s.
  static ProxySources Default();
};

}  // namespace zagent::common
