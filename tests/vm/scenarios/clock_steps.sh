# shellcheck shell=dash
# Somebody sets the clock by a day, forward and back: events are reported and uploaded as if nothing had been.
. /scenario/lib.sh

mkdir -p $WATCHED
start_all

# set_clock SECONDS: moves the wall clock by so much.
set_clock() { date -s "@$(($(date +%s) + $1))" >/dev/null; }

act create $WATCHED/before.txt
set_clock 86400
act create $WATCHED/a-day-later.txt
wait_for_owed 60
expect "the step was told" wait_until 5 log_says "Scheduler: The system clock was stepped by"

act create $WATCHED/resting.txt
set_clock -129600
act create $WATCHED/a-day-earlier.txt
wait_for_owed 60

stop_all
