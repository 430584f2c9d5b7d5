# shellcheck shell=dash
# Much at once: 2,000 changes by 20 processes, each of them reported or counted as lost, within the memory that the
# daemon may have; and a large file that is written all the time, which is read for its digest now and then only.
# long/fim_load.sh does ten times as much.
. /scenario/lib.sh

PROCESSES=20
EACH=${EACH:-100}
MEGABYTES=${MEGABYTES:-64}
LARGE=$WATCHED/large/file

# kilobytes LINE: of the daemon's status.
kilobytes() { sed -n "s/^$1:[^0-9]*\([0-9]*\) kB/\1/p" "/proc/$(daemon_pid)/status"; }
lost_in_kernel() { audit-rules status | sed 's/.* lost=\([0-9]*\).*/\1/'; }
# counted KIND: "events" or "bytes" that the log has counted as lost, whatever the reason; a call that means nothing to the
# daemon is no change of a file.
counted() {
  sed -n 's/.*Intake losses since the start: //p' $LOG/edr.log | tail -n 1 | tr ',' '\n' |
    awk -F': ' -v kind="$1" '$1 ~ "^ *" kind " " && !/unsupported/ { n += $2 } END { print n + 0 }'
}
reported() { grep -c "^event Create $WATCHED/burst/" $LOG/receiver.log; }
at_least() { [ "$1" -ge "$2" ] || { echo "$1 of at least $2" && return 1; }; }
at_most() { [ "$1" -le "$2" ] || { echo "$1 of at most $2" && return 1; }; }

mkdir -p $WATCHED/burst $WATCHED/large
mount -t tmpfs -o size=128m tmpfs $WATCHED/large
write_configuration
extended_coverage false
configure cpu_limit 100
configure max_file_size_kb 1000
configure max_disk_size_mb 100
sed -i 's/^\(logging.loggers.l0.level\) = .*/\1 = information/' $CONF/log.properties
start_configured
LOST=$(lost_in_kernel)

step "$((PROCESSES * EACH)) new files by $PROCESSES processes"
begin=$(cut -d. -f1 /proc/uptime)
process=0
while [ $process -lt $PROCESSES ]; do
  # shellcheck disable=SC2016 # the child's variables
  sh -c 'i=0; while [ $i -lt '$EACH' ]; do : >"'$WATCHED'/burst/$0-$i"; i=$((i + 1)); done' $process &
  WORKERS="$WORKERS $!"
  process=$((process + 1))
done
# shellcheck disable=SC2086 # a word each
wait $WORKERS
step "took $(($(cut -d. -f1 /proc/uptime) - begin)) s; waiting for them to arrive"
expect "all files were made" is "$(find $WATCHED/burst -type f | wc -l)" $((PROCESSES * EACH))
last=-1
while [ "$(reported)" != "$last" ] || [ "$last" = 0 ]; do
  last=$(reported)
  [ $(($(cut -d. -f1 /proc/uptime) - begin)) -lt 400 ] || break
  sleep 40 # longer than events rest, and files of the spool
done
lost=$(($(lost_in_kernel) - LOST))
step "$(reported) reported, $lost records lost by the kernel; memory: $(kilobytes VmHWM) kB at most"
expect "none is reported twice" is "$(grep "^event Create $WATCHED/burst/" $LOG/receiver.log | cut -d' ' -f3 | sort | uniq -d | wc -l)" 0
# memory_limit is in percent of the machine's.
limit=$(awk '/^MemTotal/ { print int($2 / 100 * '"$(sed -n 's/^ *"memory_limit": \([0-9]*\),*/\1/p' $CONF/edr.conf.json)"') }' /proc/meminfo)
expect "the memory stays within its limit of $limit kB" at_most "$(kilobytes VmHWM)" "$limit"

step "a file of $MEGABYTES MiB is written 100 times in 50 s"
truncate -s "${MEGABYTES}M" $LARGE
sleep 2
written=0
begin=$(cut -d. -f1 /proc/uptime)
while [ $written -lt 100 ]; do
  act write $LARGE >/dev/null
  written=$((written + 1))
  sleep 0.4
done
took=$(($(cut -d. -f1 /proc/uptime) - begin))
wait_for_the_last 300 # a digest takes long in here
# The uploads of the burst are lines of millions of characters, which take this sed minutes.
grep -lF "\"imagePath\":\"$LARGE\"" $RECEIVED/* | xargs cat | sed 's/{"successStatus"/\n&/g' |
  grep -F "\"imagePath\":\"$LARGE\"" | grep '"eventAction":"Write"' >/run/documents
expect "every write is reported" is "$(wc -l </run/documents)" 100
expect "some with a digest" at_least "$(grep -c fileContentHash /run/documents)" 1
# Once nobody writes any more, the digest is known without reading.
digests() { grep -o '"fileContentHash":"[0-9a-f]*' /run/documents | sort -u | wc -l; }
expect "two in a minute" at_most "$(digests)" $((took / 30 + 2))
# Where a digest takes longer than the writing, all events have the last one.
if grep -qv fileContentHash /run/documents; then
  expect "the log tells of the others" log_says "is large and written all the time"
fi
stop_all
# The end of the log has the last count. A record that the kernel has lost may be any of the five that an event has.
step "$(reported) reported, $(counted events) counted by the daemon"
expect "nothing was dropped before it became an event" is "$(counted bytes)" 0
expect "every change is reported or counted" at_least $(($(reported) + $(counted events) + lost)) $((PROCESSES * EACH))
