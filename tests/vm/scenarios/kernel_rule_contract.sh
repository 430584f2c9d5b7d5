# shellcheck shell=dash
# The rule engine's own tests, against the kernel instead of the fake.
. /scenario/lib.sh

OSTREL_GUEST=1 kernel_rules_guest_test 2>&1 | tee $LOG/contract.log
expect "some tests ran and all passed" grep -qE '^\[  PASSED  \] [1-9][0-9]* tests?\.$' $LOG/contract.log
expect "none was skipped" not grep -q 'SKIPPED' $LOG/contract.log
expect "none failed" not grep -q 'FAILED' $LOG/contract.log
expect "no rule is left" rules_empty
