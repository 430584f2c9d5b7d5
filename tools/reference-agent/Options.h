#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace zagent::reference_agent {

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline constexpr const char* kDefaultControlSocket = "/var/run/ostrel/host-warden/sock/agent_edr.sock";
inline constexpr const char* kDefaultSyslog = "/dev/log";

// The command line, with every default filled in and files made absolute: the daemon works in the root folder.
struct Options {
  bool run = false;     // "run": be the agent; otherwise ask the running one
  std::string request;  // the line to ask it
  std::string daemon;
  std::string config;
  std::string control_socket = kDefaultControlSocket;
  std::string admin_socket;  // default: reference-agent.sock beside the control socket
  std::string syslog = kDefaultSyslog;
  bool interactive = false;

  // Throws UsageError.
  static Options Parse(const std::vector<std::string>& arguments);
  static const char* Usage();
};

}  // namespace zagent::reference_agent
