#include "tools/reference-agent/Options.h"

#include <filesystem>
#include <map>

namespace zagent::reference_agent {
namespace {

std::string Absolute(const std::string& path) {
  return std::filesystem::absolute(path).lexically_normal();
}

// The words of a request: those of the daemon, and those that this program adds.
int ArgumentsOf(const std::string& word) {
  static const std::map<std::string, int> kWords = {{"config", 1}, {"fim_status", 0}, {"ioc_status", 0}, {"exit", 0},
                                                    {"away", 0},   {"back", 0},       {"kill", 0},       {"quit", 0}};
  const auto found = kWords.find(word);
  if (found == kWords.end()) throw UsageError("unknown command: " + word);
  return found->second;
}

}  // namespace

const char* Options::Usage() {
  return "usage: reference-agent run --daemon PATH --config FILE [--socket PATH] [--admin PATH] [--syslog PATH]\n"
         "                           [--interactive]\n"
         "       reference-agent config FILE | fim_status | ioc_status | exit      commands for the daemon\n"
         "       reference-agent away | back | kill | quit                         close the control socket, open it\n"
         "                                                                         again, kill the daemon, leave it\n"
         "       with [--socket PATH] [--admin PATH] when the running agent was given them\n";
}

Options Options::Parse(const std::vector<std::string>& arguments) {
  Options options;
  const std::map<std::string, std::string*> values = {{"--daemon", &options.daemon},
                                                      {"--config", &options.config},
                                                      {"--socket", &options.control_socket},
                                                      {"--admin", &options.admin_socket},
                                                      {"--syslog", &options.syslog}};
  std::vector<std::string> words;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    const auto value = values.find(argument);
    if (value != values.end()) {
      if (++i == arguments.size()) throw UsageError(argument + " needs a value");
      *value->second = arguments[i];
    } else if (argument == "--interactive") {
      options.interactive = true;
    } else if (argument.rfind("--", 0) == 0) {
      throw UsageError("unknown option: " + argument);
    } else {
      words.push_back(argument);
    }
  }
  if (words.empty()) throw UsageError("no command");
  if (options.admin_socket.empty()) {
    options.admin_socket = std::filesystem::path(options.control_socket).parent_path() / "reference-agent.sock";
  }

  options.run = words[0] == "run";
  const std::size_t wanted = 1 + static_cast<std::size_t>(options.run ? 0 : ArgumentsOf(words[0]));
  if (words.size() != wanted) throw UsageError("wrong number of arguments: " + words[0]);
  if (options.run) {
    if (options.daemon.empty() || options.config.empty()) throw UsageError("run needs --daemon and --config");
    options.daemon = Absolute(options.daemon);
    options.config = Absolute(options.config);
  } else {
    options.request = words[0] + (wanted == 2 ? " " + Absolute(words[1]) : "");
  }
  return options;
}

}  // namespace zagent::reference_agent
