# shellcheck shell=dash
# Whoever acts is known with all his ancestors, however he came to be and however soon he goes. Listened to by
# process-watcher, which knows of processes what it is told and nothing else.
. /scenario/lib.sh

HEARD=$LOG/heard
ACTOR=/usr/local/bin/file-actor

created() { grep -q "^Create $WATCHED/$1 " $HEARD; }

# family FILE: who made it, and his ancestors: this shell is "me", process 1 is "init", the others go by their programs.
family() {
  sed -n "s|^Create $WATCHED/$1 ||p" $HEARD | head -n 1 |
    sed "s/busybox($$)/me/; s/busybox(1)\$/init/; s/([0-9]*)//g"
}

# owes NAME FILE FAMILY
owes() {
  if wait_until 240 created "$2"; then
    expect "$1" is "$(family "$2")" "$3"
  else
    fail "$1" "nothing was heard of $2"
  fi
}


is_ended_twice() { is "$(grep -cx "End $1" $HEARD)" 2; }

pause_watcher() { kill -STOP $WATCHER; }
resume_watcher() { kill -CONT $WATCHER; }

write_configuration
log_level trace
mkfifo /run/agent /run/early /run/gone
sh -c "while read -r name; do $ACTOR create $WATCHED/\$name; done" <>/run/agent &
AGENT=$!
sh -c "read -r go; : >$WATCHED/early; read -r go" <>/run/early &
EARLY=$!
sh -c "read -r go; : >$WATCHED/gone" <>/run/gone &
GONE=$!

process-watcher $AGENT $WATCHED $CONF/log.properties >$HEARD 2>&1 &
WATCHER=$!
expect "somebody listens" wait_until 20 grep -q '^watching' $HEARD

step "the three places where an actor is looked for"
echo go >/run/early
wait_until 20 [ -e $WATCHED/early ]
expect "who was there before is found in procfs" wait_until 20 grep -q "Creating actor process from ProcFS: $EARLY\$" $LOG/edr.log
expect "and his start is told" wait_until 20 grep -q "^Before busybox($EARLY)<busybox($$)<busybox(1)\$" $HEARD
expect "his file rests while he lives" not created early
echo go >/run/early
owes "and is told of when he goes" early "busybox<me<init"

pause_watcher
echo go >/run/gone
wait $GONE
resume_watcher
owes "who was there before and is gone is known by what he did" gone "busybox<me<init"
expect "by the event itself" grep -q "Creating process from Event data: $GONE\$" $LOG/edr.log

pause_watcher
(
  $ACTOR create $WATCHED/cloned
  :
)
resume_watcher
owes "a fork that is gone is known by its clone" cloned "file-actor<busybox<me<init"
parent=$(sed -n "s|^Create $WATCHED/cloned file-actor([0-9]*)<busybox(\([0-9]*\)).*|\1|p" $HEARD)
expect "by nothing else" grep -q "Creating process from Clone Cache: $parent\$" $LOG/edr.log

step "the ways to make a process"
process-actor vfork-execve $ACTOR create $WATCHED/vfork
owes "by vfork" vfork "file-actor<process-actor<me<init"
process-actor spawn $ACTOR create $WATCHED/spawned
owes "by posix_spawn" spawned "file-actor<process-actor<me<init"
echo x | $ACTOR create $WATCHED/piped | cat
owes "in a pipeline" piped "file-actor<me<init"
printf '#!/bin/sh\n%s create %s/scripted\n:\n' $ACTOR $WATCHED >/root/script
chmod +x /root/script
/root/script
owes "by a script" scripted "file-actor<busybox[/root/script]<me<init"
process-actor execve /usr/local/bin/process-actor execve /usr/local/bin/process-actor execve /usr/local/bin/process-actor \
  execve /bin/sh -c "$ACTOR create $WATCHED/fifth; :" &
five=$!
wait $five
owes "after five programs of one process" fifth "file-actor<busybox<me<init"
expect "each of the five is told" is "$(grep -c "^Start [^ <]*($five)<busybox($$)<busybox(1)\$" $HEARD)" 5
process-actor thread-create $WATCHED/threaded &
threaded=$!
wait $threaded
owes "what a thread does is its process's" threaded "process-actor<me<init"
expect "by its id" grep -q "^Create $WATCHED/threaded process-actor($threaded)<" $HEARD
sh -c "( sleep 1; $ACTOR create $WATCHED/orphaned; : ) &"
owes "an orphan is init's" orphaned "file-actor<busybox<init"

step "a pid that comes again"
sh -c "sleep 1000 & wait" &
pid=$!
wait_until 20 grep -q "^Start busybox([0-9]*)<busybox($pid)<" $HEARD
kill -KILL $pid
wait $pid
expect "a process that is killed ends without a word" not grep -qx "End $pid" $HEARD
begin_as $pid $ACTOR create $WATCHED/again
wait $BEGUN
expect "is another process's" is $BEGUN $pid
owes "who is known by his own name" again "file-actor<me<init"
expect "and by whom the end of the first is known" wait_until 20 is_ended_twice $pid
killall sleep

step "five thousand forks"
forks=0
while [ $forks -lt 5000 ]; do
  (:)
  forks=$((forks + 1))
done
$ACTOR create $WATCHED/stormed
owes "a storm of forks hides nobody" stormed "file-actor<me<init"
expect "and costs no record" grep -q ' lost=0 ' <<STATUS
$(audit-rules status)
STATUS

step "the agent and what it starts"
echo by-agent >/run/agent
wait_until 20 [ -s $WATCHED/by-agent ]
$ACTOR create $WATCHED/last
owes "the others are heard" last "file-actor<me<init"
expect "the agent's children are not" not grep -q "by-agent\|($AGENT)" $HEARD
expect "nor is the listener itself" not grep -q "process-watcher\|($WATCHER)" $HEARD

kill $WATCHER
wait $WATCHER
expect "the listener ends in order" is $? 0
expect "nobody has acted whom nobody knew" not grep -q 'nobody(' $HEARD
# The rules' own changes are no events, and some program may act while the listener ends.
expect "nothing was lost on the way" grep -qx 'lost events of unsupported calls: [0-9]*\(, events left at the stop: [0-9]*\)\{0,1\}' $HEARD
expect "no rule is left" rules_empty
kill $AGENT
