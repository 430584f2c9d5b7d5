#include "tests/fakes/TestData.h"

namespace zagent::fakes {

std::filesystem::path SourceTree() {
  return OSTREL_SOURCE_TREE;
}

}  // namespace zagent::fakes
