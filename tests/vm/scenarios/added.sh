# shellcheck shell=dash
# What the caller of the guest has added is there: a program with its libraries, and a file at the place that was asked for.
# The test that runs this adds xz and this script.
. /scenario/lib.sh

expect "an added program runs" sh -c 'echo text | /usr/local/bin/xz | /usr/local/bin/xz -d | grep -qx text'
expect "an added file is where it was wanted" cmp /root/kept/story /scenario/run
expect "the kernel is the one that was asked for" is "$(uname -r | cut -d. -f1,2)" 6.1
