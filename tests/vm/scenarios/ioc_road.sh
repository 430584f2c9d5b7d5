# shellcheck shell=dash
# Indicators of compromise, from a manifest to the platform: a program that is started, the file that it changes and its
# end come as one story; what is known of processes and the numbers of the batches outlive a restart.
. /scenario/lib.sh

IOC_SPOOL=/var/lib/ostrel/ioc-spool
ACTOR=/usr/local/bin/file-actor

# ioc_came LINE: a line of a batch at the platform begins so.
ioc_came() { grep -F -- "$1" $LOG/receiver.log | grep -q '^ioc '; }

# owes NAME LINE
owes() { expect "$1" wait_until 60 ioc_came "$2"; }

# last_batch: the number of the batch that came last.
last_batch() { sed -n 's/^batch \([0-9]*\) .*/\1/p' $LOG/receiver.log | tail -n 1; }

no_gaps() { ! grep '^sequence gap' $LOG/receiver.log; }

restart_agent() {
  start_agent
  wait_for_daemon || fail "the daemon starts again" "$(tail -n 3 $LOG/agent.log $LOG/edr.log 2>&1 | tr '\n' ' ')"
}

mkdir -p $WATCHED/ioc
write_configuration
cat >$CONF/ioc-manifest.json <<MANIFEST
{
  "policyVersion": "2.0.0",
  "policyId": "guest",
  "productId": "guest",
  "globalSettings": {},
  "rules": [
    {"ruleId": "programs", "ruleType": "Process", "notify": {"process": ["create", "delete"]}},
    {"ruleId": "watched-files", "ruleType": "Directory", "imagePath": "$WATCHED/ioc", "recursiveDepth": "All",
     "notify": {"File": ["create", "write", "delete"]}}
  ]
}
MANIFEST
configure_ioc manifests "[{\"manifest_path\": \"$CONF/ioc-manifest.json\", \"manifest_type\": \"ioc\"}]"
# The example's folder for file integrity monitoring lies around: both hear of the same files.
start_configured
expect "the manifest is read" log_says "[IOC]: Successfully parsed manifest file $CONF/ioc-manifest.json"
expect "the component is there" log_says "[IOC]: Component initialized."
expect "its folders are for root alone" is "$(stat -c %a:%U $IOC_SPOOL "$(configured agent_install_path)/edr" | tr '\n' ' ')" "700:root 700:root "

step "a program starts, makes a file and ends"
act create $WATCHED/ioc/new.txt
PID=$(sed -n 's/.* pid=\([0-9]*\).*/\1/p' /run/acted)
owes "its start is told" "ioc RUNNING process $ACTOR pid=$PID user=root "
owes "its file is told" "ioc CREATE file $WATCHED/ioc/new.txt actor=$ACTOR pid=$PID user=root "
owes "its end is told" "ioc TERMINATED process $ACTOR pid=$PID "
expect "file integrity monitoring hears of the file, too" wait_until 60 all_received
act unlink $WATCHED/ioc/new.txt
owes "the file's end is told, for it was reported" "ioc DELETE file $WATCHED/ioc/new.txt actor=$ACTOR "

step "a program outlives the daemon"
mkfifo /run/waiting
/bin/sh -c 'read -r go' <>/run/waiting &
WAITING=$!
owes "its start is told in the one run" "ioc RUNNING process /bin/busybox pid=$WAITING "
reference-agent exit >>$LOG/agent.log 2>&1
agent_ends
expect "exit ends the daemon with code 0" is "$DAEMON_CODE" 0
expect "the tree of processes is saved" log_says "[IOC]: Saving Ttl Process Tree to db"
expect "the kernel's rule list is empty" rules_empty
restart_agent
expect "the tree of processes is taken up" log_says "[IOC]: Loading up processes from TtlProcesses table."
BEFORE=$(last_batch)
echo go >/run/waiting
wait $WAITING
owes "its end is told in the other" "ioc TERMINATED process /bin/busybox pid=$WAITING "
expect "there are batches of both runs" [ "$(last_batch)" -gt "$BEFORE" ]
expect "and none is missing between them" no_gaps
expect "no number came twice" sh -c "! grep '^sequence back' $LOG/receiver.log"

step "a killed daemon"
kill -9 "$(daemon_pid)"
agent_ends
restart_agent
act create $WATCHED/ioc/after-the-kill.txt
owes "its next run goes on" "ioc CREATE file $WATCHED/ioc/after-the-kill.txt actor=$ACTOR "
expect "no batch is missing" no_gaps

step "another configuration"
configure_ioc host_quarantined true
reference-agent config $CONF/edr.conf.json >>$LOG/agent.log 2>&1
act create $WATCHED/ioc/in-quarantine.txt
owes "an event of the quarantined host" "ioc CREATE file $WATCHED/ioc/in-quarantine.txt actor=$ACTOR "
expect "its batch says so" grep -q '^batch .* quarantine=yes ' $LOG/receiver.log
configure_ioc manifests "[]"
reference-agent config $CONF/edr.conf.json >>$LOG/agent.log 2>&1
expect "without manifests it is off" wait_until 20 log_says "[IOC]: Disabling IOC"
expect "its rules are gone" wait_until 20 lacks_rule 'watched-files|programs'
expect "what it has stored is gone" wait_until 20 log_says "[IOC]: Successfully cleared spool storage"
expect "and so is what it knew" log_says "[IOC]: Successfully cleared sql storage"

stop_all
expect "nothing failed" sh -c "! grep -E 'Uncaught exception|EventProcessor: Failed' $LOG/edr.log"
