# shellcheck shell=dash
# The same calls with everything that extended coverage adds: openat2, the time calls, what opening creates and cuts off,
# truncate, exchanged names, io_uring.
. /scenario/lib.sh

make_every_call true --extended
