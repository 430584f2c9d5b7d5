# shellcheck shell=dash
# The manifest's rules and the daemon's own exclusions stand in the kernel while it runs, and no rule after it.
. /scenario/lib.sh

start_all
pid=$(daemon_pid)
audit-rules
expect "a rule for changes below the watched folder" has_rule "^exit always .*dir=$WATCHED perm=wa.* key="
expect "one for reads of people who logged in" has_rule "^exit always .*dir=$WATCHED .*perm=r.* auid!=unset key="
expect "what the daemon does is left out" has_rule "^exit never .*pid=$pid .*key=ostrel_ignore_rule_ostrel-edr$"
expect "but not its end" has_rule "^exit always syscalls=exit_group .*pid=$pid .*key=ostrel_exit_rule_ostrel-edr$"
expect "what the agent does is left out" has_rule "^exit never .*pid=$AGENT .*key=ostrel_ignore_rule_reference-agent$"
expect "threads are left out" has_rule "^exit never syscalls=clone .*key=ostrel_ignore_thread_events_rule$"
expect "end-of-event records are left out" has_rule "^exclude always .*msgtype=1320"
expect "the backlog was raised" grep -q "backlog_limit=$(sed -n 's/.*"audit_backlog_limit": \([0-9]*\).*/\1/p' $CONF/edr.conf.json)" \
  <<STATUS
$(audit-rules status)
STATUS

step "the agent comes back as another process: its exclusion moves"
configure host_warden_pid 1
reference-agent config $CONF/edr.conf.json
expect "the exclusion names the new process" wait_until 10 has_rule "^exit never .*pid=1 .*key=ostrel_ignore_rule_reference-agent$"
expect "and no longer the old one" lacks_rule "pid=$AGENT "

stop_all
