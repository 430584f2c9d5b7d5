# shellcheck shell=dash
# with: auditd
# time: virtual
# seconds: 1200
# What Debian's audit daemon costs alone.
. /scenario/measuring.sh

prepare_load
start_auditd
measure $AUDITD
expect "it has written everything" wrote_everything
