# shellcheck shell=dash
# with: auditd
# time: virtual
# seconds: 1200
# What the daemon costs with both components in force: indicators of compromise ask for the same files, programs and
# connections, and a program and a connection are reported, each.
. /scenario/measuring.sh

prepare_load
write_configuration
printf '{"data": {"fim": {"policyVersion": "1.0", "collectHashes": false, "rules": [{"ruleId": "files",
  "ruleType": "directory", "imagePath": "%s", "recursiveDepth": "all", "notify": ["create"]}]}}}' $LOAD >$CONF/fim-manifest.json
printf '{"policyVersion": "2.0.0", "policyId": "measure", "productId": "measure", "globalSettings": {}, "rules": [
  {"ruleId": "ioc-files", "ruleType": "Directory", "imagePath": "%s", "recursiveDepth": "All", "notify": {"File": ["create"]}},
  {"ruleId": "programs", "ruleType": "Process", "notify": {"process": ["create"]}},
  {"ruleId": "connections", "ruleType": "Network", "notify": {"network": ["establish"]}}]}' $LOAD >$CONF/ioc-manifest.json
configure_ioc manifests "[{\"manifest_path\": \"$CONF/ioc-manifest.json\", \"manifest_type\": \"ioc\"}]"
configure cpu_limit 100
configure upload_interval 60
configure_ioc upload_interval 60
extended_coverage false
log_level information
start_configured
expect "indicators of compromise are watched for" has_rule "key=programs"
measure "$(daemon_pid)"
act create $LOAD/the-last
expect "what is to be reported is" wait_until 240 received "$(cat $OWED)"
programs_came() { [ "$(grep -c '^ioc RUNNING process /usr/local/bin/event-load ' $LOG/receiver.log)" -ge $EXECS ]; }
expect "the programs are reported" wait_until 900 programs_came
stop_all
expect "nothing was lost on the way" not grep -E 'Intake losses since the start: .*(bound|stop|processed)' $LOG/edr.log
