// What the tags make of events that are built from a kernel's records, with all six tags in force.
#include "tests/src/ioc/engines/RecordedActs.h"
#include "tests/src/ioc/engines/TagsFixture.h"

namespace zagent::ioc::internal {
namespace {

class RecordedTacticsTest : public TagsFixture {
 protected:
  using Actor = RecordedActs::Actor;
  using Event = RecordedActs::Event;

  // What one act earns who does it, by the first letters of the tags: C(redentialAccess), D(efenseEvasion),
  // E(xecution), Exf(iltration), P(ersistence), Priv(ilegeEscalation).
  std::string Earned(Event event, const std::string& settings = kSettings) {
    tree_ = MakeTree();
    Exec(50, kInit, "/bin/login");
    const std::int32_t pid = event->GetActorProcessId();
    if (event->GetType() != edr::EventType::ProcessStart) Exec(pid, 50, event->GetImage()->GetPath());
    tree_->AddEvent(std::move(event));
    TaggingEngine engine(*tree_, ParsedJson(settings));
    (void)engine.Process(Process(pid).GetLastEvent());
    std::string earned;
    std::int64_t score = 0;
    for (const auto& [name, letters, points] : kTags) {
      if (!Process(pid).HasTag(name)) continue;
      earned += (earned.empty() ? "" : " ") + std::string(letters);
      score += points;
    }
    EXPECT_EQ(Process(pid).GetScore(), score);
    EXPECT_TRUE(tree_->Get(50)->GetTags().empty());
    return earned;
  }

  struct Row {
    std::string act;
    Event event;
    std::string earned;
  };
  void Hold(std::vector<Row> rows) {
    EXPECT_GE(rows.size(), 20U);
    for (Row& row : rows) EXPECT_EQ(Earned(std::move(row.event)), row.earned) << row.act;
  }
  template <typename... Rows>
  static std::vector<Row> Table(Rows... rows) {
    std::vector<Row> table;
    (table.push_back(std::move(rows)), ...);
    return table;
  }

  static constexpr std::tuple<const char*, const char*, std::int64_t> kTags[] = {
      {"CredentialAccess", "C", 1}, {"DefenseEvasion", "D", 2}, {"Execution", "E", 4},
      {"Exfiltration", "Exf", 8},   {"Persistence", "P", 16},   {"PrivilegeEscalation", "Priv", 32}};
  static constexpr const char* kSettings = R"({"thresholdScore":1000,"CredentialAccess":{"score":1},
      "DefenseEvasion":{"score":2},"Execution":{"score":4},"Exfiltration":{"score":8},"Persistence":{"score":16},
      "PrivilegeEscalation":{"score":32}})";

  const RecordedActs acts_{};
};

