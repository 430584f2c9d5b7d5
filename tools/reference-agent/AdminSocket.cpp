#include "tools/reference-agent/AdminSocket.h"

#include <chrono>
#include <future>
#include <stdexcept>
#include <utility>

#include "src/audit/channels/UnixClientStreamSockIOChannel.h"

namespace zagent::reference_agent {
namespace {

using audit::IOChannel;
using audit::IOChannelException;

constexpr std::chrono::seconds kPatience{30};
constexpr std::int32_t kNeverReconnect = -1;
constexpr const char* kOk = "ok: ";
constexpr const char* kError = "error: ";

bool SomebodyAnswers(const std::string& path) {
  try {
    audit::UnixClientStreamSockIOChannel probe(path, kNeverReconnect);
    probe.Start();
    return true;
  } catch (const IOChannelException&) {
    return false;
  }
}

Answer ParseAnswer(std::string text) {
  if (!text.empty() && text.back() == '\n') text.pop_back();
  if (text.rfind(kOk, 0) == 0) return {true, text.substr(std::string(kOk).size())};
  if (text.rfind(kError, 0) == 0) return {false, text.substr(std::string(kError).size())};
  return {false, "the agent's answer cannot be understood"};
}

}  // namespace

AdminSocket::AdminSocket(const std::string& path, LineCallback on_line) {
  if (SomebodyAnswers(path)) throw std::runtime_error("another agent runs already: it answers at " + path);
  channel_ = std::make_unique<audit::UnixServerStreamSockIOChannel>(path, 0700);
  channel_->SetReadCallback([on_line = std::move(on_line)](IOChannel::Bytes&& bytes) {
    std::string line(bytes.begin(), bytes.end());
    if (!line.empty() && line.back() == '\n') line.pop_back();
    on_line(line);
  });
  channel_->Start();
}

void AdminSocket::Reply(const Answer& answer) {
  const std::string text = (answer.ok ? kOk : kError) + answer.text + "\n";
  try {
    channel_->Send({text.begin(), text.end()});
  } catch (const IOChannelException&) {  // NOLINT(bugprone-empty-catch)
  }
}

Answer AskAgent(const std::string& path, const std::string& line) {
  try {
    std::promise<Answer> promise;
    std::future<Answer> answer = promise.get_future();
    bool answered = false;
    const auto set = [&](Answer value) {
      if (!std::exchange(answered, true)) promise.set_value(std::move(value));
    };
    // Goes first: its thread sets the promise.
    audit::UnixClientStreamSockIOChannel channel(path, kNeverReconnect);
    channel.SetReadCallback([&](IOChannel::Bytes&& bytes) { set(ParseAnswer({bytes.begin(), bytes.end()})); });
    channel.SetErrorCallback([&](IOChannel::Error) { set({false, "the agent went away without an answer"}); });
    channel.Start();
    const std::string text = line + "\n";
    channel.Send({text.begin(), text.end()});
    if (answer.wait_for(kPatience) == std::future_status::ready) return answer.get();
    return {false, "the agent does not answer"};
  } catch (const std::exception& error) {
    return {false, "no agent at " + path + " (" + error.what() + ")"};
  }
}

}  // namespace zagent::reference_agent
