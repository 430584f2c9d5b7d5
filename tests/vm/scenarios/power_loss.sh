# shellcheck shell=dash
# The power fails while a spool and a database are written to. The disk is a recorded one: each write lies in the record
# in the order in which it became safe, with a mark behind each file or list that had been called safe. So the disk can
# be made as it would have been at any moment, and what had been called safe by then must be on it.
# seconds: 900
. /scenario/lib.sh

CUTS=6
SEED=$(date +%s)

for module in brd dm-mod dm-log-writes; do
  case $module in
    brd) load_module brd rd_nr=3 rd_size=65536 ;;
    *) load_module "$module" ;;
  esac || fail "module" "$module"
done
mkdir -p /mnt/disk /mnt/cut

# cut_at ENTRY LAST CHECK...: the power fails after that entry of the record; up to LAST all had been called safe.
cut_at() {
  local entry="$1" last="$2" code
  shift 2
  power-cut replay /dev/ram1 /dev/ram2 "$entry" && mount -t ext4 /dev/ram2 /mnt/cut && "$@" /mnt/cut/data "$last"
  code=$?
  umount /mnt/cut
  return $code
}

# trial NAME CHECK WRITER...: runs the writer, which says up to what number all is safe, and fails the power.
trial() {
  local name="$1" check="$2" entry last
  shift 2
  step "a file system on a disk whose writes are recorded, for a $name"
  expect "the disk is recorded" power-cut begin /dev/ram0 /dev/ram1
  /usr/local/bin/mke2fs -q -t ext4 -O has_journal -b 4096 -E nodiscard,lazy_itable_init=0,lazy_journal_init=0 /dev/dm-0 \
    8192 >$LOG/mke2fs.log 2>&1
  expect "it has a file system" mount -t ext4 /dev/dm-0 /mnt/disk
  mkdir -m 700 /mnt/disk/data

  step "the $name is written to"
  "$@" | while read -r safe; do
    power-cut mark "$safe"
    echo "$safe"
  done >"$LOG/safe.$name"
  expect "much was called safe" [ "$(wc -l <"$LOG/safe.$name")" -ge 20 ]
  umount /mnt/disk
  expect "the record is complete" power-cut end

  step "the power fails at $CUTS moments (seed $SEED)"
  power-cut moments /dev/ram1 $CUTS "$SEED" >"$LOG/moments.$name" || fail "moments" "$(cat "$LOG/moments.$name")"
  expect "there are moments to look at" is "$(wc -l <"$LOG/moments.$name")" $CUTS
  while read -r entry last; do
    # shellcheck disable=SC2086 # a word each
    expect "the power fails after entry $entry of the record, all up to $last was safe" cut_at "$entry" "$last" $check
  done <"$LOG/moments.$name"
}

trial spool "power-cut check" spool-victim /mnt/disk/data 1 600
trial database "sql_crash --check" sql_crash --write /mnt/disk/data 80
