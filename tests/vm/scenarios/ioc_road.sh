# shellcheck shell=dash
# Indicators of compromise, from a manifest to the platform: a program that is started, the file that it changes and its
# end come as one story; what is known of processes and the numbers of the batches outlive a restart.
. /scenario/lib.sh

ACTOR=/usr/local/bin/file-actor

mkdir -p $WATCHED/ioc
write_configuration
ioc_manifest $CONF/ioc-manifest.json "$(cat <<RULES
  {"ruleId": "programs", "ruleType": "Process", "notify": {"process": ["create", "delete"]}},
  {"ruleId": "watched-files", "ruleType": "Directory", "imagePath": "$WATCHED/ioc", "recursiveDepth": "All",
    "notify": {"File": ["create", "write", "delete"]}}
RULES
)"
ioc_manifests $CONF/ioc-manifest.json
# The example's folder for file integrity monitoring lies around: both hear of the same files.
start_configured
expect "the manifest is read" log_says "[IOC]: Successfully parsed manifest file $CONF/ioc-manifest.json"
expect "the component is there" log_says "[IOC]: Component initialized."
expect "its folders are for root alone" is "$(stat -c %a:%U $IOC_SPOOL "$(configured agent_install_path)/edr" | tr '\n' ' ')" "700:root 700:root "

step "a program starts, makes a file and ends"
act create $WATCHED/ioc/new.txt
PID=$(sed -n 's/.* pid=\([0-9]*\).*/\1/p' /run/acted)
ioc_owes "its start is told" "ioc RUNNING process $ACTOR pid=$PID user=root "
ioc_owes "its file is told" "ioc CREATE file $WATCHED/ioc/new.txt actor=$ACTOR pid=$PID user=root "
ioc_owes "its end is told" "ioc TERMINATED process $ACTOR pid=$PID "
expect "file integrity monitoring hears of the file, too" wait_until 60 all_received
act unlink $WATCHED/ioc/new.txt
ioc_owes "the file's end is told, for it was reported" "ioc DELETE file $WATCHED/ioc/new.txt actor=$ACTOR "

step "a program outlives the daemon"
mkfifo /run/waiting
/bin/sh -c 'read -r go' <>/run/waiting &
WAITING=$!
ioc_owes "its start is told in the one run" "ioc RUNNING process /bin/busybox pid=$WAITING "
stop_daemon
expect "the tree of processes is saved" log_says "[IOC]: Saving Ttl Process Tree to db"
expect "the kernel's rule list is empty" rules_empty
start_again
expect "the tree of processes is taken up" log_says "[IOC]: Loading up processes from TtlProcesses table."
expect "and its daemon hears the kernel" wait_until 20 hears
BEFORE=$(last_batch)
echo go >/run/waiting
wait $WAITING
# By the kernel, or, where nobody knew any more whose end that was, when its time is over.
expect "its end is told in the other" wait_until 180 ioc_came "ioc TERMINATED process /bin/busybox pid=$WAITING "
expect "there are batches of both runs" [ "$(last_batch)" -gt "$BEFORE" ]
expect "and none is missing between them" no_gaps
expect "no number came twice" sh -c "! grep '^sequence back' $LOG/receiver.log"

step "a killed daemon"
kill -9 "$(daemon_pid)"
agent_ends
start_again
act create $WATCHED/ioc/after-the-kill.txt
ioc_owes "its next run goes on" "ioc CREATE file $WATCHED/ioc/after-the-kill.txt actor=$ACTOR "
expect "no batch is missing" no_gaps

step "another configuration"
configure_ioc host_quarantined true
reference-agent config $CONF/edr.conf.json >>$LOG/agent.log 2>&1
act create $WATCHED/ioc/in-quarantine.txt
ioc_owes "an event of the quarantined host" "ioc CREATE file $WATCHED/ioc/in-quarantine.txt actor=$ACTOR "
expect "its batch, or one behind that, says so" wait_until 60 grep -q '^batch .* quarantine=yes ' $LOG/receiver.log
configure_ioc manifests "[]"
reference-agent config $CONF/edr.conf.json >>$LOG/agent.log 2>&1
expect "without manifests it is off" wait_until 20 log_says "[IOC]: Disabling IOC"
expect "its rules are gone" wait_until 20 lacks_rule 'watched-files|programs'
expect "what it has stored is gone" wait_until 20 log_says "[IOC]: Successfully cleared spool storage"
expect "and so is what it knew" log_says "[IOC]: Successfully cleared sql storage"

stop_all
expect "nothing failed" sh -c "! grep -E 'Uncaught exception|EventProcessor: Failed' $LOG/edr.log"
