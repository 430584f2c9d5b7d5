#include "tools/reference-agent/Command.h"

#include <gtest/gtest.h>

#include <functional>

#include "tools/reference-agent/Options.h"
#include "tools/reference-agent/SyslogListener.h"

namespace zagent::reference_agent {
namespace {

std::string JsonOf(const std::string& line) {
  const auto command = Command::Parse(line);
  return command ? ToJson(*command).value_or("no command of the daemon") : "no command";
}

TEST(CommandTest, BecomesTheJsonTextOfTheControlLink) {
  EXPECT_EQ(JsonOf("config /etc/a b.json"), R"({"command":"config","config_file":"/etc/a b.json"})");
  EXPECT_EQ(JsonOf("  exit  "), R"({"command":"exit"})");
  EXPECT_EQ(JsonOf("fim_status"), R"({"command":"fim_status"})");
  EXPECT_EQ(JsonOf("ioc_status"), R"({"command":"ioc_status"})");
  EXPECT_EQ(JsonOf("config /a\"b\\c"), R"({"command":"config","config_file":"/a\"b\\c"})");
}

TEST(CommandTest, RefusesWhatTheDaemonWouldNotUnderstand) {
  EXPECT_EQ(JsonOf("config"), "no command of the daemon");
  EXPECT_EQ(JsonOf("restart"), "no command of the daemon");
  EXPECT_EQ(JsonOf(""), "no command");
  EXPECT_EQ(JsonOf("   "), "no command");
  EXPECT_EQ(JsonOf("config /a\nexit"), "no command");
}

TEST(SyslogTextTest, LosesItsPriorityAndWhatATerminalWouldObey) {
  EXPECT_EQ(SyslogListener::Readable("<25>Nov 20 09:00:00 ostrel-edr: text\n"), "Nov 20 09:00:00 ostrel-edr: text");
  EXPECT_EQ(SyslogListener::Readable("<191>a\x1b[31mb\x07\x7f\r"), "a[31mb");
  EXPECT_EQ(SyslogListener::Readable("caf\xc3\xa9 \xc2\x9b"
                                     "31m"),
            "caf\xc3\xa9 31m");
  EXPECT_EQ(SyslogListener::Readable("<not a priority> x"), "<not a priority> x");
  EXPECT_EQ(SyslogListener::Readable(""), "");
}

std::string UsageErrorOf(const std::vector<std::string>& arguments) {
  try {
    Options::Parse(arguments);
    return "";
  } catch (const UsageError& error) {
    return error.what();
  }
}

TEST(OptionsTest, FillInTheProductsPlaces) {
  const Options options = Options::Parse({"run", "--daemon", "/usr/bin/edr", "--config", "/etc/../etc/edr.json"});
  EXPECT_TRUE(options.run);
  EXPECT_EQ(options.config, "/etc/edr.json");
  EXPECT_EQ(options.control_socket, "/var/run/ostrel/host-warden/sock/agent_edr.sock");
  EXPECT_EQ(options.admin_socket, "/var/run/ostrel/host-warden/sock/reference-agent.sock");
  EXPECT_EQ(options.syslog, "/dev/log");
  EXPECT_FALSE(options.interactive);
}

TEST(OptionsTest, PutTheAdminSocketBesideTheControlSocket) {
  const Options options = Options::Parse({"exit", "--socket", "/tmp/x/agent.sock"});
  EXPECT_FALSE(options.run);
  EXPECT_EQ(options.request, "exit");
  EXPECT_EQ(options.admin_socket, "/tmp/x/reference-agent.sock");
  EXPECT_EQ(Options::Parse({"exit", "--admin", "/a"}).admin_socket, "/a");
}

TEST(OptionsTest, MakeFilesAbsoluteBecauseTheDaemonWorksInTheRootFolder) {
  const std::string request = Options::Parse({"config", "edr.json"}).request;
  EXPECT_EQ(request.rfind("config /", 0), 0U) << request;
}

TEST(OptionsTest, SayWhatIsWrong) {
  EXPECT_EQ(UsageErrorOf({}), "no command");
  EXPECT_EQ(UsageErrorOf({"dance"}), "unknown command: dance");
  EXPECT_EQ(UsageErrorOf({"config"}), "wrong number of arguments: config");
  EXPECT_EQ(UsageErrorOf({"exit", "now"}), "wrong number of arguments: exit");
  EXPECT_EQ(UsageErrorOf({"run", "--daemon", "/x"}), "run needs --daemon and --config");
  EXPECT_EQ(UsageErrorOf({"run", "--daemon"}), "--daemon needs a value");
  EXPECT_EQ(UsageErrorOf({"run", "--fast"}), "unknown option: --fast");
}

}  // namespace
}  // namespace zagent::reference_agent
