#include "common/src/http/ProxySources.h"

#include <fcntl.h>
#include <proxy.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <thread>

#include "common/src/http/ProxyText.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "common/src/util/ThreadName.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::common {
namespace {

constexpr std::size_t kMaxFileSize = 65'536;

struct FactoryDeleter {
  void operator()(pxProxyFactory* factory) const { px_proxy_factory_free(factory); }
};
struct AnswerDeleter {
  void operator()(char** proxies) const { px_proxy_factory_free_proxies(proxies); }
};

// Empty for what cannot be read.
std::string ReadFile(const std::string& path) {
  const util::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd) {
    if (errno != ENOENT) ZLOG_WARNING("Failed to open the proxy file " << path << ": " << util::ErrnoText(errno));
    return "";
  }
  struct stat status {};
  if (fstat(fd.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    ZLOG_WARNING("The proxy file " << path << " is no regular file");
    return "";
  }
  std::string text(kMaxFileSize, '\0');
  std::size_t size = 0;
  ssize_t count = 0;
  while (size < text.size() && (count = read(fd.Get(), text.data() + size, text.size() - size)) > 0) {
    size += static_cast<std::size_t>(count);
  }
  if (count < 0) ZLOG_WARNING("Failed to read the proxy file " << path << ": " << util::ErrnoText(errno));
  text.resize(size);
  return text;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) {
    const std::size_t begin = part.find_first_not_of(" \t\r");
    if (begin == std::string::npos) continue;
    parts.push_back(part.substr(begin, part.find_last_not_of(" \t\r") - begin + 1));
  }
  return parts;
}

std::vector<std::string> AskSystem(const std::string& url) {
  std::vector<std::string> proxies;
  const std::unique_ptr<pxProxyFactory, FactoryDeleter> factory(px_proxy_factory_new());
  if (!factory) return proxies;
  const std::unique_ptr<char*, AnswerDeleter> answer(px_proxy_factory_get_proxies(factory.get(), url.c_str()));
  for (char** proxy = answer.get(); proxy != nullptr && *proxy != nullptr; ++proxy) {
    if (!IsDirectOrSocks(*proxy)) proxies.emplace_back(*proxy);
  }
  return proxies;
}

}  // namespace

ProxySource EnvironmentProxySource() {
  return [](const std::string&) {
    // The environment is set before there is a second thread. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char* value = std::getenv("ostrel_https_proxy");
    std::vector<std::string> proxies = Split(value == nullptr ? "" : value, ';');
    for (std::string& proxy : proxies) proxy = DecipherProxy(proxy);
    return proxies;
  };
}

ProxySource FileProxySource(std::string path) {
  return [path = std::move(path)](const std::string&) {
    std::vector<std::string> proxies;
    for (const std::string& line : Split(ReadFile(path), '\n')) {
      if (!line.starts_with('#')) proxies.push_back(DecipherProxy(line));
    }
    return proxies;
  };
}

ProxySource SystemProxySource() {
  return AskSystem;
}

ProxySources ProxySources::Default() {
  return {EnvironmentProxySource(), Bounded(SystemProxySource(), kSystemLimit), FileProxySource(kFile)};
}

namespace {

struct Question {
  explicit Question(ProxySource given) : source(std::move(given)) {}

  const ProxySource source;
  std::mutex mutex;
  std::condition_variable changed;
  bool asking = false;
};

struct Answer {
  std::vector<std::string> proxies;
  bool is_there = false;
};

void Ask(const std::shared_ptr<Question>& question, const std::shared_ptr<Answer>& answer, const std::string& url) {
  std::vector<std::string> proxies;
  try {
    proxies = question->source(url);
  } catch (...) {  // libproxy throws at a URL that it cannot read
    proxies.clear();
  }
  const std::lock_guard lock(question->mutex);
  answer->proxies = std::move(proxies);
  answer->is_there = true;
  question->asking = false;
  question->changed.notify_all();
}

}  // namespace

ProxySource Bounded(ProxySource source, std::chrono::nanoseconds limit, util::Clock& clock) {
  const auto question = std::make_shared<Question>(std::move(source));
  return [question, limit, &clock](const std::string& url) -> std::vector<std::string> {
    const auto end = clock.SteadyNow() + limit;
    const auto answer = std::make_shared<Answer>();
    std::unique_lock lock(question->mutex);
    // Somebody else's question may hang.
    if (!clock.WaitFor(question->changed, lock, limit, [&] { return !question->asking; })) {
      ZLOG_WARNING("The system's proxy settings do not answer, going on without them");
      return {};
    }
    try {
      std::thread([question, answer, url] {
        util::NameThisThread("edr-proxy");
        Ask(question, answer, url);
      }).detach();
    } catch (const std::system_error& error) {
      ZLOG_WARNING("Failed to ask for the system's proxy settings: " << error.what());
      return {};
    }
    question->asking = true;
    if (!clock.WaitFor(question->changed, lock, end - clock.SteadyNow(), [&] { return answer->is_there; })) {
      ZLOG_WARNING("The system's proxy settings do not answer, going on without them");
      return {};
    }
    return answer->proxies;
  };
}

}  // namespace zagent::common
