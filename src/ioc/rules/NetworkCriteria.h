#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "src/edr/FilterCriteria.h"
#include "src/ioc/rules/WholeTextPattern.h"

namespace zagent::ioc::internal {

// A regular expression (PCRE) that the whole of an address must match.
class AddressPattern {
 public:
  // Throws edr::FilterCriteriaException for what is no regular expression.
  explicit AddressPattern(std::string text);

  [[nodiscard]] bool Matches(const std::string& address) const { return pattern_.Matches(address); }
  [[nodiscard]] const std::string& GetText() const { return text_; }

 private:
  std::string text_;
  WholeTextPattern pattern_;
};

// Whether an event of the network concerns these programs, addresses and ports. "Local" filters are held against bind
// events, "remote" ones against all others. What has no filter of its own plays no part; an event for which none of the
// filters plays a part matches in an inclusion group and not in an exclusion group. Protocols are kept and never looked
// at.
class NetworkCriteria final : public edr::FilterCriteria {
 public:
  struct PortRange {
    std::uint32_t min;
    std::uint32_t max;  // belongs to the range
  };
  struct Ports {
    std::vector<std::uint32_t> numbers;
    std::vector<PortRange> ranges;
  };
  struct Side {
    std::vector<AddressPattern> addresses;
    Ports ports;
  };
  struct Filters {
    std::vector<edr::PathGlob> programs;
    std::vector<std::string> protocols;
    Side local;
    Side remote;
  };

  NetworkCriteria(Group group, Filters filters);

  [[nodiscard]] bool Match(const edr::Event& event) const override;

  // An object with `number`, an array, or `range`, an array of objects with `min` and `max`, or both. Throws
  // edr::FilterCriteriaException.
  [[nodiscard]] static Ports ParsePorts(const rapidjson::Value& json);
  // An array of regular expressions. Throws edr::FilterCriteriaException.
  [[nodiscard]] static std::vector<AddressPattern> ParseAddresses(const rapidjson::Value& json);

 private:
  enum class Answer : std::uint8_t { NoFilter = 0, Matched = 1, NotMatched = 2 };

  [[nodiscard]] Answer MatchProgram(const edr::Event& event) const;
  [[nodiscard]] Answer MatchSide(const edr::Event& event) const;
  [[nodiscard]] static Answer MatchAddress(const std::vector<AddressPattern>& addresses, const edr::Event& event);
  [[nodiscard]] static Answer MatchPort(const Ports& ports, const edr::Event& event);
  [[nodiscard]] static bool HasNumber(const std::vector<std::uint32_t>& numbers, std::uint32_t port);
  [[nodiscard]] static bool HasRange(const std::vector<PortRange>& ranges, std::uint32_t port);

  const std::vector<std::string> protocols_;
  const Side local_;
  const Side remote_;
};

}  // namespace zagent::ioc::internal
