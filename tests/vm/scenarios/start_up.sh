# shellcheck shell=dash
# The agent starts the daemon, which detaches, takes the configuration over the socket and logs where it is told to;
# it answers commands while it runs.
. /scenario/lib.sh

start_all
expect "the daemon runs" daemon_running
expect "the agent saw it connect" log_says "agent: daemon connected" agent.log
expect "it detached: its standard streams are the null device" is "$(readlink /proc/"$(daemon_pid)"/fd/0)" /dev/null
expect "it works in the root folder" is "$(readlink /proc/"$(daemon_pid)"/cwd)" /
expect "the agent, a subreaper, is its parent now" is "$(awk '/^PPid:/ { print $2 }' /proc/"$(daemon_pid)"/status)" "$AGENT"
expect "until the logger exists it speaks to syslog" log_says "Waiting for configuration from the Ostrel Agent process." agent.log
expect "the manifest was read" log_says "Successfully parsed manifest file $CONF/fim-manifest.json"
expect "the folder of the spool was made for root alone" is "$(stat -c %a:%U $SPOOL)" 700:root

reference-agent fim_status
expect "fim_status is answered" wait_until 10 log_says "Command 'fim_status' received from agent"
reference-agent ioc_status
expect "ioc_status is answered" wait_until 10 log_says "Command 'ioc_status' received from agent"

log_level information
reference-agent config $CONF/edr.conf.json
expect "config applies changed log levels" wait_until 10 log_says "Updating log level to information"
reference-agent config /nowhere.json
expect "a configuration that is not there changes nothing" wait_until 10 log_says "Failed to read config file: /nowhere.json"
expect "and the daemon goes on" daemon_running

stop_all
