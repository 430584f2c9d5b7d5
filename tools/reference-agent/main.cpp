// The reference parent agent: starts the daemon, configures and commands it, and reports its end.
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "tools/reference-agent/AdminSocket.h"
#include "tools/reference-agent/Agent.h"
#include "tools/reference-agent/Options.h"

namespace {

using namespace zagent::reference_agent;  // NOLINT(google-build-using-namespace): this program is that library

void Say(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

int Ask(const Options& options) {
  const Answer answer = AskAgent(options.admin_socket, options.request);
  if (answer.ok) {
    Say(answer.text);
    return 0;
  }
  std::fprintf(stderr, "reference-agent: %s\n", answer.text.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = Options::Parse(std::vector<std::string>(argv + 1, argv + argc));
    return options.run ? Agent(options, Say).Run() : Ask(options);
  } catch (const UsageError& error) {
    std::fprintf(stderr, "reference-agent: %s\n%s", error.what(), Options::Usage());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "reference-agent: %s\n", error.what());
    return 1;
  }
}
