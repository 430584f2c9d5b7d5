# shellcheck shell=dash
# time: virtual
# What is resident is looked at every three minutes: the third look above the hard limit in a row ends the daemon in
# order. What it finds is put in the place of the kernel's word.
. /scenario/lib.sh

# resident KILOBYTES: what the kernel says of the daemon from now on.
resident() { echo "Rss: $1 kB" >/run/smaps; }

struck() { is "$(grep -c 'MEMCHECK: Strike : ' $LOG/edr.log)" "$1"; }

LOOK=181   # seconds, from one look to the next

mkdir -p $WATCHED
start_all
resident 50000
mount --bind /run/smaps "/proc/$(daemon_pid)/smaps"
sleep $((LOOK + 5))
expect "it looks" log_says "MEMCHECK: Current memory consumption of edr process 49999 KB"
expect "and is content" struck 0

resident 700000
sleep $((2 * LOOK))
expect "two looks above the hard limit are two strikes" log_says "MEMCHECK: Strike : 2 as memory went over hard limit:  614400 KB."
resident 500000
sleep $LOOK
resident 50000
sleep $LOOK
resident 700000
sleep $((2 * LOOK))
expect "one below the soft limit forgets them" struck 4
expect "the daemon runs" daemon_running
resident 500000
sleep $LOOK
expect "one between the limits is none" struck 4
act create $WATCHED/before-the-end.txt
resident 700000
# Once a minute, by the log: the sum and its parts.
queues='Queues and caches hold [0-9]* KB (parser queue [0-9]* KB, events [0-9]* KB, resting file events [0-9]* KB, '
queues="${queues}found objects [0-9]* KB, IOC events [0-9]* KB, tasks [0-9]* KB, components [0-9]* KB, statuses [0-9]* KB)\$"
expect "what the queues hold is told" grep -q "$queues" $LOG/edr.log
agent_ended_by_itself() { wait_until $((LOOK + 20)) agent_is_over; }
expect "the third in a row ends it" agent_ended_by_itself
agent_ends
expect "in order" is "$DAEMON_CODE" 0
expect "and it says why" log_says "MEMCHECK: Shutting down as memory usage is beyond set hard limit."
expect "no rule is left" rules_empty
expect "the event before is safe" received "$(cat $OWED)"
stop_receiver
