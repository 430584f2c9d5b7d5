#include "src/ioc/rules/NetworkCriteria.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {
namespace {

using common::util::FindMember;
using common::util::JsonPlace;
using edr::FilterCriteriaException;

std::uint32_t ParsePort(const rapidjson::Value* json, JsonPlace place) {
  constexpr std::uint32_t kLargest = 65535;
  if (json == nullptr || !json->IsUint() || json->GetUint() > kLargest) {
    throw FilterCriteriaException("Invalid Port numbers in manifest", std::move(place));
  }
  return json->GetUint();
}

// The array of this name; null when there is none.
const rapidjson::Value* FindPortArray(const rapidjson::Value& json, const char* key) {
  const rapidjson::Value* array = FindMember(json, key);
  if (array != nullptr && !array->IsArray()) throw FilterCriteriaException("Invalid Port numbers in manifest", {key});
  return array;
}

WholeTextPattern Compile(const std::string& text) {
  try {
    return WholeTextPattern(text);
  } catch (const Poco::Exception& error) {
    throw FilterCriteriaException("Invalid IP address pattern: " + error.displayText());
  }
}

// As people write it: an IPv4 address that an IPv6 socket uses is that address, and the interface of a link-local one
// is no part of it.
std::string PlainAddress(const std::string& address) {
  constexpr std::string_view kMapped = "::ffff:";
  std::string_view plain(address);
  plain = plain.substr(0, plain.find('%'));
  const bool is_mapped = plain.substr(0, kMapped.size()) == kMapped && plain.find('.') != std::string_view::npos;
  if (is_mapped) plain.remove_prefix(kMapped.size());
  return std::string(plain);
}

}  // namespace

AddressPattern::AddressPattern(std::string text) : text_(std::move(text)), pattern_(Compile(text_)) {}

NetworkCriteria::NetworkCriteria(Group group, Filters filters)
    : FilterCriteria(group, std::move(filters.programs)),
      protocols_(std::move(filters.protocols)),
      local_(std::move(filters.local)),
      remote_(std::move(filters.remote)) {}

std::vector<AddressPattern> NetworkCriteria::ParseAddresses(const rapidjson::Value& json) {
  constexpr const char* kInvalid = "Invalid value for filter patterns";
  if (!json.IsArray()) throw FilterCriteriaException(kInvalid);
  std::vector<AddressPattern> addresses;
  for (rapidjson::SizeType i = 0; i < json.Size(); ++i) {
    const JsonPlace place = {std::to_string(i)};
    if (!json[i].IsString()) throw FilterCriteriaException(kInvalid, place);
    try {
      addresses.emplace_back(common::util::ToString(json[i]));
    } catch (const FilterCriteriaException& error) {
      throw FilterCriteriaException(error.what(), place);
    }
  }
  return addresses;
}

NetworkCriteria::Ports NetworkCriteria::ParsePorts(const rapidjson::Value& json) {
  ZLOG_DEBUG("Parsing network port");
  const rapidjson::Value* numbers = FindPortArray(json, "number");
  const rapidjson::Value* ranges = FindPortArray(json, "range");
  if (numbers == nullptr && ranges == nullptr) throw FilterCriteriaException("Empty port object in manifest");
  Ports ports;
  for (rapidjson::SizeType i = 0; numbers != nullptr && i < numbers->Size(); ++i) {
    ports.numbers.push_back(ParsePort(&(*numbers)[i], {"number", std::to_string(i)}));
  }
  for (rapidjson::SizeType i = 0; ranges != nullptr && i < ranges->Size(); ++i) {
    const JsonPlace place = {"range", std::to_string(i)};
    const rapidjson::Value& range = (*ranges)[i];
    ports.ranges.push_back({ParsePort(FindMember(range, "min"), place), ParsePort(FindMember(range, "max"), place)});
  }
  return ports;
}

bool NetworkCriteria::Match(const edr::Event& event) const {
  ZLOG_DEBUG("Matching Network criteria");
  const Answer program = MatchProgram(event);
  if (program == Answer::NotMatched) return false;
  const Answer side = MatchSide(event);
  if (side == Answer::NotMatched) return false;
  if (program == Answer::NoFilter && side == Answer::NoFilter) return !IsExclusion();
  return true;
}

NetworkCriteria::Answer NetworkCriteria::MatchProgram(const edr::Event& event) const {
  ZLOG_DEBUG("Matching Actor criteria");
  if (GetPatterns().empty()) return Answer::NoFilter;
  const common::ImageInfo* image = event.GetImage();
  return image != nullptr && MatchesAny(image->GetPath()) ? Answer::Matched : Answer::NotMatched;
}

NetworkCriteria::Answer NetworkCriteria::MatchSide(const edr::Event& event) const {
  const bool is_local = event.GetType() == edr::EventType::Bind;
  ZLOG_DEBUG("Matching for event's " << (is_local ? "local" : "remote") << " address and port");
  const Side& side = is_local ? local_ : remote_;
  const Answer address = MatchAddress(side.addresses, event);
  if (address == Answer::NotMatched) return address;
  const Answer port = MatchPort(side.ports, event);
  return port == Answer::NoFilter ? address : port;
}

NetworkCriteria::Answer NetworkCriteria::MatchAddress(const std::vector<AddressPattern>& addresses,
                                                      const edr::Event& event) {
  if (addresses.empty()) return Answer::NoFilter;
  const std::string& address = event.GetNetworkAddress();
  const std::string plain = PlainAddress(address);
  const bool matched = std::any_of(addresses.begin(), addresses.end(), [&](const AddressPattern& pattern) {
    ZLOG_DEBUG("Matching Event IP: " << address << " with Filter IP: " << pattern.GetText());
    return pattern.Matches(address) || (plain != address && pattern.Matches(plain));
  });
  return matched ? Answer::Matched : Answer::NotMatched;
}

NetworkCriteria::Answer NetworkCriteria::MatchPort(const Ports& ports, const edr::Event& event) {
  if (ports.numbers.empty() && ports.ranges.empty()) return Answer::NoFilter;
  ZLOG_DEBUG("Matching port criteria");
  const std::uint32_t port = event.GetNetworkPort();
  const bool matched = HasNumber(ports.numbers, port) || HasRange(ports.ranges, port);
  ZLOG_DEBUG("Port criteria " << (matched ? "matched" : "not matched"));
  return matched ? Answer::Matched : Answer::NotMatched;
}

bool NetworkCriteria::HasNumber(const std::vector<std::uint32_t>& numbers, std::uint32_t port) {
  const bool matched = std::any_of(numbers.begin(), numbers.end(), [port](std::uint32_t number) {
    ZLOG_DEBUG("Matching event Port value: " << port << " with filter port value: " << number);
    return port == number;
  });
  if (matched) ZLOG_DEBUG("Matched Event port with filter port value");
  return matched;
}

bool NetworkCriteria::HasRange(const std::vector<PortRange>& ranges, std::uint32_t port) {
  const bool matched = std::any_of(ranges.begin(), ranges.end(), [port](const PortRange& range) {
    ZLOG_DEBUG("Matching event Port value: " << port << " with filter port range: [" << range.min << ", " << range.max
                                             << "]");
    return port >= range.min && port <= range.max;
  });
  if (matched) ZLOG_DEBUG("Matched Event port with filter port range");
  return matched;
}

}  // namespace zagent::ioc::internal
