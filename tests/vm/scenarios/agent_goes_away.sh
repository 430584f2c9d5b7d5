# shellcheck shell=dash
# The agent closes its socket for some seconds: the daemon connects again and goes on as if nothing had been. When the
# agent stays away the daemon ends by itself, in order.
. /scenario/lib.sh

mkdir -p $WATCHED
start_all
before=$(grep -c "agent: daemon connected" $LOG/agent.log)
reference-agent away
act create $WATCHED/meanwhile.txt
sleep 3
expect "the daemon waits for its agent" daemon_running
reference-agent back
connected_again() { [ "$(grep -c "agent: daemon connected" $LOG/agent.log)" -gt "$before" ]; }
expect "it connects again" wait_until 15 connected_again
reference-agent fim_status
expect "and answers commands" wait_until 10 log_says "Command 'fim_status' received from agent"
wait_for_owed 60

step "the agent goes away for good"
reference-agent away
expect "after 30 attempts the daemon ends" within 90 not daemon_pid
expect "it said why" log_says "Failed to establish communication with the Ostrel Agent process."
agent_ends
expect "it ends with code 0" is "$DAEMON_CODE" 0
expect "the kernel's rule list is empty" rules_empty
stop_receiver
