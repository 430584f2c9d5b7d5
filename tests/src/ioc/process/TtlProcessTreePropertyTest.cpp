#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <map>
#include <random>
#include <thread>

#include "tests/src/ioc/process/TreeFixture.h"

namespace zagent::ioc {
namespace {

using std::chrono::seconds;

constexpr std::int32_t kPids = 24;  // few, so that they come again

// What the tree must be, without links in two directions, locks or bounds.
class Model {
 public:
  struct Process {
    std::int32_t parent = 1;
    bool has_ended = false;
    bool has_expired = false;
    std::set<std::uint32_t> waiting{};
  };

  [[nodiscard]] bool Has(std::int32_t pid) const { return processes.count(pid) != 0; }
  [[nodiscard]] std::set<std::int32_t> ChildrenOf(std::int32_t pid) const {
    std::set<std::int32_t> children;
    for (const auto& [child, process] : processes) {
      if (child != 1 && process.parent == pid) children.insert(child);
    }
    return children;
  }
  [[nodiscard]] bool IsBelow(std::int32_t pid, std::int32_t above) const {
    while (pid != above && pid != 1) pid = processes.at(pid).parent;
    return pid == above;
  }

  void Start(std::int32_t pid, std::int32_t ppid, std::uint32_t id, seconds now) {
    const std::int32_t parent = ppid != pid && Has(ppid) ? ppid : 1;
    if (Has(pid) && IsBelow(parent, pid)) Orphan(pid);
    Process& process = processes[pid];
    process = {parent, false, false, process.waiting};
    process.waiting.insert(id);
    arrivals.emplace_back(pid, now);
  }
  void Add(std::int32_t pid, std::int32_t ppid, std::uint32_t id, bool is_end, seconds now) {
    Process& process = processes.at(pid);
    if (ppid == 1) process.parent = 1;
    process.waiting.insert(id);
    process.has_ended = process.has_ended || is_end;
    if (process.has_expired && process.has_ended) due.insert(pid);
    if (process.has_expired && !process.has_ended && late.count(pid) == 0) late.emplace(pid, now);
  }
  std::set<std::uint32_t> Take(std::int32_t pid) { return std::exchange(processes.at(pid).waiting, {}); }
  std::set<std::uint32_t> TakeBelow(std::int32_t pid) {
    std::set<std::uint32_t> taken = Take(pid);
    for (const std::int32_t child : ChildrenOf(pid)) taken.merge(TakeBelow(child));
    return taken;
  }
  std::set<std::uint32_t> TakeExpired(seconds now) {
    std::set<std::uint32_t> taken;
    for (; !arrivals.empty() && now - arrivals.front().second >= seconds(120); arrivals.pop_front()) {
      if (!Has(arrivals.front().first)) continue;
      processes.at(arrivals.front().first).has_expired = true;
      due.insert(arrivals.front().first);
    }
    for (auto at = late.begin(); at != late.end();) {
      const bool is_due = now - at->second >= seconds(120);
      if (is_due) due.insert(at->first);
      at = is_due ? late.erase(at) : std::next(at);
    }
    for (const std::int32_t pid : std::exchange(due, {})) {
      if (Has(pid)) taken.merge(Take(pid));
    }
    return taken;
  }
  void Expire(std::int32_t pid) {
    Process& process = processes.at(pid);
    process.has_expired = true;
    if (!process.waiting.empty()) due.insert(pid);
    if (!process.has_ended) {
      process.parent = 1;
      return;
    }
    for (const std::int32_t child : ChildrenOf(pid)) Expire(child);
  }
  void DeleteStale() {
    for (auto at = processes.begin(); at != processes.end();) {
      const Process& process = at->second;
      if (!process.has_ended || !process.has_expired || !process.waiting.empty()) {
        ++at;
        continue;
      }
      Orphan(at->first);
      due.erase(at->first);
      at = processes.erase(at);
    }
  }