TEST_F(RecordedTacticsTest, CredentialAccess) {
  Hold(Table(Row{"cat shows the shadow file", acts_.Read({"/usr/bin/cat"}, "/etc/shadow"), "C"},
             Row{"sshd reads it, too", acts_.Read({"/usr/sbin/sshd"}, "/etc/shadow"), ""},
             Row{"cat shows another file", acts_.Read({"/usr/bin/cat"}, "/etc/motd"), ""},
             Row{"cat of another place", acts_.Read({"/usr/local/bin/cat"}, "/etc/shadow"), ""},
             Row{"a shell reads it", acts_.Read({"/bin/bash"}, "/etc/shadow"), ""},
             Row{"another shell reads it", acts_.Read({"/bin/zsh"}, "/etc/shadow"), "C"},
             Row{"less shows a log", acts_.Read({"/usr/bin/less"}, "/var/log/auth.log.1"), "C"},
             Row{"less shows a log of its own", acts_.Read({"/usr/bin/less"}, "/var/log/own.log"), ""},
             Row{"a private key", acts_.Read({"/bin/cat"}, "/home/ann/.ssh/id_rsa"), "C"},
             Row{"another kind of key", acts_.Read({"/bin/cat"}, "/home/ann/.ssh/id_ed25519"), ""},
             Row{"a cloud's keys", acts_.Read({"/usr/bin/python3.11"}, "/home/ann/.aws/credentials"), "C"},
             Row{"what was typed", acts_.Read({"/usr/bin/tail"}, "/home/ann/.bash_history"), ""},
             Row{"a backup of the shadow file", acts_.Read({"/usr/bin/cat"}, "/etc/shadow-"), ""},
             Row{"vim writes the sudoers", acts_.Write({"/usr/bin/vim"}, "/etc/sudoers"), "C"},
             Row{"mv takes the key away", acts_.Rename({"/bin/mv"}, "/home/ann/.ssh/id_rsa", "/srv/key"), "C P"},
             Row{"mv puts a file in", acts_.Rename({"/bin/mv"}, "/srv/hosts", "/etc/hosts"), "C"},
             Row{"mv elsewhere", acts_.Rename({"/bin/mv"}, "/srv/a", "/srv/b"), ""},
             Row{"cp makes a copy of nothing", acts_.Create({"/bin/cp"}, "/srv/copy"), ""},
             Row{"cat is started for it", acts_.Start({"/usr/bin/cat"}, {"cat", "/etc/shadow"}), "C"},
             Row{"with options", acts_.Start({"/usr/bin/head"}, {"head", "-n", "3", "/etc/passwd"}), "C"},
             Row{"cat is started for another", acts_.Start({"/usr/bin/cat"}, {"cat", "/etc/os-release"}), ""},
             Row{"by a relative name", acts_.Start({"/usr/bin/cat"}, {"cat", "shadow"}, "/etc"), ""},
             Row{"grep is started for it", acts_.Start({"/usr/bin/grep"}, {"grep", "root", "/etc/shadow"}), ""},
             Row{"unshadow is", acts_.Start({"/usr/bin/unshadow"}, {"unshadow", "/etc/passwd", "/etc/shadow"}), "C"},
             Row{"a folder is made", acts_.MakeFolder({"/usr/bin/python3"}, "/etc/systemd/x"), ""}));
}

TEST_F(RecordedTacticsTest, DefenseEvasion) {
  Hold(Table(Row{"a hidden file", acts_.Create({"/bin/touch"}, "/srv/.x"), "D"},
             Row{"a file that is not", acts_.Create({"/bin/touch"}, "/srv/x"), ""},
             Row{"a file in a hidden folder", acts_.Create({"/bin/touch"}, "/srv/.cache/x"), ""},
             Row{"a hidden folder", acts_.MakeFolder({"/bin/mkdir"}, "/srv/.cache"), ""},
             Row{"a hidden file is written to", acts_.Write({"/bin/sed"}, "/srv/.x"), "D"},
             Row{"a hidden file is read", acts_.Read({"/bin/sed"}, "/srv/.x"), ""},
             Row{"a hidden file goes", acts_.Delete({"/bin/rm"}, "/srv/.x"), "D"},
             Row{"a file goes", acts_.Delete({"/bin/rm"}, "/srv/x"), ""},
             Row{"a file is hidden", acts_.Rename({"/bin/mv"}, "/srv/x", "/srv/.x"), "D"},
             Row{"a file is shown", acts_.Rename({"/bin/mv"}, "/srv/.x", "/srv/x"), "D"},
             Row{"a file is renamed", acts_.Rename({"/bin/mv"}, "/srv/x", "/srv/y"), ""},
             Row{"a listed mode is renamed", acts_.Rename({"/bin/mv"}, "/srv/x", "/srv/y", "0755"), "D"},
             Row{"a file as most are", acts_.Create({"/bin/touch"}, "/srv/x", "0644"), "D"},
             Row{"a program", acts_.Create({"/bin/cp"}, "/srv/x", "0755"), "D"},
             Row{"a private file", acts_.Create({"/bin/touch"}, "/srv/x", "0600"), "D"},
             Row{"a mode that is not listed", acts_.Create({"/bin/touch"}, "/srv/x", "0660"), ""},
             Row{"a set-user-id program", acts_.Create({"/bin/cp"}, "/srv/x", "4755"), "D"},
             Row{"chmod u+s", acts_.Chmod({"/bin/chmod"}, "/srv/x", "0750", 04750), "D"},
             Row{"chmod u-s", acts_.Chmod({"/bin/chmod"}, "/srv/x", "4750", 0550), "D"},
             Row{"chmod g+s", acts_.Chmod({"/bin/chmod"}, "/srv/x", "0440", 02440), "D"},
             Row{"chmod +t", acts_.Chmod({"/bin/chmod"}, "/srv/x", "0440", 01440), "D"},
             Row{"chmod u+x", acts_.Chmod({"/bin/chmod"}, "/srv/x", "0440", 0540), "D"},
             Row{"chmod o+x", acts_.Chmod({"/bin/chmod"}, "/srv/x", "0440", 0441), "D"},
             Row{"chmod go-rwx to a mode that is not listed", acts_.Chmod({"/bin/chmod"}, "/srv/x", "0644", 0400), ""},
             Row{"chmod to a listed mode", acts_.Chmod({"/bin/chmod"}, "/srv/x", "0777", 0600), "D"},
             Row{"chmod that changes nothing", acts_.Chmod({"/bin/chmod"}, "/srv/x", "4750", 04750), ""},
             Row{"a connection", acts_.Connect({"/bin/x"}, "10.1.2.3"), ""},
             Row{"a hidden program", acts_.Start({"/srv/.x"}, {".x"}), ""}));
}

