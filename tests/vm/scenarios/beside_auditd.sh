# shellcheck shell=dash
# with: auditd
# Beside an audit daemon and somebody else's rules: the daemon reads what auditd forwards and stays a guest. The others'
# rules stay through everything, also through a killed run; auditd's log is the witness of what the kernel told at all.
. /scenario/lib.sh

SOCKET=/run/audispd_events
RAW=/var/log/ostrel/audit.log
SPOOL=$WATCHED/spool   # everything that the daemon writes is written into the watched folder
THEIRS=/srv/theirs
LATER=/srv/later

# ---- the audit daemon

write_auditd_configuration() {
  mkdir -p /etc/audit/plugins.d
  printf '%s\n' 'log_file = /var/log/ostrel/audit.log' 'log_group = root' 'log_format = RAW' 'flush = SYNC' \
    'use_libwrap = no' 'plugin_dir = /etc/audit/plugins.d' 'max_log_file = 50' 'q_depth = 20000' 'space_left = 2' \
    'space_left_action = IGNORE' 'admin_space_left = 1' 'admin_space_left_action = IGNORE' 'disk_full_action = IGNORE' \
    >/etc/audit/auditd.conf
  printf '%s\n' 'active = yes' 'direction = out' 'path = builtin_af_unix' 'type = builtin' "args = 0600 $SOCKET" \
    'format = string' >/etc/audit/plugins.d/af_unix.conf
  chmod 0600 /etc/audit/auditd.conf /etc/audit/plugins.d/af_unix.conf
}

start_auditd() {
  auditd -n >>$LOG/auditd.out 2>&1 &
  AUDITD=$!
  expect "auditd runs" wait_until 20 auditd_is_consumer
}

stop_auditd() {
  kill -TERM "$AUDITD"
  wait "$AUDITD"
}

auditd_is_consumer() { audit-rules status | grep -q " pid=$AUDITD " && [ -S $SOCKET ]; }

# auditd_wrote PATTERN: a line of its log matches the pattern of grep -E.
auditd_wrote() { grep -qE -- "$1" $RAW; }

# ---- the daemon beside it

# The agent's socket is told by the same words: it is the first to connect, and stays.
disconnections() { grep -c 'UnixClientStreamSockIOChannel: EOF Received\.' $LOG/edr.log; }
disconnected() { [ "$(disconnections)" -gt "$1" ]; }
is_connected() {
  grep -E 'UnixClientStreamSockIOChannel: (Connected|EOF Received)\.' $LOG/edr.log | tail -n 1 | grep -q 'Connected\.$'
}
invalidated() { is "$(grep -c 'RuleEngine::Invalidate: Cleaning up all rules$' $LOG/edr.log)" "$1"; }
# all_in_force COUNT: of the manifests; the daemon has one of its own.
all_in_force() { grep -F 'Rules in force: ' $LOG/edr.log | tail -n 1 | grep -q "Rules in force: $(($1 + 1)) of $(($1 + 1))\$"; }
each_rule_once() { is "$(audit-rules | sort | uniq -d)" ""; }

their_rules() { audit-rules | grep -E 'key=theirs(-[a-z]*)?$'; }
theirs_are() { is "$(their_rules)" "$1"; }

rule() {
  printf '{"ruleId": "%s", "ruleType": "directory", "imagePath": "%s", "recursiveDepth": "all", "notify": ["create", "delete",
    "modifyContent", "modifyMetadata"]}' "$1" "$2"
}
manifest() { printf '{"data": {"fim": {"policyVersion": "1.0", "collectHashes": false, "rules": [%s]}}}' "$1" >"$CONF/$2"; }
take_manifest() {
  configure manifest_path "\"$CONF/$1\""
  reference-agent config $CONF/edr.conf.json >>$LOG/agent.log 2>&1
}

start_beside() {
  start_agent
  expect "the daemon reads what auditd forwards" wait_until 30 log_says "DispatcherIOChannel: Started."
  expect "its rules are in force" wait_until 20 all_in_force 1
}

mkdir -p $WATCHED $SPOOL $THEIRS $LATER
mkfifo /run/worker
write_auditd_configuration
start_auditd
auditctl -b 16384 >/dev/null
auditctl -w $THEIRS -p wa -k theirs
auditctl -a always,exit -F arch=b64 -S open,openat,unlinkat -F dir=$WATCHED -k theirs-too
auditctl -a never,exit -F arch=b64 -S sync -k theirs-never
their_first=$(their_rules)
expect "three rules are somebody else's" is "$(echo "$their_first" | wc -l)" 3

