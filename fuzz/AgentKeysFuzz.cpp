// Feeds bytes to the receiver's keys file: at a start, which takes it as a whole or not at all, and as a change of a
// good one, which must leave the agents before or have all of the new ones.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

#include "common/src/util/UniqueFd.h"
#include "tests/fakes/FakeClock.h"
#include "tools/reference-receiver/AgentKeys.h"

namespace {

using zagent::tools::AgentKeys;

void Expect(bool holds) {
  if (!holds) std::abort();
}

class File {
 public:
  File() : fd_(memfd_create("keys", MFD_CLOEXEC)) { Expect(fd_ && fchmod(fd_.Get(), 0600) == 0); }
  void Write(const std::string& text) const {
    Expect(ftruncate(fd_.Get(), 0) == 0);
    Expect(pwrite(fd_.Get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
  }
  [[nodiscard]] std::string Path() const { return "/proc/self/fd/" + std::to_string(fd_.Get()); }

 private:
  const zagent::common::util::UniqueFd fd_;
};

// Every line of a file that was taken is an agent or says nothing.
void ExpectAll(const AgentKeys& keys, const std::string& text) {
  std::istringstream in(text);
  std::size_t count = 0;
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string customer;
    std::string agent;
    std::string activation;
    if (!(words >> customer) || customer.front() == '#') continue;
    Expect(static_cast<bool>(words >> agent >> activation));
    const auto found = keys.Find(agent);
    Expect(found && found->identity.customer_id == customer && found->activation_id == activation);
    ++count;
  }
  Expect(count == keys.Count());
}

void Start(const std::string& text) {
  const File file;
  file.Write(text);
  zagent::fakes::FakeClock clock;
  try {
    const AgentKeys keys({}, file.Path(), {}, clock);
    ExpectAll(keys, text);
  } catch (const std::runtime_error& error) {
    Expect(std::string(error.what()).starts_with("Keys file "));
  }
}

void Change(const std::string& text) {
  const File file;
  file.Write("c old x\n");
  zagent::fakes::FakeClock clock;
  std::string said;
  const AgentKeys keys(
      {}, file.Path(), [&said](const std::string& line) { said += line; }, clock);
  file.Write(text);
  clock.Advance(AgentKeys::kLookInterval);
  (void)keys.Find("old");
  if (said.empty()) return;  // as long as the old one, and within one tick of the file's time
  if (said.starts_with("keys: ")) return ExpectAll(keys, text);
  Expect(said.starts_with("error: keys file: ") && said.find('\n') == std::string::npos);
  Expect(keys.Count() == 1 && keys.Find("old"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Start(text);
  Change(text);
  return 0;
}
