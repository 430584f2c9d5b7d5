# shellcheck shell=dash
# with: auditd
# time: virtual
# Somebody else takes the daemon's place as the kernel's consumer, which ends nothing and tells nobody: the daemon
# notices by its proof of life, and tells who has the place, that nobody has it, and that audit is off, apart.
. /scenario/lib.sh

ROUND=600   # seconds between two proofs
SILENT="Proof of life: audit is silent: "

# said TEXT COUNT: the log has the text so often.
said() { is "$(grep -cF -- "$1" $LOG/edr.log)" "$2"; }

# pass_round: until the next proof is due and its minute is over.
pass_round() { sleep $((ROUND + 90)); }

has_place() { audit-rules status | grep -q " pid=$1 "; }

reported_silent() { grep '^status 4004 EDR state=0 ' $LOG/receiver.log | grep -qF "\"auditSilent\":\"$1"; }

mkdir -p $WATCHED
start_all
expect "its rules are in force" wait_until 10 has_rule "dir=$WATCHED .*key="
sleep 5   # now it has no other socket to the kernel open
READER=$(grep -lx edr-audit "/proc/$(daemon_pid)"/task/*/comm | sed 's|.*/task/\(.*\)/comm|\1|')
expect "it loses its socket" [ "$(lose-consumer "$READER")" -ge 1 ]
audit-recorder processes /run/recorded >>$LOG/recorder.out 2>&1 &
OTHER=$!
expect "another program has the place" wait_until 20 has_place $OTHER

step "another program receives the records"
pass_round
expect "it is told who" said "${SILENT}process $OTHER receives the kernel's records" 1
sleep 300
expect "the platform knows" wait_until 30 reported_silent "process $OTHER receives the kernel's records"

step "nobody receives the records"
kill $OTHER
wait $OTHER
pass_round
expect "the place is free" has_place 0
expect "that is told apart" said "${SILENT}nobody receives the kernel's records" 1

step "audit is switched off as well"
auditctl -e 0
pass_round
expect "that is told apart, too" said "${SILENT}audit is switched off" 1
expect "nothing was told twice" said "$SILENT" 3
expect "the daemon lives on" kill -0 "$(daemon_pid)"
stop_all
