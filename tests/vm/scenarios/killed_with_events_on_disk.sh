# shellcheck shell=dash
# The daemon is killed with events in its spool while the platform is away: the next start uploads them, once each.
. /scenario/lib.sh

mkdir -p $WATCHED/gone
start_all
stop_receiver
act create $WATCHED/kept.txt
act mkdir $WATCHED/folder
act rmdir $WATCHED/gone
expect "the events are on disk" wait_until 60 spool_holds "$WATCHED/kept.txt"
reference-agent kill
agent_ends
expect "it was killed" is "$DAEMON_CODE" 137

step "the platform is back, the daemon starts again"
start_receiver
start_agent
expect "the daemon runs again" wait_for_daemon
wait_for_owed 30
expect "the spool is empty" wait_until 10 spool_is_empty

stop_all
