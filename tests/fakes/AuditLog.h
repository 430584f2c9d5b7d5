#pragma once

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/fakes/TestData.h"

namespace zagent::fakes {

// The records that a real kernel wrote, by event (tests/data/audit-operations-6.1.log).
class AuditLog {
 public:
  AuditLog() {
    std::ifstream in(TestData("audit-operations-6.1.log"));
    for (std::string line; std::getline(in, line);) lines_.push_back(line + "\n");
    if (lines_.empty()) throw std::runtime_error("tests/data/audit-operations-6.1.log is missing");
  }

  // All records of the event with this serial number, in their order.
  [[nodiscard]] std::string Event(unsigned serial) const {
    std::string text;
    for (const std::string& record : Records(serial)) text += record;
    return text;
  }
  [[nodiscard]] std::vector<std::string> Records(unsigned serial) const {
    const std::string mark = ":" + std::to_string(serial) + "): ";
    std::vector<std::string> records;
    for (const std::string& line : lines_) {
      if (line.find(mark) != std::string::npos) records.push_back(line);
    }
    if (records.empty()) throw std::runtime_error("no event " + std::to_string(serial));
    return records;
  }
  [[nodiscard]] std::string All() const {
    std::string text;
    for (const std::string& line : lines_) text += line;
    return text;
  }

  // Serials of that log.
  static constexpr unsigned kMkdir = 27, kRmdir = 29, kOpenForWriting = 51, kRenameOver = 61, kAbend = 176;

 private:
  std::vector<std::string> lines_;
};

inline std::string Replaced(std::string text, const std::string& what, const std::string& with) {
  const std::size_t at = text.find(what);
  if (at == std::string::npos) throw std::runtime_error("'" + what + "' is not in: " + text);
  return text.replace(at, what.size(), with);
}

}  // namespace zagent::fakes
