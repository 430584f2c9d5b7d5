# shellcheck shell=dash
# The daemon stops and starts under processes that go on, is killed, loses its platform, and sees its clock set: who runs
# is known with his parents, who ended meanwhile has ended, and no batch is missing. Of a reboot the
# daemon is shown what it would see: the clock is set while it is down, so that process 1 and the machine have started at
# another time than was stored. ioc_reboot.sh has real ones.
# seconds: 900
. /scenario/lib.sh

S=/srv/stage
F=/srv/ioc

# family NAME: a parent and his child, which waits for its go. Sets PARENT and CHILD.
family() {
  mkfifo "/run/$1" "/run/$1.parent"
  $S/sh -c "$S/sh -c 'read -r go; : >$F/$1; :' <>/run/$1 & echo \$! >/run/$1.child; wait; read -r go <>/run/$1.parent" &
  PARENT=$!
  echo $PARENT >"/run/$1.pid"
  wait_until 10 test -s "/run/$1.child"
  of_family "$1"
  ioc_owes "the start of $1's child is told" "ioc RUNNING process $S/sh pid=$CHILD user=root parent=$PARENT "
}

of_family() {
  PARENT=$(cat "/run/$1.pid")
  CHILD=$(cat "/run/$1.child")
}

# child_goes NAME: it makes a file and ends, and all of that is told of it, with its parent.
child_goes() {
  of_family "$1"
  echo go >"/run/$1"
  ioc_owes "what $1's child does is told" "ioc CREATE file $F/$1 actor=$S/sh pid=$CHILD user=root "
  ioc_owes "and its end, with its parent" "ioc TERMINATED process $S/sh pid=$CHILD user=root parent=$PARENT actor=$S/sh "
  expect "once" is "$(grep -c "^ioc TERMINATED process $S/sh pid=$CHILD " $LOG/receiver.log)" 1
  expect "the parent is told to go on" not grep "^ioc TERMINATED process $S/sh pid=$PARENT " $LOG/receiver.log
}

# makes NAME: a file that is to be told of.
makes() {
  $S/file-actor create "$F/$1" >/run/acted || fail "making $1" "$(cat /run/acted)"
  echo "$F/$1" >>/run/made
}

all_told() {
  local file
  while read -r file; do ioc_came "ioc CREATE file $file actor=$S/file-actor " || return 1; done </run/made
}

# set_clock SECONDS: moves the wall clock by so much.
set_clock() { date -s "@$(($(date +%s) + $1))" >/dev/null; }

mkdir -p $S $F
cp /bin/busybox $S/sh
cp /usr/local/bin/file-actor $S/
write_configuration
configure cpu_limit 100
watch_programs_and_files $S $F
start_configured

step "families that outlive the daemon"
for name in stopped killed set-forward set-back booted; do family $name; done
mkfifo /run/lone
$S/sh -c 'read -r go' <>/run/lone &
LONE=$!
ioc_owes "somebody's start is told" "ioc RUNNING process $S/sh pid=$LONE "
makes kept

step "the daemon is stopped and started"
stop_daemon
kill -9 $LONE
wait $LONE 2>/dev/null
start_again
expect "the tree of processes is taken up" log_says "[IOC]: Loading up processes from TtlProcesses table."
ioc_owes "who ended meanwhile is told to have ended" "ioc TERMINATED process $S/sh pid=$LONE "
child_goes stopped
$S/file-actor unlink $F/kept >/run/acted
ioc_owes "the end of a file that was told of before" "ioc DELETE file $F/kept actor=$S/file-actor "
expect "no number came twice" numbers_are_whole 0

step "the daemon is killed while it works"
(
  number=0
  while [ $number -lt 40 ]; do
    $S/file-actor create $F/under-the-kill-$number >/dev/null
    number=$((number + 1))
  done
) &
writer=$!
sleep 3
kill -9 "$(daemon_pid)"
agent_ends
wait $writer
start_again
child_goes killed
makes after-the-kill
expect "what comes then is told" wait_until 60 all_told
expect "no number is missing, one came twice at the most" numbers_are_whole 1

step "the platform is away, and the daemon stops meanwhile"
stop_receiver
for number in 1 2 3 4; do
  makes outage-$number
  sleep 3 # a batch each
done
stop_daemon
start_again
for number in 5 6; do
  makes outage-$number
  sleep 3
done
expect "batches wait on disk" [ "$(find $IOC_SPOOL -type f | wc -l)" -ge 3 ]
start_receiver
expect "everything comes when the platform is back" wait_until 60 all_told
expect "and no number is missing" numbers_are_whole 1

step "the clock is set by an hour, forward and back"
before=$(boot_time)
set_clock 3600
stop_daemon
start_again
child_goes set-forward
expect "the machine is told to have started an hour later" [ "$(($(boot_time) - before))" -ge 3590 ]
set_clock -7200
stop_daemon
start_again
child_goes set-back
expect "nobody has taken that for a reboot" not log_says "[IOC]: System reboot detected"

step "what the daemon sees of a reboot"
stop_daemon
set_clock 3600
start_again
expect "the tree of processes comes up empty" log_says "[IOC]: System reboot detected. Clearing the TtlProcessTree."
expect "the platform hears of the new start" [ "$(makes booting && wait_until 60 all_told && boot_time)" -ge "$((before - 10))" ]
child_goes booted
expect "no number is missing" numbers_are_whole 1
expect "the receiver has seen no gap" no_gaps
stop_all
expect "nothing failed" not grep -E 'Uncaught exception|EventProcessor: Failed' $LOG/edr.log
