# shellcheck shell=dash
# What the kernel holds for a manifest's rule with the configuration's extended_coverage and without it. Either way
# nothing is left at the end, nor after a run that was killed.
. /scenario/lib.sh

# rules_of_manifest: those of the watched folder, with the key of the manifest's rule.
rules_of_manifest() { audit-rules | grep -F "dir=$WATCHED" | grep -F "key=$(rule_id)"; }

rule_id() { sed -n 's/.*"ruleId": "\(.*\)".*/\1/p' /examples/fim-manifest.json | head -n 1; }

count_of_manifest() { is "$(rules_of_manifest | grep -c .)" "$1"; }

# What is asked for with extended coverage only, and how many rules that makes.
if kernel_has_uring_list; then
  EXTENDED="^io_uring always "
  RULES=6
  IN_FORCE=", io_uring"
else
  step "this kernel has no list for io_uring: what is done through it stays unseen here"
  EXTENDED="^exit always syscalls=.*open_by_handle_at"
  RULES=5
  IN_FORCE=
fi

step "with extended coverage, as in the example"
start_all
audit-rules
expect "two watches and what they do not tell" count_of_manifest $RULES
expect "times of files and opening by handle" has_rule \
  "^exit always syscalls=utime,utimes,futimesat,utimensat,open_by_handle_at,452 arch=b64 dir=$WATCHED key=$(rule_id)$"
expect "open that makes or empties" has_rule "^exit always syscalls=open arch=b64 a1&576 dir=$WATCHED key=$(rule_id)$"
expect "openat that makes or empties" has_rule \
  "^exit always syscalls=openat arch=b64 a2&576 dir=$WATCHED key=$(rule_id)$"
if kernel_has_uring_list; then
  expect "operations through io_uring" has_rule \
    "^io_uring always operations=18,28,35,36,37,38,39,41,42 dir=$WATCHED key=$(rule_id)$"
else
  expect "the log says what the kernel lacks" log_says "The kernel takes no rules for io_uring"
fi
expect "the log says what is in force" log_says "Extended coverage is on: times of files, opening by handle, \
opening with O_CREAT or O_TRUNC$IN_FORCE"

step "the daemon is killed and comes back without extended coverage"
reference-agent kill
agent_ends
expect "it was killed" is "$DAEMON_CODE" 137
expect "its rules are left behind" has_rule "$EXTENDED"
configure extended_coverage false
start_agent
expect "the daemon is back" wait_for_daemon
expect "the rules of the killed run are gone" wait_until 10 lacks_rule "$EXTENDED"
audit-rules
expect "the watches are all there is" count_of_manifest 2
expect "one for changes" has_rule "^exit always .*dir=$WATCHED perm=wa.* key=$(rule_id)$"
expect "one for reads of people who logged in" has_rule "^exit always .*dir=$WATCHED .*perm=r.* auid!=unset key=$(rule_id)$"
expect "the log says so" log_says "Extended coverage is off"
stop_all

step "and once more with it, to its end"
configure extended_coverage true
start_receiver
start_agent
expect "the daemon runs" wait_for_daemon
expect "what the watches do not tell is asked for" wait_until 10 has_rule "$EXTENDED"
stop_all
