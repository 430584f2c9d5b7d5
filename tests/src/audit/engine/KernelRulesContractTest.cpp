#include "tests/src/audit/engine/KernelRulesContract.h"

namespace zagent::audit::internal {
namespace {

std::shared_ptr<AuditNetlink> MakeFake() {
  return std::make_shared<fakes::FakeAuditNetlink>();
}

INSTANTIATE_TEST_SUITE_P(Fake, KernelRulesContract,
                         ::testing::Values(ContractKernel{"Fake", MakeFake, [] { return true; }}),
                         [](const auto& suite) { return suite.param.name; });

}  // namespace
}  // namespace zagent::audit::internal
