# shellcheck shell=dash
# A scenario whose expectation does not hold, to show that run-guest says so: this test is expected to fail.
. /scenario/lib.sh

expect "the first expectation holds" true
expect "the second one does not" is one two
