#include "tools/event-stream/StreamConnection.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/src/util/Cleanse.h"
#include "common/src/util/ErrnoText.h"
#include "tools/event-stream/StreamMessage.h"

namespace zagent::tools {
namespace {

constexpr std::int64_t kConnectTimeoutMs = 2'000;
constexpr std::int64_t kReconnectWaitMs = 250;
constexpr std::int64_t kRequestWaitMs = 3'000;
constexpr std::chrono::milliseconds kLookInterval{200};
constexpr std::chrono::milliseconds kRetryInterval{1'000};

void Require(natsStatus status, const std::string& what) {
  if (status != NATS_OK) throw std::runtime_error(what + ": " + NatsErrorText(status));
}

std::vector<std::string> SplitServers(const std::string& urls) {
  std::vector<std::string> servers;
  std::istringstream in(urls);
  std::string scheme = "nats://";
  for (std::string server; std::getline(in, server, ',');) {
    if (server.empty()) continue;
    const std::size_t colons = server.find("://");
    if (colons == std::string::npos) {
      server = scheme + server;
    } else {
      scheme = server.substr(0, colons + 3);
    }
    servers.push_back(server);
  }
  if (servers.empty()) throw std::runtime_error("no server is named");
  return servers;
}

void RequireClosedToOthers(const std::string& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) throw std::runtime_error(file + ": " + common::util::ErrnoText(errno));
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) throw std::runtime_error(file + ": open to others than its owner");
}

void SetLogin(natsOptions* options, const std::string& file) {
  RequireClosedToOthers(file);
  std::ifstream in(file);
  std::string first;
  std::string second;
  const common::util::ScopedCleanse cleanse_first(first);
  const common::util::ScopedCleanse cleanse_second(second);
  in >> first >> second;
  if (first.empty()) throw std::runtime_error(file + ": no user and password, and no token");
  Require(second.empty() ? natsOptions_SetToken(options, first.c_str())
                         : natsOptions_SetUserInfo(options, first.c_str(), second.c_str()),
          file);
}

void SetTls(natsOptions* options, const StreamOptions& given) {
  Require(natsOptions_SetSecure(options, true), "TLS");
  if (!given.ca_file.empty()) {
    Require(natsOptions_LoadCATrustedCertificates(options, given.ca_file.c_str()), given.ca_file);
  }
  if (!given.certificate_file.empty()) {
    Require(natsOptions_LoadCertificatesChain(options, given.certificate_file.c_str(), given.key_file.c_str()),
            given.certificate_file);
  }
}

NatsPtr<natsOptions> MakeOptions(const StreamOptions& given) {
  natsOptions* raw = nullptr;
  Require(natsOptions_Create(&raw), "libnats");
  NatsPtr<natsOptions> options(raw);
  const std::vector<std::string> servers = SplitServers(given.urls);
  std::vector<const char*> names;
  for (const std::string& server : servers) names.push_back(server.c_str());
  Require(natsOptions_SetServers(raw, names.data(), static_cast<int>(names.size())), "the servers' addresses");
  Require(natsOptions_SetTimeout(raw, kConnectTimeoutMs), "libnats");
  Require(natsOptions_SetMaxReconnect(raw, -1), "libnats");
  Require(natsOptions_SetReconnectWait(raw, kReconnectWaitMs), "libnats");
  Require(natsOptions_SetFailRequestsOnDisconnect(raw, true), "libnats");
  const bool is_secure = given.urls.starts_with("tls://");
  if (is_secure || !given.ca_file.empty() || !given.certificate_file.empty()) SetTls(raw, given);
  if (!given.login_file.empty()) SetLogin(raw, given.login_file);
  if (!given.credentials_file.empty()) {
    RequireClosedToOthers(given.credentials_file);
    Require(natsOptions_SetUserCredentialsFromFiles(raw, given.credentials_file.c_str(), nullptr),
            given.credentials_file);
  }
  return options;
}

}  // namespace

std::string NatsErrorText(natsStatus status) {
  natsStatus last = NATS_OK;
  const char* text = nats_GetLastError(&last);
  const std::string general = natsStatus_GetText(status);
  if (last != status || text == nullptr || *text == '\0') return general;
  return general + " (" + text + ")";
}

StreamSession::StreamSession(const StreamOptions& options) {
  const NatsPtr<natsOptions> connect_options = MakeOptions(options);
  natsConnection* connection = nullptr;
  Require(natsConnection_Connect(&connection, connect_options.get()), "cannot connect");
  connection_.reset(connection);
  jsOptions js_options;
  jsOptions_Init(&js_options);
  js_options.Wait = kRequestWaitMs;
  jsCtx* context = nullptr;
  Require(natsConnection_JetStream(&context, connection, &js_options), "JetStream");
  jet_stream_.reset(context);
}

void StreamSession::RequireStream(const StreamOptions& options) const {
  jsStreamInfo* info = nullptr;
  jsErrCode code{};
  const natsStatus status = js_GetStreamInfo(&info, JetStream(), options.name.c_str(), nullptr, &code);
  const NatsPtr<jsStreamInfo> owned(info);
  if (status == NATS_NOT_FOUND) throw std::runtime_error("there is no stream " + options.name);
  Require(status, "stream " + options.name);
}

