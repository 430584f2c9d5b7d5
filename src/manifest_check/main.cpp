// ostrel-manifest-check: says what is wrong in FIM manifests, and what the kernel will be asked to watch.
#include <iostream>
#include <string_view>

#include "src/manifest_check/ManifestCheck.h"

namespace {

constexpr const char* kUsage = R"(Usage: ostrel-manifest-check FILE...
Judges FIM manifests as the daemon would. Exit code 0 when it would take all of them with every rule, else 1.
)";

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == "--help") {
    std::cout << kUsage;
    return 0;
  }
  if (argc < 2) {
    std::cerr << kUsage;
    return 1;
  }
  zagent::manifest_check::ManifestCheck check(std::cout);
  bool is_good = true;
  for (int i = 1; i < argc; ++i) is_good = check.Check(argv[i]) && is_good;
  return is_good ? 0 : 1;
}
