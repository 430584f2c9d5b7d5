# shellcheck shell=dash
# The machine reboots, once in order and once because its power fails, and has its disk again: nobody who ran before is
# known any more, what was told of files is, and the numbers of the batches go on, those that waited on the disk included.
# disk: 64
# seconds: 900
. /scenario/lib.sh

S=/srv/stage
F=/srv/ioc
DISK=/mnt/disk

# boots_again: in order; power_fails: what nobody has asked the disk to keep is lost.
boots_again() {
  echo "guest: boots again"
  cd /
  sync
  reboot -f
  sleep 60
}
power_fails() {
  echo "guest: boots again"
  sleep 1 # for the console
  echo b >/proc/sysrq-trigger
  sleep 60
}

# makes NAME...: files that are to be told of.
makes() {
  local name
  for name; do
    $S/file-actor create "$F/$name" >/run/acted || fail "making $name" "$(cat /run/acted)"
    echo "$F/$name" >>$DISK/made
  done
}

all_told() {
  local file
  while read -r file; do ioc_came "ioc CREATE file $file actor=$S/file-actor " || return 1; done <$DISK/made
}

batches_wait() { [ "$(find $IOC_SPOOL -type f | wc -l)" -ge "$1" ]; }

# told_since_boot PATTERN: how many lines of the platform, in this boot.
told_since_boot() { tail -n +$((LINES_BEFORE + 1)) $LOG/receiver.log | grep -cE "$1"; }

is_told() { [ "$(told_since_boot "$1")" -ge 1 ]; }

# stays NAME [PID]: a program of the stage, of this pid, that makes a file when it is told to go. Sets STAYS to its pid.
stays() {
  mkfifo "/run/$1"
  if [ -n "${2:-}" ]; then
    begin_as "$2" $S/sh -c "read -r go <>/run/$1; : >$F/$1"
    STAYS=$BEGUN
  else
    $S/sh -c "read -r go <>/run/$1; : >$F/$1" &
    STAYS=$!
  fi
  expect "the start of the $1 one is told" wait_until 60 is_told "^ioc RUNNING process $S/sh pid=$STAYS "
}

mkdir -p $DISK
if ! mount -t ext4 /dev/nvme0n1 $DISK 2>/dev/null; then
  /usr/local/bin/mke2fs -q -t ext4 -E nodiscard /dev/nvme0n1 >/run/mke2fs 2>&1 || fail "mke2fs" "$(cat /run/mke2fs)"
  expect "the disk is there" mount -t ext4 /dev/nvme0n1 $DISK
  echo 1 >$DISK/boot
fi
INSTALLED=$(configured agent_install_path)
for folder in /etc/ostrel /var/lib/ostrel /var/log/ostrel "$INSTALLED" /srv; do
  mkdir -p "$folder"
  if [ ! -e "$DISK$folder" ]; then
    mkdir -p "$DISK${folder%/*}"
    cp -a "$folder" "$DISK$folder"
  fi
  mount -o bind "$DISK$folder" "$folder"
done
touch $LOG/receiver.log
LINES_BEFORE=$(wc -l <$LOG/receiver.log)

case $(cat $DISK/boot) in
  1)
    step "the first start of the machine"
    mkdir -p $S $F
    cp /bin/busybox $S/sh
    cp /usr/local/bin/file-actor $S/
    write_configuration
    configure cpu_limit 100
    watch_programs_and_files $S $F
    start_configured
    # Above all that a start of the machine needs, so that it can come again.
    next_pid 20000
    stays first
    makes kept also-kept
    expect "files are told of" wait_until 60 all_told
    boot_time >$DISK/boot-time
    stop_receiver
    makes waits-1 waits-2
    expect "a batch waits on the disk" wait_until 60 batches_wait 1
    stop_daemon
    expect "the disk has a tree of processes" log_says "[IOC]: Saving Ttl Process Tree to db"
    echo $STAYS >$DISK/stays
    last_batch >$DISK/last-batch
    find $IOC_SPOOL -type f | wc -l >$DISK/waiting
    echo 2 >$DISK/boot
    boots_again
    ;;
  2)
    step "the machine has started again"
    start_configured
    expect "the tree of processes comes up empty" log_says "[IOC]: System reboot detected. Clearing the TtlProcessTree."
    expect "what waited on the disk comes" wait_until 60 all_told
    makes after-the-reboot
    expect "and what is made now" wait_until 60 all_told
    expect "the machine is told to have started later" [ "$(boot_time)" -gt "$(cat $DISK/boot-time)" ]
    expect "batches from before have gone on with the time of theirs" [ "$(told_since_boot "^batch .* boot=$(cat $DISK/boot-time) ")" -ge "$(cat $DISK/waiting)" ]
    expect "the number goes on" [ "$(last_batch)" -gt "$(($(cat $DISK/last-batch) + $(cat $DISK/waiting)))" ]
    expect "no number is missing, and none came twice" numbers_are_whole 0
    OLD=$(cat $DISK/stays)
    expect "nobody from before is told to have ended" is "$(told_since_boot "^ioc TERMINATED process .* pid=$OLD ")" 0
    $S/file-actor unlink $F/kept >/run/acted
    ioc_owes "the end of a file that was told of before the reboot" "ioc DELETE file $F/kept actor=$S/file-actor "
    step "a process comes that has the pid of one from before"
    stays second "$OLD"
    expect "it has" is "$STAYS" "$OLD"
    stop_daemon
    start_again
    echo go >/run/second
    wait "$STAYS"
    expect "its end is told after a restart" wait_until 60 is_told "^ioc TERMINATED process $S/sh pid=$OLD "
    expect "once, and nothing of its forerunner's" is "$(told_since_boot "^ioc TERMINATED process $S/sh pid=$OLD ")" 1
    expect "the restart was no reboot" is "$(cat $LOG/edr.log* | grep -c 'System reboot detected')" 1

    step "the power fails while the daemon works and batches wait"
    stays third
    echo "$STAYS" >$DISK/stays
    stop_receiver
    makes before-the-power-fails
    expect "a batch waits on the disk" wait_until 60 batches_wait 1
    (
      number=0
      while true; do
        $S/file-actor create $F/under-the-failure-$number >/dev/null
        number=$((number + 1))
      done
    ) &
    sleep 5
    expect "more of them wait" wait_until 30 batches_wait 2
    echo 3 >$DISK/boot
    sync $DISK/boot $DISK/made $DISK/stays $LOG/receiver.log
    power_fails
    ;;
  3)
    step "the machine has started after its power failed"
    start_configured
    expect "what waited on the disk comes" wait_until 60 all_told
    makes after-the-failure
    expect "and what is made now" wait_until 60 all_told
    expect "no number is missing, one came twice at the most" numbers_are_whole 1
    expect "nobody from before is told to have ended" is "$(told_since_boot "^ioc TERMINATED process .* pid=$(cat $DISK/stays) ")" 0
    $S/file-actor unlink $F/also-kept >/run/acted
    ioc_owes "the end of a file that was told of before both" "ioc DELETE file $F/also-kept actor=$S/file-actor "
    expect "nothing is left over on the disk" wait_until 30 not batches_wait 1
    stop_all
    expect "nothing failed" not grep -E 'Uncaught exception|EventProcessor: Failed|Set aside the database' $LOG/edr.log
    ;;
esac
