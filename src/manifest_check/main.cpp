// ostrel-manifest-check: says what is wrong in manifests, and what the kernel will be asked to watch.
#include <iostream>
#include <string_view>

#include "src/manifest_check/ManifestCheck.h"

namespace {

constexpr const char* kUsage = R"(Usage: ostrel-manifest-check [--extended-coverage] FILE...
Judges manifests of FIM and of IOC as the daemon would. Exit code 0 when it would take all of them with every rule, else 1.
With --extended-coverage it shows what the kernel is asked to watch where the configuration has "extended_coverage".
)";
constexpr std::string_view kExtendedCoverage = "--extended-coverage";

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == "--help") {
    std::cout << kUsage;
    return 0;
  }
  const bool is_extended = argc > 1 && argv[1] == kExtendedCoverage;
  const int first_file = is_extended ? 2 : 1;
  if (argc <= first_file) {
    std::cerr << kUsage;
    return 1;
  }
  zagent::manifest_check::ManifestCheck check(std::cout, {.extended = is_extended, .io_uring = is_extended});
  bool is_good = true;
  for (int i = first_file; i < argc; ++i) is_good = check.Check(argv[i]) && is_good;
  check.Finish();
  return is_good ? 0 : 1;
}