TEST_F(RecordedTacticsTest, Execution) {
  const Actor bash{"/bin/bash"};
  Hold(Table(
      Row{"a script in /tmp by its name", acts_.StartScript(bash, "/tmp/x"), "E"},
      Row{"of an interpreter that nobody knows", acts_.StartScript({"/usr/bin/ruby"}, "/tmp/x"), "E"},
      Row{"a script elsewhere", acts_.StartScript(bash, "/srv/x"), ""},
      Row{"in a folder of the system", acts_.StartScript(bash, "/usr/share/x/run"), "E"},
      Row{"in a folder whose name begins alike", acts_.StartScript(bash, "/tmpfs/x"), ""},
      Row{"as an argument", acts_.Start(bash, {"bash", "/tmp/x"}), "E"},
      Row{"elsewhere as an argument", acts_.Start(bash, {"bash", "/srv/x"}), ""},
      Row{"with options", acts_.Start(bash, {"bash", "-e", "-x", "/var/tmp/x"}), "E"},
      Row{"with a file for the start and a script", acts_.Start(bash, {"bash", "--rcfile", "/tmp/x", "/tmp/y"}), "E"},
      Row{"with a file for the start alone", acts_.Start(bash, {"bash", "--rcfile", "/tmp/x"}), ""},
      Row{"another such file", acts_.Start(bash, {"bash", "--init-file", "/tmp/x", "/srv/y"}), ""},
      Row{"behind two dashes", acts_.Start(bash, {"bash", "--", "-x"}, "/tmp"), "E"},
      Row{"behind two dashes elsewhere", acts_.Start(bash, {"bash", "--", "-x"}, "/srv"), ""},
      Row{"by a relative name", acts_.Start(bash, {"bash", "x"}, "/run/user/0"), "E"},
      Row{"by a relative name elsewhere", acts_.Start(bash, {"bash", "x"}, "/root"), ""},
      Row{"python", acts_.Start({"/usr/bin/python3.11"}, {"python3", "/opt/x.py"}), "E"},
      Row{"perl", acts_.Start({"/usr/bin/perl"}, {"perl", "/var/lib/x.pl"}), "E"},
      Row{"awk", acts_.Start({"/usr/bin/awk"}, {"awk", "/tmp/x"}), ""},
      Row{"python of another place", acts_.Start({"/usr/local/bin/python3"}, {"python3", "/tmp/x"}), ""},
      Row{"a shell alone", acts_.Start(bash, {"bash"}), ""},
      Row{"a program in /tmp", acts_.Start({"/tmp/x"}, {"/tmp/x", "/tmp/y"}), ""},
      Row{"a command", acts_.Start(bash, {"bash", "-c", "id"}), ""},
      Row{"a script is only read", acts_.Read(bash, "/tmp/x"), ""}, Row{"the shell ends", acts_.Exit(bash), ""}));
}

