# shellcheck shell=dash
# with: auditd
# time: virtual
# seconds: 1200
# What the daemon costs. The manifest watches what the others' rule watches and asks for creations alone: what the load
# does is heard, judged and not reported.
. /scenario/measuring.sh

prepare_load
write_configuration
printf '{"data": {"fim": {"policyVersion": "1.0", "collectHashes": false, "rules": [{"ruleId": "files",
  "ruleType": "directory", "imagePath": "%s", "recursiveDepth": "all", "notify": ["create"]}]}}}' $LOAD >$CONF/fim-manifest.json
configure cpu_limit 100
configure upload_interval 60
configure_ioc upload_interval 60
extended_coverage false
sed -i 's/^\(logging.loggers.l0.level\) = .*/\1 = information/' $CONF/log.properties
start_configured
watch_calls
measure "$(daemon_pid)"
act create $LOAD/the-last
expect "what is to be reported is" wait_until 240 received "$(cat $OWED)"
auditctl -d always,exit -F arch=b64 -S execve -k programs
auditctl -d always,exit -F arch=b64 -S connect -k connections
stop_all
expect "nothing was lost on the way" not grep -E 'Intake losses since the start: .*(bound|stop|processed)' $LOG/edr.log
