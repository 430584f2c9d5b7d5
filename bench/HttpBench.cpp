// What the HTTP client costs beside libcurl itself: uploads over loopback TLS through HttpUploader, against a plain
// loop over one easy handle that compresses, signs and sends the same; and what an idle service does.
//
//   http_bench
#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/src/http/CurlHandles.h"
#include "common/src/http/HttpProxyManager.h"
#include "common/src/http/HttpService.h"
#include "common/src/http/HttpUploader.h"
#include "common/src/http/interceptors/AuthHttpInterceptor.h"
#include "common/src/http/interceptors/LzmaCompression.h"
#include "tools/reference-receiver/ReferenceReceiver.h"

namespace {

using namespace zagent;
using SteadyClock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

constexpr std::size_t kPayloadSize = 100 * 1024;
constexpr int kRuns = 5;
constexpr int kUploadsPerRun = 200;  // in turns, so that whatever else the machine does meets both
constexpr auto kIdleTime = std::chrono::seconds(10);
constexpr const char* kCustomer = "7a3c1f0e-1111-4222-8333-444455556666";
constexpr const char* kAgent = "0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff";
constexpr const char* kActivation = "c0ffee00-1234-4567-89ab-cdef01234567";

// Events as a spool file holds them.
Bytes MakePayload() {
  std::string text = R"({"events":[)";
  for (unsigned i = 0; text.size() < kPayloadSize; ++i) {
    text += R"({"eventAction":"Write","eventId":)" + std::to_string(i * 7919U) + R"(,"imagePath":"/srv/data/)" +
            std::to_string(i * 2654435761U) + R"(","actor":{"imagePath":"/usr/bin/rsync","processID":)" +
            std::to_string(i % 32768) + R"(,"userName":"root"}},)";
  }
  text.resize(kPayloadSize);
  return {text.begin(), text.end()};
}

std::size_t Discard(char*, std::size_t size, std::size_t count, void*) {
  return size * count;
}

// The least that sends the same.
class PlainLoop {
 public:
  PlainLoop(std::string url, const std::string& ca_file, std::shared_ptr<const common::HmacConfig> keys)
      : url_(std::move(url)),
        signer_(std::move(keys), common::AuthTag::Tag4, common::AuthTag::None),
        easy_(curl_easy_init()) {
    curl_easy_setopt(easy_.get(), CURLOPT_URL, url_.c_str());
    curl_easy_setopt(easy_.get(), CURLOPT_CAINFO, ca_file.c_str());
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEFUNCTION, Discard);
    curl_easy_setopt(easy_.get(), CURLOPT_SSL_ENABLE_ALPN, 0L);
    curl_easy_setopt(easy_.get(), CURLOPT_NOSIGNAL, 1L);
  }

  void Upload(const Bytes& payload) {
    Bytes body = common::LzmaCompression().Compress(payload);
    common::HttpHeaders headers{{"Content-Type", "application/json"}, {"Content-Encoding", "LZMA"}};
    std::string url = url_;
    signer_.ProcessRequest(url, body, headers, "POST");
    curl_slist* lines = nullptr;
    for (const auto& [name, value] : headers) lines = curl_slist_append(lines, (name + ": " + value).c_str());
    const common::HeaderList list(lines);
    curl_easy_setopt(easy_.get(), CURLOPT_HTTPHEADER, list.get());
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDS, reinterpret_cast<const char*>(body.data()));
    long code = 0;
    if (curl_easy_perform(easy_.get()) != CURLE_OK ||
        curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &code) != CURLE_OK || code != 200) {
      throw std::runtime_error("the plain loop failed with code " + std::to_string(code));
    }
  }

 private:
  const std::string url_;
  common::AuthHttpInterceptor signer_;
  common::EasyHandle easy_;
};

template <typename Upload>
double SecondsFor(Upload&& upload) {
  const auto begin = SteadyClock::now();
  for (int i = 0; i < kUploadsPerRun; ++i) upload();
  return std::chrono::duration<double>(SteadyClock::now() - begin).count();
}

std::set<std::string> Threads() {
  std::set<std::string> threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) threads.insert(entry.path());
  return threads;
}

// How often the thread has gone to sleep: an idle one does so once.
long SleepsOf(const std::string& thread) {
  std::ifstream status(thread + "/status");
  std::string line;
  constexpr std::string_view kKey = "voluntary_ctxt_switches:";
  while (std::getline(status, line)) {
    if (line.starts_with(kKey)) return std::stol(line.substr(kKey.size()));
  }
  throw std::runtime_error("no context switches in " + thread);
}

std::unique_ptr<common::HttpUploader> MakeUploader(common::HttpService& service, const std::string& url,
                                                   std::shared_ptr<const common::HmacConfig> keys) {
  common::HttpUploader::Settings settings;
  settings.url = url;
  settings.customer_id = kCustomer;
  settings.agent_id = kAgent;
  settings.connection_timeout = 10;
  settings.request_timeout = 60;
  return std::make_unique<common::HttpUploader>(service, std::move(keys), std::move(settings));
}

void Run(const std::string& folder) {
  tools::ReceiverOptions options;
  options.customer_id = kCustomer;
  options.agent_id = kAgent;
  options.activation_id = kActivation;
  options.ca_file = folder + "/ca.pem";
  const tools::ReferenceReceiver receiver(options);
  const std::string url = receiver.GetUrl() + "/fim";
  const auto keys =
      std::make_shared<common::HmacConfig>(kCustomer, kAgent, kActivation, false, common::HmacVersion::HmacV2);

  const std::set<std::string> others = Threads();
  // Proxies are asked for as the daemon does, the system's settings included.
  common::HttpService service(receiver.GetCaFile(), std::make_unique<common::HttpProxyManager>(0, false));
  service.Start();
  std::string worker;
  for (const std::string& thread : Threads()) {
    if (!others.contains(thread)) worker = thread;
  }
  const auto uploader = MakeUploader(service, url, keys);
  PlainLoop plain(url, receiver.GetCaFile(), keys);
  const Bytes payload = MakePayload();
  const auto upload = [&] {
    if (uploader->Upload("application/json", payload) != 0) throw std::runtime_error("an upload failed");
  };
  const auto upload_plainly = [&] { plain.Upload(payload); };
  upload();  // both have their connection now
  upload_plainly();

  double with_client = 0;
  double with_loop = 0;
  for (int run = 0; run < kRuns; ++run) {
    with_client += SecondsFor(upload);
    with_loop += SecondsFor(upload_plainly);
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the last upload's own way to rest does not count
  const long sleeps = SleepsOf(worker);
  std::this_thread::sleep_for(kIdleTime);
  const long wakeups = SleepsOf(worker) - sleeps;

  constexpr int kUploads = kRuns * kUploadsPerRun;
  std::printf("%d uploads of %zu KiB over TLS\n", kUploads, kPayloadSize / 1024);
  std::printf("  HttpUploader   %8.2f ms each\n", 1000 * with_client / kUploads);
  std::printf("  plain loop     %8.2f ms each\n", 1000 * with_loop / kUploads);
  std::printf("wake-ups of the idle service in %lld s: %ld\n", static_cast<long long>(kIdleTime.count()), wakeups);
  std::printf("http_over_plain=%.3f idle_wakeups=%ld\n", with_client / with_loop, wakeups);
}

}  // namespace

int main() {
  std::string folder = (std::filesystem::temp_directory_path() / "ostrel-bench-XXXXXX").string();
  try {
    if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("mkdtemp");
    Run(folder);
    std::filesystem::remove_all(folder);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "http_bench: %s\n", error.what());
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return 1;
  }
}