  std::map<std::int32_t, Process> processes;
  std::deque<std::pair<std::int32_t, seconds>> arrivals;
  std::set<std::int32_t> due;
  std::map<std::int32_t, seconds> late;

 private:
  void Orphan(std::int32_t pid) {
    for (const std::int32_t child : ChildrenOf(pid)) processes.at(child).parent = 1;
  }
};

class TtlProcessTreePropertyTest : public TreeFixture {
 protected:
  std::uint32_t Any(std::uint32_t below) { return static_cast<std::uint32_t>(random_() % below); }
  std::int32_t AnyPid() { return 2 + static_cast<std::int32_t>(Any(kPids)); }
  seconds Now() { return std::chrono::duration_cast<seconds>(clock_.SteadyNow().time_since_epoch()); }
  static std::set<std::uint32_t> IdSet(internal::EventHeap heap) {
    std::set<std::uint32_t> ids;
    for (const std::uint32_t id : Ids(std::move(heap))) EXPECT_TRUE(ids.insert(id).second) << id << " came twice";
    return ids;
  }

  void DoStart() {
    const std::int32_t pid = AnyPid();
    const std::int32_t ppid = Any(6) == 0 ? 1 : AnyPid();
    auto start = Start(pid, ppid);
    const std::uint32_t id = start->GetId();
    ASSERT_EQ(tree_->IsPidReused(*start), model_.Has(pid) && model_.processes.at(pid).has_ended);
    if (tree_->IsPidReused(*start)) {
      EXPECT_EQ(IdSet(tree_->GetDescendantEvents(pid)), model_.TakeBelow(pid));
      tree_->ExpireProcess(pid);
      model_.Expire(pid);
      DeleteStale();
      ASSERT_FALSE(tree_->Has(pid));
    }
    if (model_.Has(pid) && ppid == 1) model_.processes.at(pid).parent = 1;
    tree_->AddEvent(std::move(start));
    if (!model_.Has(1)) {
      model_.processes[1] = {};
      model_.arrivals.emplace_back(1, Now());
    }
    model_.Start(pid, ppid, id, Now());
  }
  void DoOther(bool is_end) {
    const std::int32_t pid = AnyPid();
    if (!model_.Has(pid)) {
      EXPECT_THROW(tree_->AddEvent(Write(pid, 1)), TtlProcessTreeException);
      return;
    }
    const std::int32_t ppid = Any(3) == 0 ? 1 : model_.processes.at(pid).parent;
    auto event = is_end ? Exit(pid, ppid) : Write(pid, ppid);
    model_.Add(pid, ppid, event->GetId(), is_end, Now());
    tree_->AddEvent(std::move(event));
  }
  void DoTake() {
    const std::int32_t pid = AnyPid();
    if (!model_.Has(pid)) return;
    std::set<std::uint32_t> taken = model_.Take(pid);
    for (const std::int32_t child : model_.ChildrenOf(pid)) taken.merge(model_.Take(child));
    EXPECT_EQ(IdSet(tree_->GetEventsFromCache(pid)), taken);
  }
  void DeleteStale() {
    tree_->DeleteStaleProcesses();
    model_.DeleteStale();
  }
  void Wait(seconds duration) {
    clock_.Advance(duration);
    EXPECT_EQ(IdSet(tree_->GetExpiredEvents()), model_.TakeExpired(Now()));
    if (Any(2) == 0) DeleteStale();
  }
  void Step() {
    const std::uint32_t what = Any(100);
    if (what < 35) {
      DoStart();
    } else if (what < 60) {
      DoOther(false);
    } else if (what < 80) {
      DoOther(true);
    } else if (what < 85) {
      DoTake();
    } else {
      Wait(seconds(Any(30)));
    }
  }
  // The tree is what the model says, and its links agree in both directions.
  void Compare() {
    ASSERT_EQ(tree_->GetSize(), model_.processes.size());
    for (const auto& [pid, process] : model_.processes) {
      ASSERT_TRUE(tree_->Has(pid)) << pid;
      const auto real = tree_->Get(pid);
      ASSERT_EQ(real->GetParent(), pid == 1 ? common::ProcessInfo::kNoParent : process.parent) << pid;
      ASSERT_EQ(ChildrenOf(pid), model_.ChildrenOf(pid)) << pid;
      ASSERT_EQ(real->GetChildren().size(), model_.ChildrenOf(pid).size()) << pid;
      ASSERT_EQ(real->HasTag("Terminated"), process.has_ended) << pid;
      ASSERT_EQ(real->HasTag("TtlExpired"), process.has_expired) << pid;
      ASSERT_EQ(real->HasEvents(), !process.waiting.empty()) << pid;
      ASSERT_EQ(tree_->GetAncestors(pid).count(1), 1U) << pid;
    }
  }
  // Whatever has happened, nobody stays who has ended, and no event.
  void EndEverybody() {
    for (std::int32_t pid = 2; pid < 2 + kPids; ++pid) {
      if (!model_.Has(pid)) continue;
      auto end = Exit(pid, 1);
      model_.Add(pid, 1, end->GetId(), true, Now());
      tree_->AddEvent(std::move(end));
    }
    Wait(seconds(120));
    DeleteStale();
    EXPECT_EQ(tree_->GetSize(), model_.processes.empty() ? 0U : 1U);
    EXPECT_EQ(tree_->GetCachedBytes(), 0U);
  }

