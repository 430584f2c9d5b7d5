# shellcheck shell=dash
# Five thousand rules: in force soon, and gone in the kernel's own time, which the log tells of.
# time: virtual
# seconds: 900
. /scenario/lib.sh

FOLDERS=/srv/many

# second_of LINE: of the day, by the time that a line of the log begins with.
second_of() { echo "$1" | awk -F '[T:.]' '{ print $2 * 3600 + $3 * 60 + $4 }'; }

awk -v folders=$FOLDERS 'BEGIN {
  for (i = 1; i <= 5000; i++) print folders "/" i
}' | xargs mkdir -p
write_configuration
awk -v folders=$FOLDERS 'BEGIN {
  printf "{\"data\": {\"fim\": {\"policyVersion\": \"1.0\", \"collectHashes\": false, \"rules\": ["
  for (i = 1; i <= 5000; i++) {
    printf "%s{\"ruleId\": \"rule-%d\", \"ruleType\": \"directory\", \"imagePath\": \"%s/%d\", \"recursiveDepth\": \"all\", \"notify\": [\"create\"]}", (i > 1 ? ", " : ""), i, folders, i
  }
  print "]}}}"
}' >$CONF/fim-manifest.json
extended_coverage false
sed -i 's/^\(logging.loggers.l0.level\) = .*/\1 = information/' $CONF/log.properties
start_configured
expect "five thousand rules are in force" wait_until 60 log_says "Rules in force: 5001 of 5001"
took=$(($(second_of "$(grep -m 1 'Rules in force: 5001 of 5001' $LOG/edr.log)") - $(second_of "$(head -n 1 $LOG/edr.log)")))
# In hundredths of a second. What the system takes is the kernel's own comparing of each rule with all that it has.
step "from the start of the daemon to its last rule it took $took s; processor: $(cut -d' ' -f14 /proc/"$(daemon_pid)"/stat) in the daemon, \
$(cut -d' ' -f15 /proc/"$(daemon_pid)"/stat) in the kernel"
expect "within 15 seconds" [ $took -le 15 ]
expect "the kernel has them" is "$(audit-rules | grep -c 'key=rule-')" 5000
act create $FOLDERS/4711/file
wait_for_owed 60
begin=$(cut -d. -f1 /proc/uptime)
reference-agent exit >>$LOG/agent.log 2>&1
expect "they go" wait_until 240 rules_empty
step "their removal took $(($(cut -d. -f1 /proc/uptime) - begin)) s"
expect "and the log tells how far it has come" log_says "of 5000 rules"
agent_ends
expect "exit ends the daemon with code 0" is "$DAEMON_CODE" 0
stop_receiver
