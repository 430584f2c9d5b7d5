# shellcheck shell=dash
# Comes to no end: run-guest has to end it, and to show what stands in its logs.
. /scenario/lib.sh

pass "something before it hangs"
echo "the last words of the log" >$LOG/hanging.log
sleep 3600
