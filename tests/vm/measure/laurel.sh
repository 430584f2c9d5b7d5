# shellcheck shell=dash
# with: auditd
# time: virtual
# seconds: 1200
# What Debian's audit daemon and laurel cost together.
. /scenario/measuring.sh

LAUREL_LOG=/var/log/laurel/audit.log

prepare_load
mkdir -p /etc/audit/plugins.d /etc/laurel /var/log/laurel
printf '%s\n' 'active = yes' 'direction = out' 'type = always' 'format = string' 'path = /usr/local/bin/laurel' \
  'args = --config /etc/laurel/config.toml' >/etc/audit/plugins.d/laurel.conf
printf '%s\n' 'directory = "/var/log/laurel"' 'user = "root"' 'statusreport-period = 0' '[auditlog]' 'file = "audit.log"' \
  'size = 400000000' 'generations = 2' '[transform]' 'execve-argv = ["array"]' '[translate]' 'universal = false' \
  'user-db = false' '[enrich]' 'pid = true' 'container = true' 'script = true' >/etc/laurel/config.toml
chmod 0640 /etc/audit/plugins.d/laurel.conf /etc/laurel/config.toml
start_auditd
expect "laurel runs" wait_until 20 pidof laurel
measure $AUDITD "$(pidof laurel)"
expect "auditd has written everything" wrote_everything
# Adding the rule is an event of its key, too.
laurel_wrote() { is "$(grep -v CONFIG_CHANGE $LAUREL_LOG | grep -c '"key":"files"')" $FILES; }
expect "laurel has written the files" laurel_wrote
