#include "tools/reference-receiver/PageFeed.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "common/src/util/Utf8.h"

namespace zagent::tools {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

constexpr std::size_t kMaxShownAgents = 50;
constexpr std::array<const char*, 3> kKindNames = {"fim", "ioc", "health"};

constexpr std::size_t IndexOf(PageUpload::Kind kind) {
  return static_cast<std::size_t>(kind);
}

void Raise(std::uint64_t& sum, std::uint64_t count) {
  sum += std::min(count, std::numeric_limits<std::uint64_t>::max() - sum);
}

void WriteText(Writer& out, const char* name, const std::string& text) {
  out.Key(name);
  out.String(text);
}

void WriteCount(Writer& out, const char* name, std::uint64_t count) {
  out.Key(name);
  out.Uint64(count);
}

void WriteCounts(Writer& out, const char* name, const std::map<std::string, std::uint64_t>& counts) {
  out.Key(name);
  out.StartObject();
  for (const auto& [reason, count] : counts) WriteCount(out, reason.c_str(), count);
  out.EndObject();
}

// `object` with further members in front.
std::string WithMembers(const std::string& members, const std::string& object) {
  return "{" + members + (object == "{}" ? "" : ",") + object.substr(1);
}

std::string Quoted(const std::string& text) {
  rapidjson::StringBuffer buffer;
  Writer out(buffer);
  out.String(text);
  return {buffer.GetString(), buffer.GetSize()};
}

std::string MembersOf(const std::string& agent_id, const std::string& host, std::int64_t received) {
  return "\"agent\":" + Quoted(agent_id) + ",\"host\":" + Quoted(host) + ",\"received\":" + std::to_string(received);
}

using Iterator = std::deque<std::string>::const_iterator;

// An array of objects as they stand.
std::string Join(const Iterator& begin, const Iterator& end) {
  std::string json = "[";
  for (auto item = begin; item != end; ++item) {
    if (item != begin) json += ',';
    json += *item;
  }
  return json + "]";
}

}  // namespace

PageFeed::PageFeed(const common::util::Clock& clock) : clock_(clock), started_(Milliseconds()) {}

void PageFeed::OnUpload(const std::string& agent_id, const std::string& target, const std::string& payload) {
  const PageUpload upload = PageUpload::Read(target, payload);
  {
    const std::lock_guard lock(mutex_);
    ++books_version_;
    ++uploads_;
    Raise(bytes_, payload.size());
    AgentBook& book = BookOf(agent_id);
    ++book.uploads;
    if (!upload.host.empty()) book.host = upload.host;
    if (upload.kind == PageUpload::Kind::Other) ++unreadable_;
    if (upload.sequence_number != 0) NoteSequence(book, upload.sequence_number);
    // Events of a batch come by time, but who started whom may be told anywhere in it.
    for (const PageUpload::Event& event : upload.events) {
      if (event.start) RememberStart(agent_id, *event.start);
    }
    const bool is_ioc = upload.kind == PageUpload::Kind::Ioc;
    for (const PageUpload::Event& event : upload.events) AddEvent(agent_id, book, event, is_ioc);
    for (const std::string& row : upload.health) AddHealth(agent_id, book, row);
    for (const auto& [reason, count] : upload.lost) {
      Add(lost_, reason, count);
      Add(book.lost, reason, count);
    }
    const std::pair<PageUpload::Kind, std::size_t> came[] = {
        {is_ioc ? PageUpload::Kind::Ioc : PageUpload::Kind::Fim, upload.events.size()},
        {PageUpload::Kind::Health, upload.health.size()}};
    for (const auto& [kind, count] : came) {
      items_[IndexOf(kind)] += count;
      book.items[IndexOf(kind)] += count;
      CountRate(IndexOf(kind), count);
    }
  }
  Tell();
}

void PageFeed::OnRepeated() {
  {
    const std::lock_guard lock(mutex_);
    ++books_version_;
    ++repeated_;
  }
  Tell();
}

void PageFeed::OnRefused(const std::string& reason) {
  {
    const std::lock_guard lock(mutex_);
    ++books_version_;
    Add(refused_, common::util::ReplaceInvalidUtf8(reason.substr(0, std::min<std::size_t>(reason.find(':'), 128))), 1);
  }
  Tell();
}

void PageFeed::SetListener(std::function<void()> listener) {
  const std::lock_guard lock(listener_mutex_);
  listener_ = std::move(listener);
}

void PageFeed::Tell() {
  const std::lock_guard lock(listener_mutex_);
  if (listener_) listener_();
}

