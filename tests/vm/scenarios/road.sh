# shellcheck shell=dash
# Both roads: a platform, an agent, the daemon; work in the watched folder by root and by an unprivileged user, each event
# at the platform with the right action, path and actor; a small attack, each of its steps at the platform with all
# ancestors and with the digest of the file; a clean end. scripts/demo shows this scenario.
. /scenario/lib.sh

REMOTE=10.1.2.3
ATTACK=/run/attack-owed # a line "EVENT by WHO as USER" for each step
OF_ATTACK='(file /tmp/[^ ]*|network [^ ]*|process (/usr/bin/|/tmp/)[^ ]*)'

# told EVENT WHO: the platform is to hear of it. All of them are of the same story and the same user.
told() { echo "$1 by $2 as root" >>$ATTACK; }
ran() {
  told "RUNNING process $1" "$2"
  told "TERMINATED process $1" "$2"
}

# What came, from the story's first program on.
stories() { ioc_stories | sed 's/^event //; s/ by busybox[^ ]* as / by - as /; s/<busybox[^ ]* as / as /'; }

attack_told() {
  local line
  stories >/run/stories
  while read -r line; do is "$(grep -cxF "$line" /run/stories)" "$(grep -cxF "$line" $ATTACK)" || return 1; done <$ATTACK
}

# attack_lines: the platform's own lines of the story, as it prints them.
attack_lines() { grep -E "^ioc [A-Z]+ $OF_ATTACK " $LOG/receiver.log; }

nothing_but_the_attack() { is "$(grep -E "^[A-Z]+ $OF_ATTACK " /run/stories | sort)" "$(sort $ATTACK)"; }

# digest_of ACTION PATH: as the platform was told it.
digest_of() { sed -n "s|^ioc $1 file $2 actor=.* sha256=||p" $LOG/receiver.log | head -n 1; }

# user_of EVENT: the real user of its line.
user_of() { echo "$1" | sed 's/.* user=\([^ ]*\) audit-user=.*/\1/'; }

mkdir -p $WATCHED/empty $WATCHED/alice /srv/elsewhere
for name in report.txt plan.txt script.sh owned.txt draft.txt settings.tmp settings.conf outgoing.txt old.log linked.txt \
  alice/notes.txt; do
  echo "here before the daemon" >$WATCHED/$name
done
chown -R alice:alice $WATCHED/alice

write_configuration
cp /examples/ioc-manifest.json $CONF/
ioc_manifests $CONF/ioc-manifest.json
mkdir -p /usr/bin
for program in sh cp nc; do ln /bin/busybox /usr/bin/$program; done
chmod 1777 /tmp
ip addr add $REMOTE/8 dev lo
start_receiver
step "reference-receiver, the platform, listens on https://127.0.0.1:8443"
start_agent
step "reference-agent, the parent agent, starts ostrel-edr and sends it the configuration"
if wait_for_daemon; then
  pass "daemon runs"
else
  fail "daemon runs" "$(tail -n 3 $LOG/agent.log $LOG/edr.log 2>&1 | tr '\n' ' ')"
  exit
fi
while read -r line; do step "  $line"; done <$LOG/agent.log
step "ostrel-edr (process $(daemon_pid)) receives the records of the kernel's audit: $(audit-rules status)"
step "the kernel's rules, from the manifest and for what is left out:"
audit-rules | while read -r rule; do step "  $rule"; done

step "working in $WATCHED:"
act create $WATCHED/new.txt
act write $WATCHED/report.txt
act --loginuid 1000 read $WATCHED/plan.txt
act chmod $WATCHED/script.sh 0755
act chown $WATCHED/owned.txt 1000
act rename $WATCHED/draft.txt $WATCHED/final.txt
act rename-over $WATCHED/settings.tmp $WATCHED/settings.conf
act rename $WATCHED/outgoing.txt /srv/elsewhere/outgoing.txt
act unlink $WATCHED/old.log
act mkdir $WATCHED/folder
act rmdir $WATCHED/empty
act symlink $WATCHED/link-to-report report.txt
act link $WATCHED/second-name.txt $WATCHED/linked.txt
act --loginuid 1000 --uid 1000 create $WATCHED/alice/new.txt
act --loginuid 1000 --uid 1000 write $WATCHED/alice/notes.txt

