# shellcheck shell=dash
# time: virtual
# Fifty thousand file events on a machine with one processor, of which the daemon may have a twentieth: it takes its time,
# loses nothing and reports what is to be reported in the end.
. /scenario/lib.sh

LIMIT=5
EVENTS=50000

spent() { awk '{ print $14 + $15 }' "/proc/$(daemon_pid)/stat"; }   # hundredths of a second
now() { cut -d' ' -f1 /proc/uptime | tr -d .; }                     # the same

lost() { audit-rules status | sed 's/.* lost=\([0-9]*\) .*/\1/'; }

write_configuration
# The events are of a kind that nobody wants to hear of: they pass the intake and are no documents.
printf '{"data": {"fim": {"policyVersion": "1.0", "collectHashes": false, "rules": [{"ruleId": "only-creations",
  "ruleType": "directory", "imagePath": "%s", "recursiveDepth": "all", "notify": ["create"]}]}}}' $WATCHED >$CONF/fim-manifest.json
configure cpu_limit $LIMIT
extended_coverage false
log_level information
for file in $(seq 0 99); do : >$WATCHED/$file; done
start_configured
lost_before=$(lost)
begin=$(now)
spent_before=$(spent)
expect "the events are made" event-load $WATCHED $EVENTS 0 0
made=$(now)
act create $WATCHED/the-last
expect "the last event comes when all others have passed" wait_until 7200 received "$(cat $OWED)"
took=$(($(now) - begin))
used=$(($(spent) - spent_before))
step "$EVENTS events were made in $(((made - begin) / 100)) s and passed in $((took / 100)) s; the daemon took \
$((used / 100)).$((used % 100)) s of the processor, $((used * 1000 / took)) tenths of a percent"
for task in /proc/"$(daemon_pid)"/task/*; do
  step "  $(cat "$task/comm"): $(awk '{ print $14 + $15 }' "$task/stat") hundredths of a second in all"
done
expect "near its limit" [ $((used * 1000 / took)) -le $((LIMIT * 15)) ]
expect "which it makes use of" [ $((used * 1000 / took)) -ge $((LIMIT * 5)) ]
expect "the kernel lost nothing" is "$(lost)" "$lost_before"
expect "no byte was dropped" not log_says "Audit parser queue threshold hit"
stop_all
expect "nothing was lost on the way" not grep -E 'Intake losses since the start: .*(bound|stop|processed)' $LOG/edr.log
