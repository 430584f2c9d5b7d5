#include "tools/agent-swarm/Swarm.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#include "common/src/http/HttpService.h"
#include "common/src/http/HttpUploader.h"
#include "tools/agent-swarm/PreparedDocuments.h"
#include "tools/agent-swarm/SpoolDocument.h"
#include "tools/event-stream/StreamMessage.h"
#include "tools/event-stream/StreamReader.h"

namespace zagent::tools {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kBeforeNextTry{500};
constexpr int kReadAtOnce = 500;
constexpr milliseconds kReadPatience{1'000};
constexpr std::chrono::seconds kEnginePatience{30};
constexpr int kSilentReads = 3;

// The agents of one sender, and what became of their uploads.
class Sender {
 public:
  Sender(const SwarmOptions& options, common::HttpService& service, std::shared_ptr<const PreparedDocuments> prepared,
         unsigned number)
      : options_(options), prepared_(std::move(prepared)), random_(std::random_device{}()), number_(number) {
    for (std::size_t i = number; i < options.agents.size(); i += options.senders) {
      const SwarmAgent& agent = options.agents[i];
      common::HttpUploader::Settings settings;
      settings.url = options.url + "/v1/fim";
      settings.customer_id = agent.customer_id;
      settings.agent_id = agent.agent_id;
      settings.agent_version = "1.0.0";
      settings.connection_timeout = 10;
      settings.request_timeout = 60;
      settings.max_attempts = options.further_attempts;
      settings.compression = prepared_;
      const auto version = i % 2 == 1 ? common::HmacVersion::HmacV1 : common::HmacVersion::HmacV2;
      auto keys = std::make_shared<const common::HmacConfig>(agent.customer_id, agent.agent_id, agent.activation_id,
                                                             false, version);
      agents_.push_back({agent.agent_id, std::make_unique<common::HttpUploader>(service, std::move(keys), settings)});
    }
  }

  void Run(steady_clock::time_point start) {
    if (agents_.empty()) return;
    const auto end = start + options_.duration;
    for (std::size_t turn = 0; steady_clock::now() < end; ++turn) {
      if (!AwaitTurn(start, end, turn)) break;
      Send(agents_[turn % agents_.size()], start, end + options_.patience);
    }
    ended = steady_clock::now();
  }

  std::vector<SwarmUpload> uploads;
  unsigned refused_repeats = 0;
  steady_clock::time_point ended;

 private:
  struct Agent {
    std::string id;
    std::unique_ptr<common::HttpUploader> uploader;
  };

  // False when the end comes first.
  [[nodiscard]] bool AwaitTurn(steady_clock::time_point start, steady_clock::time_point end, std::size_t turn) const {
    if (options_.per_second <= 0) return true;
    const double due = static_cast<double>(turn * options_.senders + number_) / options_.per_second;
    const auto time = start + duration_cast<steady_clock::duration>(std::chrono::duration<double>(due));
    std::this_thread::sleep_until(std::min(time, end));
    return time < end;
  }

  void Send(Agent& agent, steady_clock::time_point start, steady_clock::time_point give_up) {
    SwarmUpload upload;
    upload.is_large = random_() % 100 >= options_.small_percent;
    const std::size_t size = upload.is_large ? options_.large_size : options_.small_size;
    const auto document = prepared_ ? prepared_->OneOf(size, random_) : MakeSpoolDocument(size, random_);
    const common::UploadSource source{"", "swarm", random_(), static_cast<std::int64_t>(random_() >> 1U),
                                      document.size()};
    upload.id = source.MakeRequestId(agent.id);
    const auto begin = steady_clock::now();
    upload.since_start = duration_cast<microseconds>(begin - start);
    upload.is_accepted = UploadUntilAccepted(agent, source, document, give_up, upload.tries);
    upload.latency = duration_cast<microseconds>(steady_clock::now() - begin);
    upload.is_repeated = upload.is_accepted && random_() % 100 < options_.repeated_percent;
    unsigned tries = 0;
    if (upload.is_repeated && !UploadUntilAccepted(agent, source, document, give_up, tries)) ++refused_repeats;
    uploads.push_back(std::move(upload));
  }

  static bool UploadUntilAccepted(Agent& agent, const common::UploadSource& source,
                                  const std::vector<unsigned char>& document, steady_clock::time_point give_up,
                                  unsigned& tries) {
    do {
      if (tries++ > 0) std::this_thread::sleep_for(kBeforeNextTry);
      agent.uploader->SetSource(source);
      if (agent.uploader->Upload("application/json", document) == common::Uploader::kSuccess) return true;
    } while (steady_clock::now() < give_up);
    return false;
  }

  const SwarmOptions& options_;
  const std::shared_ptr<const PreparedDocuments> prepared_;  // none: each upload makes its own
  std::mt19937_64 random_;
  const unsigned number_;
  std::vector<Agent> agents_;
};

std::shared_ptr<const PreparedDocuments> Prepare(const SwarmOptions& options) {
  if (options.documents == 0) return nullptr;
  auto prepared = std::make_shared<PreparedDocuments>();
  std::mt19937_64 random(std::random_device{}());
  for (const std::size_t size : {options.large_size, options.small_size}) {
    prepared->Add(size, options.documents, random);
  }
  return prepared;
}

microseconds ProcessorTime() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto time = [](const timeval& t) { return std::chrono::seconds(t.tv_sec) + microseconds(t.tv_usec); };
  return time(usage.ru_utime) + time(usage.ru_stime);
}

}  // namespace