step "a small attack, after a login: a tool comes to a hidden place, runs, calls its master and leaves a script behind:"
cat >/run/attack <<STORY
/usr/bin/cp /usr/local/gnu/dash /tmp/.update
/tmp/.update -c "/usr/bin/nc -w 5 $REMOTE 4444 </dev/null; :"
/tmp/.update -c 'echo "#!/bin/sh" >/tmp/.later'
STORY
while read -r line; do step "  $line"; done </run/attack
nc -l -p 4444 </dev/null >/dev/null &
wait_until 10 grep -qi ':115C ' /proc/net/tcp
administrator /run/attack
: >$ATTACK
ran /usr/bin/sh -
ran /usr/bin/cp sh
told "CREATE file /tmp/.update" "cp<sh"
ran /tmp/.update sh
ran /usr/bin/nc ".update<sh"
told "ESTABLISHED network $REMOTE:4444" "nc<.update<sh"
ran /tmp/.update sh
told "CREATE file /tmp/.later" ".update<sh"

wait_for_owed 60
expect "every step of the attack came, with all ancestors" wait_until 60 attack_told
expect "and nothing else of it" nothing_but_the_attack
step "what the platform prints of it:"
attack_lines | while read -r line; do step "  $line"; done
expect "the tool's digest is the right one" is "$(digest_of CREATE /tmp/.update)" "$(sha256sum /tmp/.update | cut -d' ' -f1)"
expect "and so is the script's" is "$(digest_of CREATE /tmp/.later)" "$(sha256sum /tmp/.later | cut -d' ' -f1)"
expect "nothing was reported that nobody did" no_other_events

step "the agent sends 'exit'"
stop_all
step "ostrel-edr ended with code $DAEMON_CODE; rules left in the kernel: $(audit-rules | wc -l)"

# The table: one line for each owed event. Its words are those of "done", up to the process id.
row() { printf 'table: %-7s %-57s %-20s %s\n' "$@"; }
row DONE "IN THE GUEST" "BY" "RECEIVED BY THE PLATFORM"
while read -r line; do
  event=${line#done }
  path=${event#* }
  actor=${event##* actor=}
  answer=NO
  if received "$line" >/dev/null; then answer="yes, id $(grep -F "event $event id=" $LOG/receiver.log | sed 's/.* id=//')"; fi
  row "${event%% *}" "${path%% actor=*}" "$(basename "${actor%% *}"), $(user_of "$event")" "$answer"
done <$OWED

printf 'table: \n'
row() { printf 'table: %-11s %-35s %-18s %s\n' "$@"; }
row ATTACK "IN THE GUEST" "BY" "RECEIVED BY THE PLATFORM"
while read -r line; do
  event=${line% by *}
  who=${line##* by }
  answer=NO
  if grep -qxF "$line" /run/stories; then
    answer=yes
    case $event in
      *" file "*) answer="yes, sha256 $(digest_of "${event%% *}" "${event##* file }" | cut -c1-16)..." ;;
    esac
  fi
  row "${event%% *}" "${event#* }" "$(echo "${who% as *}" | sed 's/</ < /g')" "$answer"
done <$ATTACK

# One round of everyday work and, in every third one, the attack.
work_on() {
  local file=$WATCHED/alice/round-$1
  by_alice create "$file.txt"
  by_alice write "$WATCHED/alice/notes.txt"
  by_alice rename "$file.txt" "$file.done"
  file-actor chmod "$WATCHED/script.sh" "075$(($1 % 8))"
  if [ $(($1 % 4)) -eq 0 ]; then file-actor unlink "$WATCHED/alice/round-$(($1 - 2)).done"; fi
  if [ $(($1 % 3)) -eq 0 ]; then
    timeout 10 nc -l -p 4444 </dev/null >/dev/null &
    wait_until 10 grep -qi ':115C ' /proc/net/tcp
    administrator /run/attack
    rm -f /tmp/.update /tmp/.later
  fi
}
by_alice() { file-actor --loginuid 1000 --uid 1000 "$@"; }

if grep -q ostrel.shell /proc/cmdline; then
  step "starting everything once more, for the shell: see $LOG, audit-rules, reference-agent, file-actor"
  start_receiver
  start_agent
  wait_for_daemon
elif grep -q ostrel.page /proc/cmdline; then
  step "starting everything once more, for the page"
  insmod /scenario/modules/vmxnet3.ko
  ip addr add 10.0.2.15/24 dev eth0
  ip link set eth0 up
  start_receiver --page 8080 --page-address 10.0.2.15
  start_agent
  wait_for_daemon
  sed -n 's|^page on http://[^/]*|page: |p' $LOG/receiver.log
  round=0
  while true; do
    round=$((round + 1))
    work_on $round >/dev/null 2>&1
    sleep 4
  done
fi
