# shellcheck shell=dash
# The power fails while a spool is written to. The disk is a recorded one: each write lies in the record in the order in
# which it became safe, with a mark behind each file that the spool had called safe. So the disk can be made as it would
# have been at any moment, and what had been called safe by then must be on it.
# seconds: 420
. /scenario/lib.sh

ITEMS=600
CUTS=6
SEED=$(date +%s)

for module in brd dm-mod dm-log-writes; do
  case $module in
    brd) insmod /scenario/modules/brd.ko rd_nr=3 rd_size=32768 ;;
    *) insmod "/scenario/modules/$module.ko" ;;
  esac || fail "module" "$module"
done

step "a file system on a disk whose writes are recorded"
expect "the disk is recorded" power-cut begin /dev/ram0 /dev/ram1
/usr/local/bin/mke2fs -q -t ext4 -O has_journal -b 4096 -E nodiscard,lazy_itable_init=0,lazy_journal_init=0 /dev/dm-0 8192 >$LOG/mke2fs.log 2>&1
mkdir -p /mnt/disk /mnt/cut
expect "it has a file system" mount -t ext4 /dev/dm-0 /mnt/disk
mkdir -m 700 /mnt/disk/spool

step "$ITEMS items go through a spool"
spool-victim /mnt/disk/spool 1 $ITEMS | while read -r safe; do
  power-cut mark "$safe"
  echo "$safe"
done >$LOG/safe
expect "many files were called safe" [ "$(wc -l <$LOG/safe)" -ge 20 ]
umount /mnt/disk
expect "the record is complete" power-cut end

# cut_at ENTRY LAST: the power fails after that entry of the record; items up to LAST had been called safe.
cut_at() {
  power-cut replay /dev/ram1 /dev/ram2 "$1" && mount -t ext4 /dev/ram2 /mnt/cut && power-cut check /mnt/cut/spool "$2"
  set -- $?
  umount /mnt/cut
  return "$1"
}

step "the power fails at $CUTS moments (seed $SEED)"
power-cut moments /dev/ram1 $CUTS "$SEED" >$LOG/moments || fail "moments" "$(cat $LOG/moments)"
expect "there are moments to look at" is "$(wc -l <$LOG/moments)" $CUTS
while read -r entry last; do
  expect "the power fails after entry $entry of the record, items 1 to $last were safe" cut_at "$entry" "$last"
done <$LOG/moments