PageFeed::Portion PageFeed::EventsFrom(std::uint64_t number, std::size_t max_bytes) const {
  const std::lock_guard lock(mutex_);
  const std::uint64_t first = next_number_ - events_.size();
  number = std::clamp(number, first, next_number_);
  const auto begin = events_.begin() + static_cast<std::ptrdiff_t>(number - first);
  auto end = begin;
  for (std::size_t size = 0; end != events_.end() && size < max_bytes; ++end) size += end->size();
  return {Join(begin, end), number + static_cast<std::uint64_t>(end - begin), begin == end};
}

std::uint64_t PageFeed::NextNumber() const {
  const std::lock_guard lock(mutex_);
  return next_number_;
}

std::string PageFeed::Health() const {
  const std::lock_guard lock(mutex_);
  return Join(health_.begin(), health_.end());
}

std::uint64_t PageFeed::HealthVersion() const {
  const std::lock_guard lock(mutex_);
  return health_version_;
}

std::uint64_t PageFeed::BooksVersion() const {
  const std::lock_guard lock(mutex_);
  return books_version_;
}

std::string PageFeed::Books() const {
  const std::lock_guard lock(mutex_);
  rapidjson::StringBuffer buffer;
  Writer out(buffer);
  out.StartObject();
  out.Key("now");
  out.Int64(Milliseconds());
  out.Key("started");
  out.Int64(started_);
  WriteCount(out, "uploads", uploads_);
  WriteCount(out, "bytes", bytes_);
  WriteCount(out, "repeated", repeated_);
  WriteCount(out, "unreadable", unreadable_);
  WriteCount(out, "lostBatches", lost_batches_);
  WriteCount(out, "forgotten", next_number_ - 1 - events_.size());
  for (std::size_t kind = 0; kind < kKinds; ++kind) WriteCount(out, kKindNames.at(kind), items_.at(kind));
  WriteCounts(out, "refused", refused_);
  WriteCounts(out, "lost", lost_);
  WriteCount(out, "agentCount", agents_.size() + forgotten_agents_);
  WriteAgents(out);
  WriteRates(out);
  out.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

void PageFeed::WriteAgents(Writer& out) const {
  std::vector<decltype(agents_)::const_pointer> shown;
  for (const auto& agent : agents_) shown.push_back(&agent);
  const std::size_t count = std::min(shown.size(), kMaxShownAgents);
  std::partial_sort(shown.begin(), shown.begin() + static_cast<std::ptrdiff_t>(count), shown.end(),
                    [](const auto* a, const auto* b) { return a->second.order > b->second.order; });
  shown.resize(count);
  out.Key("agents");
  out.StartArray();
  for (const auto* agent : shown) {
    const AgentBook& book = agent->second;
    out.StartObject();
    WriteText(out, "agent", agent->first);
    WriteText(out, "host", book.host);
    WriteCount(out, "uploads", book.uploads);
    for (std::size_t kind = 0; kind < kKinds; ++kind) WriteCount(out, kKindNames.at(kind), book.items.at(kind));
    WriteCount(out, "lostBatches", book.lost_batches);
    WriteCounts(out, "lost", book.lost);
    out.Key("heard");
    out.Int64(book.heard);
    out.EndObject();
  }
  out.EndArray();
}

void PageFeed::WriteRates(Writer& out) const {
  const std::int64_t now = std::max(CurrentStep(), last_step_);
  constexpr auto kSteps = static_cast<std::int64_t>(kRateSteps);
  out.Key("rates");
  out.StartObject();
  WriteCount(out, "step", static_cast<std::uint64_t>(kRateStep.count()));
  for (std::size_t kind = 0; kind < kKinds; ++kind) {
    out.Key(kKindNames.at(kind));
    out.StartArray();
    for (std::int64_t step = now - kSteps + 1; step <= now; ++step) {
      const bool is_known = step <= last_step_ && step > last_step_ - kSteps;
      out.Uint64(is_known ? rates_.at(kind).at(static_cast<std::size_t>(step % kSteps)) : 0);
    }
    out.EndArray();
  }
  out.EndObject();
}

PageFeed::AgentBook& PageFeed::BookOf(const std::string& agent_id) {
  if (!agents_.contains(agent_id) && agents_.size() == kMaxAgents) {
    agents_.erase(std::min_element(agents_.begin(), agents_.end(),
                                   [](const auto& a, const auto& b) { return a.second.order < b.second.order; }));
    ++forgotten_agents_;
  }
  AgentBook& book = agents_[agent_id];
  book.heard = Milliseconds();
  book.order = ++agent_order_;
  return book;
}

void PageFeed::NoteSequence(AgentBook& book, std::uint64_t number) {
  if (book.last_sequence_number != 0 && number > book.last_sequence_number + 1) {
    Raise(book.lost_batches, number - book.last_sequence_number - 1);
    Raise(lost_batches_, number - book.last_sequence_number - 1);
  }
  book.last_sequence_number = std::max(book.last_sequence_number, number);
}

void PageFeed::AddEvent(const std::string& agent_id, const AgentBook& book, const PageUpload::Event& event,
                        bool is_ioc) {
  std::string members =
      "\"n\":" + std::to_string(next_number_++) + "," + MembersOf(agent_id, book.host, Milliseconds());
  if (is_ioc) members += ",\"ancestry\":" + AncestryOf(agent_id, event);
  events_.push_back(WithMembers(members, event.json));
  event_bytes_ += events_.back().size();
  while (events_.size() > kMaxEvents || event_bytes_ > kMaxBytes) {
    event_bytes_ -= events_.front().size();
    events_.pop_front();
  }
}

void PageFeed::AddHealth(const std::string& agent_id, const AgentBook& book, const std::string& row) {
  ++health_version_;
  health_.push_back(WithMembers(MembersOf(agent_id, book.host, Milliseconds()), row));
  if (health_.size() > kMaxHealth) health_.pop_front();
}

void PageFeed::RememberStart(const std::string& agent_id, const PageUpload::Start& start) {
  if (start.unique_id.empty()) return;
  const std::pair key(agent_id, start.unique_id);
  if (starts_.insert_or_assign(key, start).second) start_order_.push_back(key);
  last_of_pid_[{agent_id, start.pid}] = start.unique_id;
  if (starts_.size() > kMaxProcesses) ForgetOldestStart();
}

void PageFeed::ForgetOldestStart() {
  const auto start = starts_.find(start_order_.front());
  const auto last = last_of_pid_.find({start->first.first, start->second.pid});
  if (last != last_of_pid_.end() && last->second == start->first.second) last_of_pid_.erase(last);
  starts_.erase(start);
  start_order_.pop_front();
}

const PageUpload::Start* PageFeed::FindStart(const std::string& agent_id, const std::string& unique_id,
                                             std::int64_t pid) const {
  auto found = starts_.find({agent_id, unique_id});
  if (found == starts_.end()) {
    const auto last = last_of_pid_.find({agent_id, pid});
    if (last != last_of_pid_.end()) found = starts_.find({agent_id, last->second});
  }
  return found == starts_.end() ? nullptr : &found->second;
}

std::string PageFeed::AncestryOf(const std::string& agent_id, const PageUpload::Event& event) const {
  rapidjson::StringBuffer buffer;
  Writer out(buffer);
  out.StartArray();
  const auto write = [&out](std::int64_t pid, const std::string& path, const std::string& user,
                            const std::string& arguments) {
    out.StartObject();
    out.Key("pid");
    out.Int64(pid);
    WriteText(out, "path", path);
    WriteText(out, "user", user);
    WriteText(out, "arguments", arguments);
    out.EndObject();
  };
  std::string id = event.actor_id;
  std::int64_t pid = event.actor_pid;
  std::string path = event.actor_path;
  std::string user = event.actor_user;
  for (std::size_t depth = 0; depth < kMaxAncestors && (pid != 0 || !path.empty()); ++depth) {
    const PageUpload::Start* start = FindStart(agent_id, id, pid);
    if (start == nullptr) {
      write(pid, path, user, "");
      break;
    }
    // The event knows the program that acted; the start may be of another one that the process ran.
    const bool is_same = path.empty() || path == start->path;
    write(pid, path.empty() ? start->path : path, user.empty() ? start->user : user, is_same ? start->arguments : "");
    if (start->parent_pid == pid) break;
    id = start->parent_unique_id;
    pid = start->parent_pid;
    path.clear();
    user.clear();
  }
  out.EndArray();
  return {buffer.GetString(), buffer.GetSize()};
}

void PageFeed::CountRate(std::size_t kind, std::uint64_t count) {
  constexpr auto kSteps = static_cast<std::int64_t>(kRateSteps);
  const std::int64_t now = std::max(CurrentStep(), last_step_);  // a clock that is set back counts where it was
  for (std::int64_t step = std::max(last_step_, now - kSteps) + 1; step <= now; ++step) {
    for (auto& ring : rates_) ring.at(static_cast<std::size_t>(step % kSteps)) = 0;
  }
  last_step_ = now;
  rates_.at(kind).at(static_cast<std::size_t>(now % kSteps)) += count;
}

std::int64_t PageFeed::CurrentStep() const {
  return Milliseconds() / std::chrono::milliseconds(kRateStep).count();
}

std::int64_t PageFeed::Milliseconds() const {
  return std::max<std::int64_t>(0, common::util::ToNanoseconds(clock_.Now()) / 1'000'000);
}

void PageFeed::Add(Counts& counts, const std::string& name, std::uint64_t count) {
  const bool has_room = counts.contains(name) || counts.size() < kMaxReasons;
  Raise(counts[has_room ? name : "other"], count);
}

}  // namespace zagent::tools
