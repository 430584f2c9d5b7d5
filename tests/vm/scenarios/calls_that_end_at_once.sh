# shellcheck shell=dash
# Every system call that the watch covers, in each of its forms, by a process that makes this one call: it ends at once,
# so that nothing is left in /proc to ask, or it stays. Calls that only extended coverage knows cause no event.
. /scenario/lib.sh

make_every_call false