SwarmResult RunSwarm(const SwarmOptions& options) {
  const auto prepared = Prepare(options);
  common::HttpService service(options.ca_file);
  service.Start();
  std::vector<std::unique_ptr<Sender>> senders;
  for (unsigned i = 0; i < options.senders; ++i) {
    senders.push_back(std::make_unique<Sender>(options, service, prepared, i));
  }
  if (options.on_begin) options.on_begin();
  const auto processor = ProcessorTime();
  const auto start = steady_clock::now();
  std::vector<std::thread> threads;
  for (const auto& sender : senders) threads.emplace_back([&sender, start] { sender->Run(start); });
  for (std::thread& thread : threads) thread.join();
  service.Stop();
  SwarmResult result;
  result.processor = ProcessorTime() - processor;
  auto end = start;
  for (const auto& sender : senders) {
    result.uploads.insert(result.uploads.end(), sender->uploads.begin(), sender->uploads.end());
    result.refused_repeats += sender->refused_repeats;
    end = std::max(end, sender->ended);
  }
  result.took = end - start;
  return result;
}

SwarmAccount Account(const std::vector<SwarmUpload>& uploads, const std::vector<std::string>& ids) {
  std::unordered_map<std::string, std::size_t> copies;
  for (const SwarmUpload& upload : uploads) copies.emplace(upload.id, 0);
  for (const std::string& id : ids) {
    if (const auto found = copies.find(id); found != copies.end()) ++found->second;
  }
  SwarmAccount account;
  for (const auto& [id, count] : copies) {
    if (count == 0) ++account.lost;
    if (count > 0) ++account.stored;
    if (count > 1) account.doubled += count - 1;
  }
  return account;
}

SwarmAccount CountInStream(const StreamOptions& stream, const std::vector<SwarmUpload>& uploads) {
  StreamConnection connection(stream, StreamConnection::Stream::Require,
                              [](const std::string& line) { std::cerr << line + "\n"; });
  if (!connection.Await(kEnginePatience)) throw std::runtime_error("the engine does not answer");
  StreamReader reader(connection, {"agent-swarm-" + std::to_string(getpid()), true});
  std::vector<std::string> ids;
  for (int silent = 0; silent < kSilentReads;) {
    const auto messages = reader.Read(kReadAtOnce, kReadPatience);
    silent = messages.empty() ? silent + 1 : 0;
    for (const StreamReader::Message& message : messages) ids.push_back(message.Header(kIdHeader));
    if (!messages.empty() && !reader.Acknowledge(messages)) throw std::runtime_error("the engine has gone");
  }
  reader.Forget();
  return Account(uploads, ids);
}

microseconds Percentile(std::vector<microseconds> values, double percent) {
  if (values.empty()) return {};
  const auto rank = static_cast<std::size_t>(std::ceil(percent / 100 * static_cast<double>(values.size())));
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(std::max<std::size_t>(rank, 1) - 1);
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

}  // namespace zagent::tools
