# shellcheck shell=dash
# What tags of tactics do: all programs here are known and clean, so that nothing is told of them but what their tags
# make suspicious. Each technique once, near misses and excluded programs beside it; tags that go on to relatives, and
# never by way of process 1; tags and scores over a restart.
# with: sudo
. /scenario/lib.sh

F=/srv/ioc
STORIES=/srv/stories
REMOTE=10.1.2.3
LABEL=

story() { cat >"$STORIES/$1"; }

# told WHO EVENT CHAIN, ran WHO PROGRAM CHAIN
told() { printf '%s\tdone %s by %s as %s\n' "$LABEL" "$2" "$3" "$1" >>$OWED_BY; }
ran() {
  told "$1" "RUNNING process $2" "$3"
  told "$1" "TERMINATED process $2" "$3"
}

# nothing: is told of this one. The label would be missing otherwise.
nothing() { printf '%s\tnone pid=\n' "$LABEL" >>$OWED_BY; }

# tagged NAME PROGRAM TAG SCORE: the log tells that a process has earned the tag, which makes its score so high.
tagged() {
  local pid
  for pid in $(sed -n "s/.*Added Tag: $3, Updated Score: $4, for PID: \([0-9]*\)$/\1/p" $LOG/edr.log); do
    if grep -qF "to process ($2, $pid)" $LOG/edr.log; then pass "$1" && return; fi
  done
  fail "$1" "no process of $2 has earned $3: $(grep -F 'Added Tag: ' $LOG/edr.log | tail -n 3 | tr '\n' ' ')"
}

# inherited NAME TAG PROGRAM FROM: by whom, as the log has it.
inherited() { expect "$1" grep -qE "Adding tag '$2' to process \($3, [0-9]+\) from $4" $LOG/edr.log; }

# wait_for_all: until all that was done came. Nobody knows the program that tells it.
wait_for_all() {
  local name
  name=$F/last-$(cut -d' ' -f1 /proc/uptime)
  LABEL="the last of it"
  /usr/bin/logger create "$name" >/dev/null
  told root "CREATE file $name" logger
  ran root /usr/bin/logger -
  wait_for_end_of "/usr/bin/logger create $name"
}

programs_on_stage
mkdir -p $F $STORIES /etc/cron.d
chmod 1777 $F /tmp
chmod 0777 /etc/cron.d
echo 'root:*:19000:0:99999:7:::' >/etc/shadow
for name in head install; do ln /bin/busybox /usr/bin/$name; done
for name in setuid trusted; do
  cp /usr/local/bin/file-actor $F/$name
  chmod 4755 $F/$name
done
echo tool >$F/tool
echo tool >$F/allowed
echo tool >$F/mode
mkdir -p /etc/pam.d
for kind in auth account session; do echo "$kind required pam_permit.so"; done >/etc/pam.d/sudo
printf '%s ALL=(ALL) NOPASSWD: ALL\n' alice root >/etc/sudoers
chmod 0440 /etc/sudoers
ip addr add $REMOTE/8 dev lo
printf '#!/usr/bin/dash\n/usr/bin/touch "$1"\n:\n' >/tmp/job
cp /tmp/job /tmp/allowed
chmod 0755 /tmp/job /tmp/allowed
mkfifo /run/tagged /run/untagged /run/before /run/acts /run/later
chmod 0666 /run/tagged /run/untagged