TEST_F(RecordedTacticsTest, Exfiltration) {
  Hold(Table(Row{"curl", acts_.Connect({"/usr/bin/curl"}, "10.1.2.3"), "Exf"},
             Row{"curl of another place", acts_.Connect({"/usr/local/bin/curl"}, "10.1.2.3"), ""},
             Row{"curl in /sbin", acts_.Connect({"/sbin/curl"}, "10.1.2.3"), "Exf"},
             Row{"wget", acts_.Connect({"/usr/bin/wget"}, "10.1.2.3"), "Exf"},
             Row{"apt", acts_.Connect({"/usr/lib/apt/methods/http"}, "10.1.2.3"), ""},
             Row{"ssh", acts_.Connect({"/usr/bin/ssh"}, "10.1.2.3"), "Exf"},
             Row{"sshd", acts_.Connect({"/usr/sbin/sshd"}, "10.1.2.3"), ""},
             Row{"scp", acts_.Connect({"/usr/bin/scp"}, "10.1.2.3"), "Exf"},
             Row{"sftp", acts_.Connect({"/usr/bin/sftp"}, "10.1.2.3"), "Exf"},
             Row{"rsync", acts_.Connect({"/usr/bin/rsync"}, "10.1.2.3"), "Exf"},
             Row{"nc", acts_.Connect({"/bin/nc"}, "10.1.2.3"), "Exf"},
             Row{"nc as Debian names it", acts_.Connect({"/usr/bin/nc.openbsd"}, "10.1.2.3"), ""},
             Row{"nc waits", acts_.Bind({"/bin/nc"}, "10.1.2.3"), "Exf"},
             Row{"ncat", acts_.Connect({"/usr/bin/ncat"}, "10.1.2.3"), "Exf"},
             Row{"telnet", acts_.Connect({"/usr/bin/telnet"}, "10.1.2.3"), "Exf"},
             Row{"ftp", acts_.Connect({"/usr/bin/ftp"}, "10.1.2.3"), "Exf"},
             Row{"python", acts_.Connect({"/usr/bin/python3.11"}, "10.1.2.3"), "Exf"},
             Row{"sendmail", acts_.Connect({"/usr/sbin/sendmail"}, "10.1.2.3"), "Exf"},
             Row{"a browser", acts_.Connect({"/usr/lib/firefox/firefox"}, "10.1.2.3"), ""},
             Row{"a shell", acts_.Connect({"/bin/bash"}, "10.1.2.3"), ""},
             Row{"curl is started", acts_.Start({"/usr/bin/curl"}, {"curl", "https://example.org"}), ""},
             Row{"curl reads a file", acts_.Read({"/usr/bin/curl"}, "/etc/ssl/openssl.cnf"), ""}));
}

TEST_F(RecordedTacticsTest, AnExclusionForAnAddressKeepsATagBack) {
  const std::string settings = R"({"thresholdScore":1000,"Exfiltration":{"score":8,
      "exclusions":[{"actorProcess":"/usr/bin/curl","patterns":"10\\.1\\..*"}]}})";
  EXPECT_EQ(Earned(acts_.Connect({"/usr/bin/curl"}, "10.1.2.3"), settings), "");
  EXPECT_EQ(Earned(acts_.Connect({"/usr/bin/curl"}, "10.2.2.3"), settings), "Exf");
  EXPECT_EQ(Earned(acts_.Connect({"/usr/bin/wget"}, "10.1.2.3"), settings), "Exf");
}

