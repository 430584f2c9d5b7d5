// The expressions that the tags look for where a manifest names no others.
#include "src/ioc/engines/TagPatterns.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <string>

#include "src/ioc/rules/WholeTextPattern.h"
#include "tests/fakes/TestData.h"

namespace zagent::ioc::internal {
namespace {

struct Table {
  std::set<std::string> matching;
  std::set<std::string> missing;
};

std::map<std::string, Table> ReadTables() {
  std::ifstream in(fakes::TestData("ioc/tag-patterns.txt"));
  std::map<std::string, Table> tables;
  std::string name;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      name = line.substr(1, line.size() - 2);
    } else {
      (line.front() == '+' ? tables[name].matching : tables[name].missing).insert(line.substr(2));
    }
  }
  return tables;
}

TEST(TagPatternsTest, MatchEveryAlternativeAndNothingNearIt) {
  const std::map<std::string, const char*> patterns = {
      {"CredentialAccess pathRegex", tag_patterns::kCredentialAccessPaths},
      {"CredentialAccess processRegex", tag_patterns::kCredentialAccessPrograms},
      {"Execution pathRegex", tag_patterns::kExecutionPaths},
      {"Execution processRegex", tag_patterns::kExecutionPrograms},
      {"Execution option", tag_patterns::kStartupFileOption},
      {"Exfiltration processRegex", tag_patterns::kExfiltrationPrograms},
      {"Persistence pathRegex", tag_patterns::kPersistencePaths},
      {"PrivilegeEscalation files", tag_patterns::kProcessMemoryFiles},
  };
  const std::map<std::string, Table> tables = ReadTables();
  ASSERT_EQ(tables.size(), patterns.size());
  std::size_t alternatives = 0;
  for (const auto& [name, text] : patterns) {
    const WholeTextPattern pattern(text);
    const Table& table = tables.at(name);
    EXPECT_GE(table.missing.size(), 10U) << name;
    for (const std::string& hit : table.matching) EXPECT_TRUE(pattern.Matches(hit)) << name << ": " << hit;
    for (const std::string& miss : table.missing) EXPECT_FALSE(pattern.Matches(miss)) << name << ": " << miss;
    EXPECT_FALSE(pattern.Matches("")) << name;
    alternatives += table.matching.size();
  }
  EXPECT_EQ(alternatives, 315U);
}

TEST(TagPatternsTest, KeepTheirOddities) {
  const WholeTextPattern credentials(tag_patterns::kCredentialAccessPaths);
  EXPECT_FALSE(credentials.Matches("/home/u/.bash_history"));
  EXPECT_TRUE(credentials.Matches("/home/u/.xbash_history")) << "the second dot stands for any character";
  EXPECT_TRUE(credentials.Matches("/etc/crontab")) << "whatever begins with cron";
  EXPECT_FALSE(credentials.Matches("/root/.ssh/id_rsa")) << "the homes of /home alone";
  EXPECT_TRUE(credentials.Matches("/var/log/syslog.1"));
  EXPECT_FALSE(credentials.Matches("/var/log/messages.1"));

  const WholeTextPattern readers(tag_patterns::kCredentialAccessPrograms);
  EXPECT_FALSE(readers.Matches("/bin/bash")) << "one letter stands before sh";
  EXPECT_FALSE(readers.Matches("/usr/bin/dash"));
  EXPECT_TRUE(readers.Matches("/bin/zsh"));
  EXPECT_TRUE(readers.Matches("/bin/|sh")) << "the bar is one of the letters";
  EXPECT_TRUE(readers.Matches("/usr/bin/perldoc")) << "whatever begins with perl";
  EXPECT_FALSE(readers.Matches("/bin/grep"));

  const WholeTextPattern persistence(tag_patterns::kPersistencePaths);
  EXPECT_TRUE(persistence.Matches("/usr/lib/anything/at/all"));
  EXPECT_FALSE(persistence.Matches("/home/u/.config/autostart/x.desktop")) << "the folder alone";
  EXPECT_TRUE(persistence.Matches("/home/u/.config/systemd/user/x.service"));
  EXPECT_TRUE(persistence.Matches("/etc/rcS.d/S01x"));
  EXPECT_TRUE(persistence.Matches("/usr/bin/x"));
  EXPECT_FALSE(persistence.Matches("/usr/local/bin/x"));

  const WholeTextPattern dropped(tag_patterns::kExecutionPaths);
  EXPECT_FALSE(dropped.Matches("/tmp/two\nlines")) << "no dot stands for a line end";
  EXPECT_FALSE(dropped.Matches("/dev/shm/x"));
}

TEST(TagPatternsTest, ALineEndBehindANameMakesAnotherName) {
  EXPECT_FALSE(WholeTextPattern(tag_patterns::kCredentialAccessPaths).Matches("/etc/shadow\n"));
  EXPECT_FALSE(WholeTextPattern(tag_patterns::kExfiltrationPrograms).Matches("/bin/nc\n"));
}

// Names come from whoever acts, and may be as long as an argument.
TEST(TagPatternsTest, LongNamesAreMatchedToTheirEnd) {
  const std::string tail(120'000, 'x');
  EXPECT_TRUE(WholeTextPattern(tag_patterns::kExecutionPaths).Matches("/tmp/" + tail));
  EXPECT_TRUE(WholeTextPattern(tag_patterns::kPersistencePaths).Matches("/usr/lib/" + tail));
  EXPECT_TRUE(WholeTextPattern(tag_patterns::kPersistencePaths).Matches("/etc/cron.d/" + tail));
  EXPECT_TRUE(WholeTextPattern(tag_patterns::kCredentialAccessPaths).Matches("/var/log/auth.log" + tail));
  EXPECT_TRUE(WholeTextPattern(tag_patterns::kCredentialAccessPaths).Matches("/home/" + tail + "/.ssh/id_rsa"));
  EXPECT_FALSE(WholeTextPattern(tag_patterns::kPersistencePaths).Matches("/home/" + tail));
}

}  // namespace
}  // namespace zagent::ioc::internal
