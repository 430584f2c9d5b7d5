# shellcheck shell=dash
# SIGTERM is an orderly end: code 0, no rule left, and what waits in memory goes to disk for the next start.
. /scenario/lib.sh

mkdir -p $WATCHED
write_configuration
configure max_file_age_sec 600
start_receiver
start_agent
expect "the daemon runs" wait_for_daemon
stop_receiver
kill -HUP "$(daemon_pid)"
sleep 2
expect "SIGHUP changes nothing" daemon_running
act mkdir $WATCHED/folder
expect "the daemon reports it" wait_until 10 log_says "Event json written to disc successfully"
kill -TERM "$(daemon_pid)"
agent_ends
expect "SIGTERM ends the daemon with code 0" is "$DAEMON_CODE" 0
expect "no rule is left" rules_empty
expect "what waited in memory is on disk" spool_holds "$WATCHED/folder"

step "the next start uploads it"
start_receiver
start_agent
expect "the daemon runs again" wait_for_daemon
wait_for_owed 30
stop_all
