# shellcheck shell=dash
# SIGTERM is an orderly end: code 0, no rule left, and what waits in memory goes to disk for the next start.
. /scenario/lib.sh

mkdir -p $WATCHED
start_all
stop_receiver
kill -HUP "$(daemon_pid)"
sleep 2
expect "SIGHUP changes nothing" daemon_running
act mkdir $WATCHED/folder
configure max_file_age_sec 600
kill -TERM "$(daemon_pid)"
expect "SIGTERM ends the daemon" agent_ends
expect "with code 0" is "$DAEMON_CODE" 0
expect "no rule is left" rules_empty
expect "what was reported is on disk" spool_holds "$WATCHED/folder"

step "the next start uploads it"
start_receiver
start_agent
expect "the daemon runs again" wait_for_daemon
wait_for_owed 30
stop_all
