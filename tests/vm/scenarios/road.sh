# shellcheck shell=dash
# The whole road: a platform, an agent, the daemon; work in the watched folder by root and by an unprivileged user; each
# event at the platform with the right action, path and actor; a clean end. scripts/demo shows this scenario.
. /scenario/lib.sh

# user_of EVENT: the real user of its line.
user_of() { echo "$1" | sed 's/.* user=\([^ ]*\) audit-user=.*/\1/'; }

mkdir -p $WATCHED/empty $WATCHED/alice /srv/elsewhere
for name in report.txt plan.txt script.sh owned.txt draft.txt settings.tmp settings.conf outgoing.txt old.log linked.txt \
  alice/notes.txt; do
  echo "here before the daemon" >$WATCHED/$name
done
chown -R alice:alice $WATCHED/alice

write_configuration
start_receiver
step "reference-receiver, the platform, listens on https://127.0.0.1:8443"
start_agent
step "reference-agent, the parent agent, starts ostrel-edr and sends it the configuration"
if wait_for_daemon; then
  pass "daemon runs"
else
  fail "daemon runs" "$(tail -n 3 $LOG/agent.log $LOG/edr.log 2>&1 | tr '\n' ' ')"
  exit
fi
while read -r line; do step "  $line"; done <$LOG/agent.log
step "ostrel-edr (process $(daemon_pid)) receives the records of the kernel's audit: $(audit-rules status)"
step "the kernel's rules, from the manifest and for what is left out:"
audit-rules | while read -r rule; do step "  $rule"; done

step "working in $WATCHED:"
act create $WATCHED/new.txt
act write $WATCHED/report.txt
act --loginuid 1000 read $WATCHED/plan.txt
act chmod $WATCHED/script.sh 0755
act chown $WATCHED/owned.txt 1000
act rename $WATCHED/draft.txt $WATCHED/final.txt
act rename-over $WATCHED/settings.tmp $WATCHED/settings.conf
act rename $WATCHED/outgoing.txt /srv/elsewhere/outgoing.txt
act unlink $WATCHED/old.log
act mkdir $WATCHED/folder
act rmdir $WATCHED/empty
act symlink $WATCHED/link-to-report report.txt
act link $WATCHED/second-name.txt $WATCHED/linked.txt
act --loginuid 1000 --uid 1000 create $WATCHED/alice/new.txt
act --loginuid 1000 --uid 1000 write $WATCHED/alice/notes.txt

wait_for_owed 60
expect "nothing was reported that nobody did" no_other_events

step "the agent sends 'exit'"
stop_all
step "ostrel-edr ended with code $DAEMON_CODE; rules left in the kernel: $(audit-rules | wc -l)"

# The table: one line for each owed event. Its words are those of "done", up to the process id.
row() { printf 'table: %-7s %-57s %-20s %s\n' "$@"; }
row DONE "IN THE GUEST" "BY" "RECEIVED BY THE PLATFORM"
while read -r line; do
  event=${line#done }
  path=${event#* }
  actor=${event##* actor=}
  answer=NO
  if received "$line" >/dev/null; then answer="yes, id $(grep -F "event $event id=" $LOG/receiver.log | sed 's/.* id=//')"; fi
  row "${event%% *}" "${path%% actor=*}" "$(basename "${actor%% *}"), $(user_of "$event")" "$answer"
done <$OWED

if grep -q ostrel.shell /proc/cmdline; then
  step "starting everything once more, for the shell: see $LOG, audit-rules, reference-agent, file-actor"
  start_receiver
  start_agent
  wait_for_daemon
fi
