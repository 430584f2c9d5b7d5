#pragma once

#include <algorithm>

#include "tests/e2e/fleet/NatsServer.h"
#include "tests/e2e/upload/UploadFixture.h"
#include "tools/event-stream/StreamReader.h"
#include "tools/reference-receiver/StreamSink.h"

namespace zagent::e2e {

// A receiver that publishes, and the server behind it.
class StreamFixture : public UploadFixture {
 protected:
  static tools::StreamOptions StreamAt(const NatsServer& server) {
    tools::StreamOptions stream;
    stream.urls = server.Url();
    stream.replicas = 1;
    stream.max_bytes = 64LL << 20U;
    return stream;
  }

  tools::ReceiverOptions PublishingTo(tools::StreamOptions stream) {
    tools::ReceiverOptions options = Options();
    options.keep_payloads = false;
    options.stream = std::move(stream);
    return options;
  }

  void StartPublishing(const NatsServer& server) { StartPublishing(StreamAt(server)); }
  void StartPublishing(const tools::StreamOptions& stream) {
    max_attempts_ = 0;
    StartReceiver(PublishingTo(stream));
  }
  bool AwaitLine(const std::string& beginning) {
    return fakes::Eventually([&] { return CountLines(beginning) > 0; });
  }
  std::size_t CountLines(const std::string& beginning) {
    const auto lines = Lines();
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& line) { return line.starts_with(beginning); }));
  }

  // The HTTP status of an upload.
  long StatusOf(const std::string& text, const std::string& path = "/v1/fim",
                const std::string& type = "application/json") {
    const auto uploader = Uploader();
    uploader->SetTarget(receiver_->GetUrl() + path);
    (void)uploader->Upload(type, BytesOf(text));
    return uploader->LastHttpStatus();
  }

  static tools::AcceptedPayload Payload(const std::string& text, const std::string& id) {
    tools::AcceptedPayload payload{text, "/v1/fim", {{"content-type", "application/json"}}};
    if (!id.empty()) payload.headers["z-reqid"] = id;
    payload.sender = {kCustomer, kAgent};
    return payload;
  }

  // All that is in the stream.
  static std::vector<tools::StreamReader::Message> ReadAll(const tools::StreamOptions& stream) {
    const tools::StreamConnection connection(stream, tools::StreamConnection::Stream::Require, {});
    EXPECT_NE(nullptr, connection.Await(fakes::kTestPatience));
    tools::StreamReader reader(connection, {"test"});
    std::vector<tools::StreamReader::Message> all;
    while (true) {
      auto some = reader.Read(100, std::chrono::milliseconds(300));
      if (some.empty()) break;
      (void)reader.Acknowledge(some);
      for (auto& message : some) all.push_back(std::move(message));
    }
    reader.Forget();
    return all;
  }
};

}  // namespace zagent::e2e