TEST_F(RecordedTacticsTest, Persistence) {
  const Actor tee{"/usr/bin/tee"};
  Hold(Table(Row{"a file for cron is written to", acts_.Write(tee, "/etc/cron.d/x"), "P"},
             Row{"a file for cron is made", acts_.Create(tee, "/etc/cron.d/x"), "P"},
             Row{"it is read", acts_.Read(tee, "/etc/cron.d/x"), ""},
             Row{"it goes", acts_.Delete({"/bin/rm"}, "/etc/cron.d/x"), "P"},
             Row{"its mode changes", acts_.Chmod({"/bin/chmod"}, "/etc/cron.d/x", "0644", 0440), "P"},
             Row{"a user's table", acts_.Write(tee, "/var/spool/cron/crontabs/ann"), "P"},
             Row{"the folder above", acts_.Write(tee, "/var/spool/x"), ""},
             Row{"a unit", acts_.Create(tee, "/etc/systemd/system/x.service"), "P"},
             Row{"a unit of users", acts_.Create(tee, "/etc/systemd/user/x.service"), ""},
             Row{"a user's own unit", acts_.Create(tee, "/home/ann/.config/systemd/user/x.service"), "P"},
             Row{"what a shell begins with", acts_.Write(tee, "/home/ann/.bashrc"), "D P"},
             Row{"what another shell begins with", acts_.Write(tee, "/home/ann/.zshrc"), "D"},
             Row{"a key to come back with", acts_.Write(tee, "/root/.ssh/authorized_keys"), "P"},
             Row{"the preloaded libraries", acts_.Create(tee, "/etc/ld.so.preload"), "P"},
             Row{"the users", acts_.Write(tee, "/etc/passwd"), "P"},
             Row{"the groups", acts_.Write(tee, "/etc/group"), ""},
             Row{"a program is replaced", acts_.Rename({"/bin/mv"}, "/srv/ls", "/usr/bin/ls"), "P"},
             Row{"a program is taken away", acts_.Rename({"/bin/mv"}, "/usr/bin/ls", "/srv/ls"), "P"},
             Row{"a program of the administrator", acts_.Rename({"/bin/mv"}, "/srv/ls", "/usr/local/bin/ls"), ""},
             Row{"a folder for cron", acts_.MakeFolder({"/bin/mkdir"}, "/etc/cron.x"), ""},
             Row{"a file of the web", acts_.Create(tee, "/var/www/html/x.php"), "P"},
             Row{"another file", acts_.Create(tee, "/srv/html/x.php"), ""},
             Row{"cron is started", acts_.Start({"/usr/sbin/cron"}, {"/usr/sbin/cron"}), ""}));
}

TEST_F(RecordedTacticsTest, PrivilegeEscalation) {
  constexpr std::uint32_t kUnset = 4294967295U;
  const auto as = [](const std::string& image, std::uint32_t auid, std::uint32_t uid, std::uint32_t euid) {
    return Actor{image, 60, 50, auid, uid, euid};
  };
  const std::string sudo = "/usr/bin/sudo";
  Hold(Table(Row{"sudo of a user", acts_.Start(as(sudo, 1000, 1000, 0), {"sudo", "id"}), "Priv"},
             Row{"what sudo starts", acts_.Start(as("/usr/bin/id", 1000, 0, 0), {"id"}), "Priv"},
             Row{"a user's own program", acts_.Start(as("/usr/bin/id", 1000, 1000, 1000), {"id"}), ""},
             Row{"sudo of root", acts_.Start(as(sudo, 0, 0, 0), {"sudo", "id"}), ""},
             Row{"a service of root", acts_.Start(as("/usr/sbin/cron", kUnset, 0, 0), {"cron"}), ""},
             Row{"a service's user", acts_.Start(as("/usr/sbin/x", kUnset, 33, 33), {"x"}), ""},
             Row{"root becomes a user", acts_.Start(as("/bin/su", 0, 1000, 1000), {"su", "ann"}), ""},
             Row{"a user becomes another", acts_.Start(as("/bin/su", 1000, 1001, 1001), {"su", "bob"}), ""},
             Row{"one user of low number", acts_.Start(as("/usr/bin/id", 1, 1, 0), {"id"}), "Priv"},
             Row{"a user as root writes", acts_.Write(as("/usr/bin/tee", 1000, 0, 0), "/srv/x"), "Priv"},
             Row{"a user writes", acts_.Write(as("/usr/bin/tee", 1000, 1000, 1000), "/srv/x"), ""},
             Row{"root writes", acts_.Write(as("/usr/bin/tee", 0, 0, 0), "/srv/x"), ""},
             Row{"a service writes", acts_.Write(as("/usr/bin/tee", kUnset, 0, 0), "/srv/x"), ""},
             Row{"a user as root reads", acts_.Read(as("/usr/bin/grep", 1000, 0, 0), "/srv/x"), "Priv"},
             Row{"a user as root makes a folder", acts_.MakeFolder(as("/bin/mkdir", 1000, 0, 0), "/srv/x"), "Priv"},
             Row{"a user makes a folder", acts_.MakeFolder(as("/bin/mkdir", 1000, 1000, 1000), "/srv/x"), ""},
             Row{"a user as root connects", acts_.Connect(as("/usr/bin/apt", 1000, 0, 0), "10.1.2.3"), "Priv"},
             Row{"a user connects", acts_.Connect(as("/usr/bin/apt", 1000, 1000, 1000), "10.1.2.3"), ""},
             Row{"a user as root removes", acts_.Delete(as("/bin/rm", 1000, 0, 0), "/srv/x"), "Priv"},
             Row{"a user as root renames", acts_.Rename(as("/bin/mv", 1000, 1000, 0), "/srv/x", "/srv/y"), "Priv"},
             Row{"a user as root ends", acts_.Exit(as("/bin/mv", 1000, 0, 0)), "Priv"},
             Row{"root ends", acts_.Exit(as("/bin/mv", 0, 0, 0)), ""}));
}

