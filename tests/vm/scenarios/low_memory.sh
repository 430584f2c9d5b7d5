# shellcheck shell=dash
# time: virtual
# As little memory as can be had, and more bytes than it holds: the parser's queue drops and says so, the daemon stays
# small, and afterwards everything is reported as before.
. /scenario/lib.sh

# In KB: what may wait for the parser at least, twice the least number of events (waiting and resting), and what the
# process may be beyond that.
ALLOWED=$((100 * 1024 + 2 * 10000 * 1100 / 1024))
BEYOND=40000

peak() { sed -n 's/^VmHWM:[^0-9]*\([0-9]*\) kB/\1/p' "/proc/$(daemon_pid)/status"; }
report_of_drop() { grep '^status 4004 EDR state=0 ' $LOG/receiver.log | grep -q '"queueDropped":[1-9]'; }

# A long way down makes long records: few events fill the queue.
deep=$WATCHED
for _ in $(seq 18); do deep=$deep/$(printf '%0200d' 0); done
mkdir -p $deep
for file in $(seq 0 99); do : >$deep/$file; done

write_configuration
printf '{"data": {"fim": {"policyVersion": "1.0", "collectHashes": false, "rules": [{"ruleId": "only-creations",
  "ruleType": "directory", "imagePath": "%s", "recursiveDepth": "all", "notify": ["create"]}]}}}' $WATCHED >$CONF/fim-manifest.json
configure cpu_limit 3
configure memory_limit 0
extended_coverage false
sed -i 's/^\(logging.loggers.l0.level\) = .*/\1 = information/' $CONF/log.properties
start_configured
storm() { (cd $deep && event-load $deep 16000 0 0 5000 50); }
expect "the events are made" storm
expect "the queue is full" wait_until 10 log_says "Audit parser queue threshold hit. Disabling queueing of events."
expect "and has room again" wait_until 3600 log_says "Enabling the audit parser queue"
step "the daemon was $(peak) KB at most"
expect "it stays small" [ "$(peak)" -le $((ALLOWED + BEYOND)) ]
expect "the platform hears of the loss" wait_until 400 report_of_drop
act create $WATCHED/afterwards.txt
expect "what comes then is reported" wait_until 3600 received "$(cat $OWED)"
expect "it is still small" [ "$(peak)" -le $((ALLOWED + BEYOND)) ]
stop_all