  std::mt19937 random_;  // NOLINT(cert-msc32-c,cert-msc51-cpp)
  Model model_;
};

TEST_F(TtlProcessTreePropertyTest, AnySequenceOfEventsLeavesTheTreeThatTheModelHas) {
  for (std::uint32_t seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    random_.seed(seed);
    tree_ = MakeTree();
    model_ = {};
    for (int step = 0; step < 600; ++step) {
      Step();
      Compare();
      if (HasFatalFailure() || HasNonfatalFailure()) FAIL() << "step " << step;
    }
    EndEverybody();
  }
}

// For ThreadSanitizer most of all.
TEST_F(TtlProcessTreePropertyTest, OthersMayReadWhileTheTreeChanges) {
  DoStart();
  std::atomic<bool> is_over{false};
  std::atomic<std::size_t> read{0};
  const auto look = [&](std::int32_t pid) {
    for (const auto& process : tree_->GetChildren(pid)) read += process->GetTags().size();
    read += tree_->GetSiblings(pid).size() + tree_->GetAncestors(pid).size() + tree_->GetSize();
    const auto process = tree_->Get(pid);
    read += process->GetArguments().size() + process->GetImage()->GetPath().size() + process->GetCachedBytes();
    read += static_cast<std::size_t>(process->GetScore()) + (process->HasTag("Terminated") ? 1 : 0);
    read += process->FindHeuristicsKey() != nullptr ? 1 : 0;
  };
  const auto read_on = [&](std::int32_t pid) {
    while (!is_over) {
      pid = pid % kPids + 1;
      try {
        if (tree_->Has(pid)) look(pid);
      } catch (const common::GenericProcessTreeException&) {
        // It has gone meanwhile.
      }
      read += tree_->GetCachedBytes();
    }
  };
  std::thread one(read_on, 0);
  std::thread other(read_on, kPids / 2);
  for (int step = 0; step < 3'000; ++step) {
    Step();
    const std::int32_t pid = AnyPid();
    if (!tree_->Has(pid)) continue;
    tree_->Get(pid)->AddScore(1);
    tree_->Get(pid)->AddTag("Reported");
    tree_->Get(pid)->SetHeuristicsKey("key");
    tree_->Update(tree_->Get(pid));
  }
  is_over = true;
  one.join();
  other.join();
  EXPECT_GT(read, 0U);
}

}  // namespace
}  // namespace zagent::ioc
