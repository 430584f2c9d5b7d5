# shellcheck shell=dash
# The daemon is killed with events in its spool while the platform is away: the next start uploads them, once each, and
# takes away the rules that the killed run left in the kernel.
. /scenario/lib.sh

mkdir -p $WATCHED/gone
start_all
stop_receiver
act create $WATCHED/kept.txt
act mkdir $WATCHED/folder
act rmdir $WATCHED/gone
expect "the events are on disk" wait_until 60 spool_holds "$WATCHED/kept.txt"
old=$(daemon_pid)
reference-agent kill
agent_ends
expect "it was killed" is "$DAEMON_CODE" 137
expect "nobody took the killed run's rules away" has_rule "pid=$old .*key=ostrel_ignore_rule_ostrel-edr"
before=$(audit-rules | wc -l)

step "the platform is back, the daemon starts again"
start_receiver
start_agent
expect "the daemon runs again" wait_for_daemon
expect "the rules of the killed run are gone" lacks_rule "pid=$old "
expect "each rule stands once" is "$(audit-rules | wc -l)" "$before"
wait_for_owed 30
expect "the spool is empty" wait_until 10 spool_is_empty

stop_all