# Each program once: from its second start on its digest is known, and it is clean.
story warm-up <<WARM
/usr/bin/cat /etc/hosts >/dev/null
/usr/bin/head /etc/hosts >/dev/null
/usr/bin/passwd read /etc/hosts >/dev/null
/usr/bin/dash -c :
/usr/bin/chmod 0644 $F/mode
/usr/bin/touch $F/mode
/usr/bin/install -m 0600 /etc/hosts $F/installed
/usr/bin/curl fork
/usr/bin/id >/dev/null
/usr/bin/sleep 0
/usr/bin/sh -c :
$F/setuid read /etc/hosts >/dev/null
$F/trusted read /etc/hosts >/dev/null
/usr/bin/sudo /usr/bin/id >/dev/null
WARM
story read-by-cat <<'STORY'
/usr/bin/cat /etc/shadow >/dev/null
STORY
story read-by-another <<'STORY'
/usr/bin/passwd read /etc/shadow >/dev/null
STORY
story read-by-excluded <<'STORY'
/usr/bin/head /etc/shadow >/dev/null
STORY
story script <<'STORY'
/tmp/job /etc/cron.d/by-shebang
STORY
story script-argument <<'STORY'
/usr/bin/dash /tmp/job /etc/cron.d/by-argument
STORY
story allowed-script <<'STORY'
/tmp/allowed /etc/cron.d/by-allowed-shebang
STORY
story allowed-script-argument <<'STORY'
/usr/bin/dash /tmp/allowed /etc/cron.d/by-allowed-argument
STORY
story allowed-cron <<'STORY'
/tmp/job /etc/cron.d/allowed
STORY
story allowed-setuid-bit <<STORY
/usr/bin/chmod 4755 $F/allowed
STORY
story setuid-bit <<STORY
/usr/bin/chmod 4755 $F/tool
STORY
story another-mode <<STORY
/usr/bin/chmod 0640 $F/mode
STORY
story hidden <<STORY
/usr/bin/touch $F/.hidden
STORY
story hidden-by-excluded <<STORY
/usr/bin/install -m 0600 /etc/hosts $F/.installed
STORY
story cron <<'STORY'
/usr/bin/touch /etc/cron.d/alone
STORY
story connection <<STORY
/usr/bin/curl connect $REMOTE 443
STORY
story excluded-address <<'STORY'
/usr/bin/curl connect 10.9.2.3 443
STORY
story elevated <<STORY
$F/setuid read /etc/hosts >/dev/null
STORY
story trusted <<STORY
$F/trusted read /etc/hosts >/dev/null
STORY
story sudo <<'STORY'
/usr/bin/sudo /usr/bin/id >/dev/null
STORY
story siblings <<STORY
/usr/bin/sleep 15 &
/bin/sleep 1
/usr/bin/touch $F/.of-siblings
/usr/bin/sleep 2
/usr/bin/id >/dev/null
wait
STORY
# What a shell does itself is told when it has rested.
story child <<STORY
: >$F/.of-a-parent
/usr/bin/sleep 40
:
STORY
story over-the-restart <<STORY
/usr/bin/touch $F/.before-the-restart
/usr/bin/sleep 2
/usr/bin/sh -c 'read -r go; : >$F/after-the-restart' <>/run/tagged
STORY
story untagged-over-the-restart <<STORY
/usr/bin/sh -c 'read -r go; : >$F/after-the-restart-too' <>/run/untagged
STORY
chmod -R 0755 $STORIES

write_configuration
configure cpu_limit 100
folder() {
  printf '{"ruleId": "%s", "ruleType": "Directory", "imagePath": "%s", "recursiveDepth": "All",
    "notify": {"File": ["create", "write", "delete", "rename", "attribute"]}},' "$1" "$1"
}
KNOWN='"/bin/busybox", "'$F'/setuid", "'$F'/trusted"'
for name in sh cat chmod id sleep touch head install passwd curl dash sudo; do KNOWN="$KNOWN, \"/usr/bin/$name\""; done
ioc_manifest $CONF/ioc-manifest.json "$(folder $F)$(folder /etc/cron.d)$(cat <<RULES
  {"ruleId": "shadow", "ruleType": "File", "imagePath": "/etc/shadow", "notify": {"File": ["read"]}},
  {"ruleId": "programs", "ruleType": "Process", "notify": {"process": ["create", "delete"]},
    "exclusionFilters": [{"filterType": ["patterns"], "patterns": ["/bin/*", "/usr/local/*"]}]},
  {"ruleId": "connections", "ruleType": "Network", "notify": {"network": ["establish"]}}