TEST_F(RecordedTacticsTest, AnAbnormalEndEarnsNothing) {
  Exec(70, 50, "/bin/ops");
  TaggingEngine engine(*tree_, ParsedJson(kSettings));
  tree_->AddEvent(acts_.Abend({"/bin/ops", 70}));
  EXPECT_EQ(engine.Process(Process(70).GetLastEvent()), Verdict::Clean);
  EXPECT_EQ(Process(70).GetScore(), 0);
}

// A user looks for passwords, copies himself a shell of root's, hides it and sends off what he has.
TEST_F(RecordedTacticsTest, AStoryAddsUp) {
  TaggingEngine engine(*tree_, ParsedJson(R"({"thresholdScore":7,"CredentialAccess":{"score":1},
      "DefenseEvasion":{"score":2},"Exfiltration":{"score":4}})"));
  const auto judge = [&](Event event) {
    const std::int32_t pid = event->GetActorProcessId();
    tree_->AddEvent(std::move(event));
    return engine.Process(Process(pid).GetLastEvent());
  };
  const auto actor = [](const std::string& image, std::int32_t pid) { return Actor{image, pid, 50}; };
  EXPECT_EQ(judge(acts_.Start(actor("/usr/bin/cat", 70), {"cat", "/etc/shadow"})), Verdict::Clean);
  EXPECT_EQ(judge(acts_.Start(actor("/bin/chmod", 71), {"chmod", "u+s", "/srv/sh"})), Verdict::Clean);
  EXPECT_EQ(Process(71).GetScore(), 1) << "of its sibling";
  EXPECT_EQ(judge(acts_.Chmod(actor("/bin/chmod", 71), "/srv/sh", "0750", 04750)), Verdict::Clean);
  EXPECT_EQ(Process(70).GetScore(), 3);
  EXPECT_EQ(judge(acts_.Start(actor("/usr/bin/curl", 72), {"curl", "-T", "/srv/x"})), Verdict::Clean);
  EXPECT_EQ(judge(acts_.Connect(actor("/usr/bin/curl", 72), "10.1.2.3")), Verdict::Suspicious);
  for (const std::int32_t pid : {kActor, kSibling, 70, 71, 72}) EXPECT_EQ(Process(pid).GetScore(), 7) << pid;
  EXPECT_EQ(Process(kShell).GetScore(), 0);
}

}  // namespace
}  // namespace zagent::ioc::internal
