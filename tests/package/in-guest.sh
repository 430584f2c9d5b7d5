#!/bin/sh
# The package's life on a machine with systemd: an older version is installed, its service enabled, and work done while no
# platform answers; the upgrade loses nothing of that, the platform gets all of it, the end leaves no rule in the kernel,
# and the purge no file. Lines "PASS name" and "FAIL name: why" are the verdict.

failed=0
pass() { echo "PASS $1"; }
# At the begin of a line, whatever somebody else has left on the console.
fail() { failed=$((failed + 1)) && printf '\nFAIL %s\n' "$*"; }

expect() {
  name=$1
  shift
  if output=$("$@" 2>&1); then pass "$name"; else fail "$name: $* (code $?) $(echo "$output" | tail -n 8 | tr '\n' ' ')"; fi
}

is() { [ "$1" = "$2" ] || { echo "is '$1' instead of '$2'"; return 1; }; }

# later THEN NOW: both have happened, in this order.
later() { [ "$1" -gt 0 ] && [ "$2" -ge "$1" ] || { echo "$2 is not behind $1"; return 1; }; }

# wait_until SECONDS COMMAND...
wait_until() {
  end=$(($(cut -d. -f1 /proc/uptime) + $1))
  shift
  until "$@" >/dev/null 2>&1; do
    [ "$(cut -d. -f1 /proc/uptime)" -lt $end ] || { echo "in vain: $*"; return 1; }
    sleep 0.5
  done
}

daemon_pid() { for each in /proc/[0-9]*; do [ "$(readlink "$each/exe")" = "${1:-/usr/sbin/ostrel-edr}" ] && echo "${each#/proc/}"; done; }
hears() { audit-rules status | grep -q " pid=$(daemon_pid) "; }
has_rule() { audit-rules | grep -q -- "$1"; }
no_rules() { rules=$(audit-rules) && is "$rules" ""; }
spooled() { grep -qsF -- "$1" /var/lib/ostrel/fim-spool/*; }
received() { journalctl -u ostrel-receiver -o cat | grep -qF -- "event $1 actor="; }
all_received() { for number in 1 2 3 4 5 6; do received "Create /etc/before-$number" && received "Create /etc/after-$number" || return 1; done; }
no_right_missing() { [ -s /var/log/ostrel/edr.log ] && ! grep -iE "denied|not permitted" /var/log/ostrel/edr.log; }
once_each() { is "$(journalctl -u ostrel-receiver -o cat | grep -c '^event Create /etc/\(before\|after\)-')" 12; }

# nowhere_on_command_lines TEXT
nowhere_on_command_lines() {
  [ -n "$1" ] && echo "$1" >/tmp/text || return 1
  ! grep -laFf /tmp/text /proc/[0-9]*/cmdline 2>/dev/null
}

echo "table: $(uname -r), $(systemctl --version | head -n 1)"
expect "the older version installs" sh -c 'dpkg -i /root/old/*.deb'
expect "nothing runs by itself" is "$(systemctl is-active ostrel-agent ostrel-receiver | sort -u)" inactive
# An audit daemon that takes its time to go.
cat >/etc/systemd/system/auditd.service <<'UNIT'
[Unit]
RefuseManualStop=yes
[Service]
ExecStart=/bin/sleep infinity
ExecStop=/bin/sleep 5
UNIT
systemctl daemon-reload
expect "an audit daemon is there" systemctl start auditd
# What is reported leaves early here; everything else is as delivered.
sed -i -e 's/"upload_interval": 30/"upload_interval": 3/' -e 's/"max_file_age_sec": 20/"max_file_age_sec": 2/' /etc/ostrel/ostrel-edr.conf
expect "the service is enabled" systemctl enable --now ostrel-agent
expect "which ends the audit daemon" is "$(systemctl is-active auditd)" inactive
expect "and begins when that has left" later "$(systemctl show -P InactiveEnterTimestampMonotonic auditd)" \
  "$(systemctl show -P ExecMainStartTimestampMonotonic ostrel-agent)"
