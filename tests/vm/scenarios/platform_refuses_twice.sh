# shellcheck shell=dash
# The platform answers 503 twice: the events are sent again, arrive once, and no file stays in the spool.
. /scenario/lib.sh

mkdir -p $WATCHED
start_all --status 503x2 --only-for /fim
act create $WATCHED/first.txt
act mkdir $WATCHED/folder
wait_for_owed 90
expect "it was refused twice" is "$(grep -c '^answered: 503$' $LOG/receiver.log)" 2
expect "the spool is empty" wait_until 10 spool_is_empty

stop_all