RULES
)" ", \"heuristicsEnabled\": false, \"knownProcessPaths\": [$KNOWN], \"tags\": {\"thresholdScore\": 30,
  \"CredentialAccess\": {\"score\": 30, \"exclusions\": [{\"actorProcess\": \"/usr/bin/head\", \"patterns\": \"/etc/shadow\"}]},
  \"DefenseEvasion\": {\"score\": 30, \"permissions\": [4755], \"exclusions\": [{\"actorProcess\": \".*/install\"},
    {\"actorProcess\": \"/usr/bin/chmod\", \"patterns\": \"$F/allowed\"}]},
  \"Execution\": {\"score\": 15, \"exclusions\": [{\"actorProcess\": \"/usr/bin/dash\", \"patterns\": \"/tmp/allowed\"}]},
  \"Exfiltration\": {\"score\": 30, \"exclusions\": [{\"actorProcess\": \"/usr/bin/curl\", \"patterns\": \"10[.]9[.].*\"}]},
  \"Persistence\": {\"score\": 15, \"exclusions\": [{\"actorProcess\": \"/usr/bin/touch\", \"patterns\": \"/etc/cron[.]d/allowed\"}]},
  \"PrivilegeEscalation\": {\"score\": 30, \"exclusions\": [{\"actorProcess\": \"$F/trusted\"}]}}"
ioc_manifests $CONF/ioc-manifest.json
start_configured
expect "the manifest is read" log_says "[IOC]: Successfully parsed manifest file $CONF/ioc-manifest.json"

step "each program once, so that its digest is known"
service $STORIES/warm-up
for who in 1 2; do alice -c :; done
wait_for_all
: >$LOG/receiver.log
: >$OWED_BY

step "techniques"
service $STORIES/child &
CHILD_STORY=$!
LABEL="a read of /etc/shadow by cat"
chmod 0644 /etc/shadow
alice $STORIES/read-by-cat
ran alice /usr/bin/cat -
told alice "READ file /etc/shadow" cat
LABEL="the same by a program that shows nothing"
alice $STORIES/read-by-another
nothing
LABEL="the same by an excluded program"
alice $STORIES/read-by-excluded
nothing
for way in shebang argument; do
  LABEL="a script in /tmp by $way, which is not enough, and its child that makes a file of cron"
  if [ $way = shebang ]; then alice $STORIES/script; else alice $STORIES/script-argument; fi
  ran alice /usr/bin/touch -
  told alice "CREATE file /etc/cron.d/by-$way" touch
done
for way in script script-argument; do
  LABEL="an excluded $way, whose child's file of cron is not enough"
  alice $STORIES/allowed-$way
  nothing
done
LABEL="a script in /tmp, whose child's file of cron is excluded"
alice $STORIES/allowed-cron
nothing
LABEL="chmod u+s of an excluded file"
service $STORIES/allowed-setuid-bit
nothing
LABEL="chmod u+s"
service $STORIES/setuid-bit
ran root /usr/bin/chmod -
told root "CHANGE file $F/tool" chmod
LABEL="another mode"
service $STORIES/another-mode
nothing
LABEL="a hidden file"
service $STORIES/hidden
ran root /usr/bin/touch -
told root "CREATE file $F/.hidden" touch
LABEL="a hidden file by an excluded program"
service $STORIES/hidden-by-excluded
nothing
LABEL="a file of cron, which is not enough"
service $STORIES/cron
nothing
LABEL="a connection by curl"
service $STORIES/connection
ran root /usr/bin/curl -
told root "ESTABLISHED network $REMOTE:443" curl
LABEL="a connection to an excluded address"
service $STORIES/excluded-address
nothing
LABEL="a setuid program by a login user"
alice $STORIES/elevated
ran alice $F/setuid -
LABEL="an excluded setuid program by a login user"
alice $STORIES/trusted
nothing

LABEL="sudo by a login user, and what it runs"
alice $STORIES/sudo
ran alice /usr/bin/sudo -
ran root /usr/bin/id sudo
LABEL="sudo by a service of root's"
service $STORIES/sudo
nothing

step "relatives"
LABEL="siblings"
service $STORIES/siblings
# The one that was there, the one that acted, and who came later.
ran root /usr/bin/sleep -
ran root /usr/bin/touch -
told root "CREATE file $F/.of-siblings" touch
ran root /usr/bin/sleep -
ran root /usr/bin/id -
LABEL="never by way of process 1"
# They wait in a built-in, so that none of them has a child that gets the tag.
(sh -c "read -r go; exec /usr/bin/sleep 20" <>/run/before &)
(sh -c "read -r go; exec /usr/bin/curl connect $REMOTE 444" <>/run/acts &)
(sh -c "read -r go; exec /usr/bin/id >/dev/null" <>/run/later &)
for moment in before acts later; do
  sleep 2
  echo go >/run/$moment
done
sleep 2
ran root /usr/bin/curl -
told root "ESTABLISHED network $REMOTE:444" curl
LABEL="a child that is there when its parent earns the tag"
wait $CHILD_STORY
ran root /usr/bin/sh -
told root "CREATE file $F/.of-a-parent" sh
ran root /usr/bin/sleep sh
wait_for_all

tagged "cat has CredentialAccess" /usr/bin/cat CredentialAccess 30
tagged "a script by shebang has Execution" /usr/bin/dash Execution 15
tagged "its child has Persistence behind it" /usr/bin/touch Persistence 30
tagged "chmod has DefenseEvasion" /usr/bin/chmod DefenseEvasion 30
tagged "touch has DefenseEvasion" /usr/bin/touch DefenseEvasion 30
tagged "touch has Persistence" /usr/bin/touch Persistence 15
tagged "curl has Exfiltration" /usr/bin/curl Exfiltration 30
tagged "the setuid program has PrivilegeEscalation" $F/setuid PrivilegeEscalation 30
tagged "sudo has PrivilegeEscalation" /usr/bin/sudo PrivilegeEscalation 30
inherited "what sudo runs has its tag" PrivilegeEscalation /usr/bin/id "parent process"
inherited "the child of a script has its tag" Execution /usr/bin/touch "parent process"
inherited "who was there gets the tag of a sibling" DefenseEvasion /usr/bin/sleep "related process"
inherited "who comes later as well" DefenseEvasion /usr/bin/id "sibling process"
expect "nobody gets one by way of process 1" not grep "Adding tag 'Exfiltration' to process " $LOG/edr.log
expect "a clean process stays clean" grep -q "Returning tag verdict 'Clean' to process (/usr/bin/head, " $LOG/edr.log

step "a restart in the middle"
LABEL="a tagged process over the restart"
service $STORIES/over-the-restart &
TAGGED=$!
service $STORIES/untagged-over-the-restart &
UNTAGGED=$!
expect "its tag is there" wait_until 30 grep -qE "Adding tag 'DefenseEvasion' to process \(/usr/bin/sh, [0-9]+\) from sibling" $LOG/edr.log
TAGGED_PID=$(sed -n "s|.*Adding tag 'DefenseEvasion' to process (/usr/bin/sh, \([0-9]*\)) from sibling.*|\1|p" $LOG/edr.log | tail -n 1)
sleep 3
stop_daemon
FIRST_RUN=$(wc -l <$LOG/edr.log)
start_again
expect "and hears the kernel" wait_until 20 hears
LABEL="the first shell of a run, whose digest is not known yet"
/usr/bin/sh -c :
expect "its digest is taken" wait_until 20 sh -c "tail -n +$FIRST_RUN $LOG/edr.log | grep -q 'Hash not found for process: [0-9]* (/usr/bin/sh)'"
ran root /usr/bin/sh -
LABEL="a tagged process over the restart"
echo go >/run/tagged
echo go >/run/untagged
wait $TAGGED
wait $UNTAGGED
ran root /usr/bin/touch -
told root "CREATE file $F/.before-the-restart" touch
ran root /usr/bin/sleep -
# Told again when it acts: the new run was not told of its start.
printf '%s\tsome RUNNING process /usr/bin/sh by - as root\n' "$LABEL" >>$OWED_BY
told root "TERMINATED process /usr/bin/sh" -
told root "CREATE file $F/after-the-restart" sh
LABEL="an untagged process over the restart"
nothing
wait_for_all
expect "its score is what it was" sh -c "tail -n +$FIRST_RUN $LOG/edr.log | grep -q 'PID: $TAGGED_PID Threshold: 30 Score: 30'"

ioc_stories >/run/ioc-events
printf 'what nobody owes\tnone pid=\n' >>$OWED_BY
judge /run/ioc-events
expect "no batch is missing" no_gaps
stop_all
expect "nothing failed" not grep -E 'Uncaught exception|EventProcessor: Failed' $LOG/edr.log
