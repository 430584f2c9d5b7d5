#pragma once

#include <filesystem>
#include <string>

namespace zagent::fakes {

// The tree that the tests were built from.
[[nodiscard]] std::filesystem::path SourceTree();

// A file of tests/data.
[[nodiscard]] inline std::string TestData(const std::string& name) {
  return SourceTree() / "tests/data" / name;
}

// The records of one step of a recording: those behind its mark, up to the next one.
[[nodiscard]] std::string RecordsOfStep(const std::string& recording, const std::string& step);

}  // namespace zagent::fakes