void StreamSession::EnsureStream(const StreamOptions& options) const {
  jsStreamInfo* info = nullptr;
  jsErrCode code{};
  natsStatus status = js_GetStreamInfo(&info, JetStream(), options.name.c_str(), nullptr, &code);
  if (status == NATS_NOT_FOUND) {
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    const std::string subjects = std::string(kSubjectRoot) + ".>";
    std::array<const char*, 1> names{subjects.c_str()};
    using std::chrono::nanoseconds;
    config.Name = options.name.c_str();
    config.Subjects = names.data();
    config.SubjectsLen = 1;
    config.Replicas = options.replicas;
    config.MaxBytes = options.max_bytes;
    config.MaxAge = nanoseconds(options.max_age).count();
    config.Duplicates = nanoseconds(std::min<nanoseconds>(options.duplicate_window, options.max_age)).count();
    config.Discard = options.drop_oldest ? js_DiscardOld : js_DiscardNew;
    config.Storage = js_FileStorage;
    status = js_AddStream(&info, JetStream(), &config, nullptr, &code);
    // Somebody else was quicker.
    if (status != NATS_OK && code == JSStreamNameExistErr) status = NATS_OK;
  }
  const NatsPtr<jsStreamInfo> owned(info);
  Require(status, "stream " + options.name);
}

bool StreamSession::IsConnected() const {
  return natsConnection_Status(Connection()) == NATS_CONN_STATUS_CONNECTED;
}

bool StreamSession::IsClosed() const {
  return natsConnection_Status(Connection()) == NATS_CONN_STATUS_CLOSED;
}

std::size_t StreamSession::MaxPayload() const {
  const std::int64_t size = natsConnection_GetMaxPayload(Connection());
  return size > 0 ? static_cast<std::size_t>(size) : 0;
}

std::string StreamSession::LastError() const {
  const char* text = nullptr;
  const natsStatus status = natsConnection_GetLastError(Connection(), &text);
  if (text != nullptr && *text != '\0') return text;
  return status == NATS_OK ? "" : natsStatus_GetText(status);
}

StreamConnection::StreamConnection(StreamOptions options, Stream stream, std::function<void(const std::string&)> say)
    : options_(std::move(options)), stream_(stream), say_(std::move(say)) {
  // The first use makes what all threads of the library share: nobody may come while another one is at it.
  Require(nats_Open(-1), "libnats");
  thread_ = std::thread([this] { Keep(); });
}

StreamConnection::~StreamConnection() {
  Stop();
  thread_.join();
}

void StreamConnection::Stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  current_.reset();
  changed_.notify_all();
}

std::shared_ptr<const StreamSession> StreamConnection::Current() const {
  const std::lock_guard lock(mutex_);
  return current_;
}

std::shared_ptr<const StreamSession> StreamConnection::Await(std::chrono::milliseconds patience) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, patience, [this] { return stopped_ || current_; });
  return current_;
}

void StreamConnection::Doubt(const std::shared_ptr<const StreamSession>& session) {
  const std::lock_guard lock(mutex_);
  if (session == current_) is_doubted_ = true;
  changed_.notify_all();
}

void StreamConnection::Say(const std::string& line) const {
  if (say_) say_(line);
}

void StreamConnection::Fail(const std::string& reason) {
  if (reason == told_) return;
  told_ = reason;
  Say("error: stream: " + reason);
}

bool StreamConnection::Pause(std::chrono::milliseconds duration) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, duration, [this] { return stopped_; });
  return stopped_;
}

void StreamConnection::Keep() {
  std::shared_ptr<const StreamSession> session;
  while (true) {
    try {
      if (!session || session->IsClosed()) session = std::make_shared<const StreamSession>(options_);
      stream_ == Stream::Make ? session->EnsureStream(options_) : session->RequireStream(options_);
      char server[256] = "";
      natsConnection_GetConnectedUrl(session->Connection(), server, sizeof(server));
      const std::string address(server);
      // An address may hold a password.
      Say("stream: connected to " + address.substr(address.find('@') == std::string::npos ? 0 : address.find('@') + 1));
      told_.clear();
      std::unique_lock lock(mutex_);
      if (stopped_) return;
      current_ = session;
      is_doubted_ = false;
      changed_.notify_all();
      bool was_connected = true;
      while (!stopped_ && !is_doubted_ && !session->IsClosed()) {
        changed_.wait_for(lock, kLookInterval);
        const bool is_connected = session->IsConnected();
        if (was_connected == is_connected) continue;
        was_connected = is_connected;
        lock.unlock();
        is_connected ? Say("stream: connected again") : Fail("the connection is lost");
        if (is_connected) told_.clear();
        lock.lock();
      }
      // One whose stream does not answer stays: another server may lead it the next moment.
      if (stopped_ || session->IsClosed()) current_.reset();
      if (stopped_) return;
    } catch (const std::exception& error) {
      Fail(error.what());
    }
    if (session && session->IsClosed() && !session->LastError().empty()) Fail(session->LastError());
    if (Pause(kRetryInterval)) return;
  }
}

}  // namespace zagent::tools
