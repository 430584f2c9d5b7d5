#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/src/util/Json.h"
#include "src/edr/Event.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/rules/WholeTextPattern.h"

namespace zagent::ioc::internal {

// A tactic of intruders, and how an event shows that its process makes use of it.
//
// Score and exclusions are those that it was made with; what it looks for is guarded by a mutex, so that Configure and
// the questions may come from different threads. The tree that it asks about processes belongs to who calls Check.
class Tag {
 public:
  Tag(const Tag&) = delete;
  Tag& operator=(const Tag&) = delete;

  // What the tag looks for. Keys that are missing or make no sense are told in a warning each, and have their defaults.
  // Throws std::invalid_argument "Settings is not a valid json object".
  virtual void Configure(const rapidjson::Value& settings) = 0;
  virtual ~Tag() = default;
  // Whether the tactic applies to the actor of the event, who is in the tree: throws what the tree throws for others.
  [[nodiscard]] virtual bool Check(const edr::Event& event) const = 0;

  [[nodiscard]] const std::string& GetName() const { return name_; }
  // How much the tag adds to the score of a process.
  [[nodiscard]] std::int64_t GetScore() const { return score_; }

  // Whether the program is not to be judged by what it does with `value`, a path or an address; an empty value stands
  // for all that it does.
  [[nodiscard]] bool IsExcluded(const std::string& image_path, const std::string& value) const;

  // The score of a tag's settings; 0 for a tag that is off. Throws std::runtime_error without one.
  [[nodiscard]] static std::int64_t ParseScore(const std::string& name, const rapidjson::Value& settings);

 protected:
  // `tree` outlives the tag. Throws std::runtime_error for settings without a score and for exclusions that make no
  // sense.
  Tag(std::string name, const TtlProcessTree& tree, const rapidjson::Value& settings);

  [[nodiscard]] const TtlProcessTree& GetTree() const { return tree_; }
  [[nodiscard]] std::mutex& GetMutex() const { return mutex_; }
  [[nodiscard]] bool HasTag(const edr::Event& event) const;
  // Of a file, or of the two ends of a rename, of which each counts by itself.
  [[nodiscard]] bool IsFileExcluded(const edr::Event& event) const;

  static void CheckIsObject(const rapidjson::Value& settings);
  // The regular expression of this key, or the default with a warning.
  [[nodiscard]] static WholeTextPattern ParsePattern(const rapidjson::Value& settings, const char* key,
                                                     const char* fallback);

 private:
  // Of a program, everything or what it does with values of a pattern.
  struct Exclusion {
    WholeTextPattern program;
    std::optional<WholeTextPattern> values;
  };

  [[nodiscard]] std::vector<Exclusion> ParseExclusions(const rapidjson::Value& settings) const;
  [[nodiscard]] static Exclusion ParseExclusion(const rapidjson::Value& json, const std::string& error);

  const std::string name_;
  const TtlProcessTree& tree_;
  const std::int64_t score_;
  const std::vector<Exclusion> exclusions_;
  mutable std::mutex mutex_;
};

// The path of an object, empty for null.
[[nodiscard]] const std::string& PathOf(const common::ImageInfo* object);

// Of an event of a file: whether the file's path does, or on a rename the new one.
template <typename Condition>
[[nodiscard]] bool AnyPathOf(const edr::Event& event, Condition condition) {
  return condition(PathOf(event.GetFile())) ||
         (event.GetType() == edr::EventType::Rename && condition(PathOf(event.GetNewFile())));
}

}  // namespace zagent::ioc::internal
