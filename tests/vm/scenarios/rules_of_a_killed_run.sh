# shellcheck shell=dash
# A killed daemon cannot take its rules away. The next start does: no rule names the old process, none stands twice, and
# an orderly end leaves nothing of either run.
. /scenario/lib.sh

mkdir -p $WATCHED
start_all
old=$(daemon_pid)
count=$(audit-rules | wc -l)
reference-agent kill
agent_ends
expect "it was killed" is "$DAEMON_CODE" 137
expect "its rules are still there" is "$(audit-rules | wc -l)" "$count"
expect "its exclusion too" has_rule "pid=$old .*key=ostrel_ignore_rule_ostrel-edr$"

step "the next start"
start_agent
expect "the daemon runs again" wait_for_daemon
expect "no rule names the old process" lacks_rule "pid=$old "
expect "the exclusion names the new one" has_rule "pid=$(daemon_pid) .*key=ostrel_ignore_rule_ostrel-edr$"
expect "each rule stands once" is "$(audit-rules | sort | uniq -d)" ""
expect "no rule is left over" is "$(audit-rules | wc -l)" "$count"

stop_all