step "a run that is killed leaves its rules behind, and the next one takes them away"
write_configuration
configure dispatcher_socket_path "\"$SOCKET\""
configure event_file_path "\"$SPOOL\""
extended_coverage false
manifest "$(rule rule-one $WATCHED)" fim-manifest.json
start_receiver
start_beside
expect "the rule is there" has_rule "^exit always .*dir=$WATCHED perm=wa.* key=rule-one\$"
killed=$(daemon_pid)
reference-agent kill >>$LOG/agent.log 2>&1
agent_ends
expect "it was killed" is "$DAEMON_CODE" 137
expect "its rules are still there" has_rule "pid=$killed .*key=ostrel_ignore_rule_ostrel-edr\$"
: >$LOG/edr.log
start_beside
expect "no rule names the killed process" lacks_rule "pid=$killed "
expect "each rule stands once" each_rule_once
expect "the others' rules are untouched" theirs_are "$their_first"

step "a guest: the kernel's consumer and its settings are the others'"
expect "auditd is the kernel's consumer" auditd_is_consumer
expect "a backlog above the configured one is not lowered" grep -q ' backlog_limit=16384$' <<STATUS
$(audit-rules status)
STATUS
auditctl -w $LATER -p r -k theirs-later
theirs=$(their_rules)
expect "somebody adds a fourth one meanwhile" is "$(echo "$theirs" | wc -l)" 4

step "an agent that is another process works in the watched folder"
sh -c "while read -r name; do [ \$name = end ] && exit 0; echo more >$WATCHED/\$name; done" <>/run/worker &
WORKER=$!
configure host_warden_pid $WORKER
reference-agent config $CONF/edr.conf.json >>$LOG/agent.log 2>&1
expect "the exclusion is the new agent's" wait_until 10 has_rule "^exit never .*pid=$WORKER .*key=ostrel_ignore_rule_reference-agent\$"
expect "and no longer the old one's" lacks_rule "pid=$AGENT "
echo by-agent >/run/worker
expect "it writes" wait_until 10 [ -s $WATCHED/by-agent ]
act create $WATCHED/by-another
expect "what others open is told" wait_until 10 auditd_wrote '^type=PATH .*name="/srv/watched/by-another"'
expect "what the agent opens is not" not auditd_wrote 'by-agent'
echo end >/run/worker
wait $WORKER
expect "its end is" wait_until 10 auditd_wrote "^type=SYSCALL .* syscall=231 .* pid=$WORKER .*key=\"ostrel_exit_rule_reference-agent\""
expect "its exclusion ends with it" within 30 lacks_rule "pid=$WORKER "

step "rules that somebody takes away or puts there"
auditctl -W $WATCHED -p wa -k rule-one
expect "one is gone" lacks_rule "key=rule-one\$"
auditctl -w $LATER -p wa -k rule-two
manifest "$(rule rule-one $WATCHED), $(rule rule-two $LATER)" two.json
take_manifest two.json
expect "two rules are in force" wait_until 20 all_in_force 2
expect "the one that was taken is back" has_rule "^exit always .*dir=$WATCHED perm=wa.* key=rule-one\$"
expect "the one that was there already is" has_rule "^exit always .*dir=$LATER perm=wa.* key=rule-two\$"
expect "each of all rules stands once" each_rule_once
auditctl -W $LATER -p wa -k rule-two
manifest "$(rule rule-one $WATCHED)" one.json
take_manifest one.json
expect "one that was taken away can be given up" wait_until 20 all_in_force 1
expect "there is nothing to complain about" not grep -E '^[^ ]* [EW] .*Failed to ' $LOG/edr.log

step "auditd restarts, twice"
expect "so far nothing had to be built anew" invalidated 0
for time in 1 2; do
  before=$(disconnections)
  stop_auditd
  expect "the daemon notices ($time)" wait_until 10 disconnected "$before"
  start_auditd
  expect "it comes back ($time)" wait_until 10 is_connected
  expect "its rules are built anew, once ($time)" wait_until 10 invalidated $time
  expect "they are in force ($time)" wait_until 10 has_rule "key=rule-one\$"
  expect "and stand once ($time)" each_rule_once
  expect "the others' rules are untouched ($time)" theirs_are "$theirs"
  act create $WATCHED/after-restart-$time
done

wait_for_owed 60
expect "and nothing else, of the agent or of the daemon's own files" no_other_events
expect "the daemon did write there" log_says "Event json written to disc successfully"
expect "and the kernel told nobody of it" not auditd_wrote " pid=$(daemon_pid) .*key=\"(theirs-too|rule-one)\""
expect "it was invalidated once for each restart" invalidated 2
expect "auditd is the kernel's consumer to the end" auditd_is_consumer

reference-agent exit >>$LOG/agent.log 2>&1
agent_ends
expect "exit ends the daemon with code 0" is "$DAEMON_CODE" 0
expect "no rule but the others' is left" is "$(audit-rules)" "$theirs"
expect "auditd goes on" auditd_is_consumer
stop_auditd
stop_receiver
