// Feeds every file of the folders and files on the command line to a fuzz target, once each.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

bool Replay(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    std::cerr << "cannot read " << file << "\n";
    return false;
  }
  const std::vector<char> bytes(std::istreambuf_iterator<char>(in), {});
  std::cout << file.filename().string() << " (" << bytes.size() << " bytes)" << std::endl;
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    const fs::path path = argv[i];
    std::vector<fs::path> files;
    if (fs::is_directory(path)) {
      for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
    } else {
      files.push_back(path);
    }
    for (const fs::path& file : files) {
      if (!Replay(file)) return 1;
      ++replayed;
    }
  }
  // A corpus that has gone missing must not pass for one without faults.
  if (replayed == 0) {
    std::cerr << "usage: " << argv[0] << " CORPUS...: no file to replay\n";
    return 1;
  }
  std::cout << replayed << " inputs replayed\n";
  return 0;
}
