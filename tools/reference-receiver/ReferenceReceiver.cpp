#include "tools/reference-receiver/ReferenceReceiver.h"

#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/ThreadPool.h>
#include <openssl/ssl.h>

#include <stdexcept>

#include "tools/reference-receiver/PageServer.h"
#include "tools/reference-receiver/ServerCertificate.h"
#include "tools/reference-receiver/TunnelProxy.h"
#include "tools/reference-receiver/UploadHandler.h"

namespace zagent::tools {
namespace {

// Connections that wait for a thread; more are refused.
constexpr int kMaxWaiting = 4'096;
constexpr int kBacklog = 512;

class HandlerFactory final : public Poco::Net::HTTPRequestHandlerFactory {
 public:
  explicit HandlerFactory(ReceiverState& state) : state_(state) {}
  Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
    return new UploadHandler(state_);  // NOLINT(cppcoreguidelines-owning-memory): Poco's way
  }

 private:
  ReceiverState& state_;
};

Poco::Net::Context::Ptr MakeContext(const ServerCertificate& certificate, const std::string& client_ca_file) {
  Poco::Net::Context::Params params;
  params.verificationMode =
      client_ca_file.empty() ? Poco::Net::Context::VERIFY_NONE : Poco::Net::Context::VERIFY_STRICT;
  params.caLocation = client_ca_file;
  Poco::Net::Context::Ptr context(new Poco::Net::Context(Poco::Net::Context::TLS_SERVER_USE, params));
  context->enableExtendedCertificateVerification(false);  // a client's certificate names no host
  context->requireMinimumProtocol(Poco::Net::Context::PROTO_TLSV1_2);
  if (SSL_CTX_use_certificate(context->sslContext(), certificate.Certificate()) != 1 ||
      SSL_CTX_use_PrivateKey(context->sslContext(), certificate.Key()) != 1) {
    throw std::runtime_error("OpenSSL refuses the certificate");
  }
  return context;
}

Poco::Net::HTTPServerParams::Ptr MakeParams(unsigned max_threads) {
  Poco::Net::HTTPServerParams::Ptr params(new Poco::Net::HTTPServerParams);
  params->setMaxThreads(static_cast<int>(max_threads));
  params->setMaxQueued(kMaxWaiting);
  params->setKeepAlive(true);
  params->setKeepAliveTimeout(Poco::Timespan(5, 0));
  params->setTimeout(Poco::Timespan(10, 0));
  return params;
}

}  // namespace

struct ReferenceReceiver::Impl {
  explicit Impl(ReceiverOptions options)
      : state(std::move(options)),
        certificate(state.options.cert_folder, {state.options.cert_names, state.options.cert_days}),
        socket(Poco::Net::SocketAddress(state.options.address, state.options.port), kBacklog,
               MakeContext(certificate, state.options.client_ca_file)),
        threads(2, static_cast<int>(state.options.max_threads)),
        server(new HandlerFactory(state), threads, socket, MakeParams(state.options.max_threads)) {
    state.is_pressed = [this] { return server.queuedConnections() > 0; };
    if (!state.options.ca_file.empty()) certificate.WriteTo(state.options.ca_file);
    if (state.options.proxy_port) {
      proxy = std::make_unique<TunnelProxy>(*state.options.proxy_port, state.options.proxy_status);
    }
    if (state.page) {
      page = std::make_unique<PageServer>(*state.page,
                                          PageServer::Settings{state.options.page_address, *state.options.page_port});
    }
    state.Print("listening on " + Url());
    if (proxy) state.Print("proxy on " + ProxyUrl());
    if (page) state.Print("page on " + page->GetUrl());
    server.start();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() {
    state.Stop();
    proxy.reset();
    // Lets each request end first: to abort them, Poco would use their TLS sessions from this thread as well.
    server.stopAll(false);
    threads.joinAll();
  }

  [[nodiscard]] std::string Url() const {
    return "https://" + Poco::Net::SocketAddress(state.options.address, server.port()).toString();
  }
  [[nodiscard]] std::string ProxyUrl() const {
    return proxy ? "http://127.0.0.1:" + std::to_string(proxy->GetPort()) : "";
  }

  ReceiverState state;
  const ServerCertificate certificate;
  Poco::Net::SecureServerSocket socket;
  Poco::ThreadPool threads;
  Poco::Net::HTTPServer server;
  std::unique_ptr<TunnelProxy> proxy;
  std::unique_ptr<PageServer> page;
};

ReferenceReceiver::ReferenceReceiver(ReceiverOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

ReferenceReceiver::~ReferenceReceiver() = default;

std::string ReferenceReceiver::GetUrl() const {
  return impl_->Url();
}

const std::string& ReferenceReceiver::GetCaFile() const {
  return impl_->state.options.ca_file;
}

std::string ReferenceReceiver::GetProxyUrl() const {
  return impl_->ProxyUrl();
}

std::string ReferenceReceiver::GetPageUrl() const {
  return impl_->page ? impl_->page->GetUrl() : "";
}

std::vector<AcceptedPayload> ReferenceReceiver::GetPayloads() const {
  return impl_->state.store == nullptr ? std::vector<AcceptedPayload>{} : impl_->state.store->Payloads();
}

unsigned ReferenceReceiver::GetRequestCount() const {
  return impl_->state.RequestCount();
}

bool ReferenceReceiver::WaitForRequests(unsigned count, std::chrono::milliseconds timeout) const {
  return impl_->state.WaitForRequests(count, timeout);
}

unsigned ReferenceReceiver::GetConnectionCount() const {
  return static_cast<unsigned>(impl_->server.totalConnections());
}

unsigned ReferenceReceiver::GetTunnelCount() const {
  return impl_->proxy ? impl_->proxy->GetTunnelCount() : 0;
}

}  // namespace zagent::tools