expect "the daemon receives the kernel's records" wait_until 60 hears
expect "the manifest's rules are in the kernel" wait_until 30 has_rule 'key=etc'
# AUDIT_CONTROL (30), AUDIT_READ (37), NET_ADMIN (12), DAC_READ_SEARCH (2), SYS_PTRACE (19), FOWNER (3), SETGID (6)
expect "the daemon's rights are the service's" is "$(sed -n 's/^Cap\(Bnd\|Eff\):\t//p' /proc/"$(daemon_pid)"/status | tr '\n' ' ')" \
  "000000204008104c 000000204008104c "
expect "no right was missing" no_right_missing
echo "table: the daemon's rights: $(grep CapEff /proc/"$(daemon_pid)"/status | cut -f2)"
expect "what it writes is root's alone" is "$(stat -c %a /var/lib/ostrel /var/log/ostrel /run/ostrel /run/ostrel/ostrel-edr.conf | tr '\n' ' ')" "700 700 700 600 "
expect "the running configuration has the identity" grep -q "$(sed -n 's/^agent_id=//p' /etc/ostrel/identity)" /run/ostrel/ostrel-edr.conf
expect "and the agent's process" grep -q "\"host_warden_pid\": $(systemctl show -P MainPID ostrel-agent)," /run/ostrel/ostrel-edr.conf

for number in 1 2 3 4 5 6; do echo x >/etc/before-$number; done
expect "events wait in the spool" wait_until 90 spooled /etc/before-6
old=$(daemon_pid)
expect "it is upgraded" sh -c 'dpkg -i --force-confdef --force-confold /root/new/*.deb'
expect "the upgrade starts the daemon anew" wait_until 60 hears
expect "as another process" sh -c "[ '$old' != '$(daemon_pid)' ]"
expect "what was spooled is there still" spooled /etc/before-6
expect "a reload is taken" systemctl reload ostrel-agent
expect "by the daemon" wait_until 20 grep -q "Command 'config' received from agent" /var/log/ostrel/edr.log
expect "which goes on" hears
for number in 1 2 3 4 5 6; do echo x >/etc/after-$number; done
expect "the platform starts" systemctl start ostrel-receiver
expect "and knows whom it serves" wait_until 30 test -s /run/ostrel-receiver/keys
expect "nobody sees the secret on a command line" nowhere_on_command_lines "$(sed -n 's/^activation_id=//p' /etc/ostrel/identity)"
expect "and it is the receiver's alone" is "$(stat -L -c %a /run/ostrel-receiver/keys)" 600
expect "every event of before and after the upgrade reaches the platform" wait_until 120 all_received
expect "each once" once_each
journalctl -u ostrel-receiver -o cat | grep '^event Create /etc/\(before\|after\)-1' | sed 's/^/table: /'

kill -KILL "$(daemon_pid)"
expect "a killed daemon is started again" wait_until 60 hears
expect "the service ends" systemctl stop ostrel-agent
expect "with the daemon" is "$(daemon_pid)" ""
expect "in order" is "$(systemctl show -P Result ostrel-agent)" success
expect "no rule is left in the kernel" no_rules
expect "it starts again" systemctl start ostrel-agent
expect "and receives" wait_until 60 hears

expect "no right was missing in all that time" no_right_missing
expect "it is removed" dpkg -r ostrel-edr-tools ostrel-edr
expect "which ends the daemon" is "$(daemon_pid /usr/sbin/ostrel-edr)$(daemon_pid '/usr/sbin/ostrel-edr (deleted)')" ""
expect "and leaves no rule" no_rules
expect "the spool stays" test -d /var/lib/ostrel/fim-spool
expect "it is purged" dpkg -P ostrel-edr-tools ostrel-edr
expect "and nothing is left" is "$(find / /run -xdev -iname '*ostrel*' -not -path '/root/*' -not -path '/tmp/*' -not -path '/run/systemd/*' | tr '\n' ' ')" ""
[ $failed -eq 0 ]
