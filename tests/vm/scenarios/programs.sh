# shellcheck shell=dash
# What the other scenarios act and look with, before any of them trusts it: the kernel is real, its audit is on, and
# file-actor does what it says.
. /scenario/lib.sh

expect "audit is on and nobody listens" is "$(audit-rules status | sed 's/ lost=.*//')" "enabled=1 pid=0"
expect "no rules" rules_empty
expect "names resolve" is "$(id -u alice)" 1000

mkdir -p $WATCHED
act create $WATCHED/a
expect "create" is "$(cat $WATCHED/a)" written
act --loginuid 1000 --uid 1000 read $WATCHED/a
expect "the reader is alice" grep -q "^done Read $WATCHED/a actor=/usr/local/bin/file-actor pid=[0-9]* user=alice audit-user=alice$" $OWED
expect "alice must not write here" is "$(file-actor --uid 1000 create $WATCHED/hers 2>&1)" \
  "file-actor: open $WATCHED/hers: Permission denied"
act chmod $WATCHED/a 0600
expect "chmod" is "$(stat -c %a $WATCHED/a)" 600
act chown $WATCHED/a 1000
expect "chown" is "$(stat -c %U $WATCHED/a)" alice
act --chdir /srv rename watched/a watched/b
expect "a relative name is printed whole" grep -q "^done Rename $WATCHED/a -> $WATCHED/b actor=" $OWED
act --dirfd $WATCHED link c b
expect "link" is "$(stat -c %h $WATCHED/b)" 2
act symlink $WATCHED/s b
expect "symlink" is "$(readlink $WATCHED/s)" b
act rename-over $WATCHED/s $WATCHED/c
expect "a rename over a file owes its deletion too" grep -q "^done Delete $WATCHED/c actor=" $OWED
act write $WATCHED/b
expect "write" is "$(wc -l <$WATCHED/b)" 2
act mkdir $WATCHED/d
act rmdir $WATCHED/d
act unlink $WATCHED/c
expect "what is left" is "$(ls $WATCHED)" b

# one-call: a batch says for each request what is owed, or why nothing is.
requests_made=$(cat <<REQUESTS
mkdir $WATCHED/one
--chdir $WATCHED mkdirat two
--dirfd $WATCHED --compat mkdirat three
--stay rmdir $WATCHED/one
--loginuid 1000 open-read $WATCHED/b
open-read $WATCHED/b
unlink $WATCHED/none
renameat2-exchange $WATCHED/exchanged
--extended renameat2-exchange $WATCHED/exchanged
uring-openat $WATCHED/four
REQUESTS
)
one-call prepare renameat2-exchange $WATCHED/exchanged
echo first >$WATCHED/exchanged
echo "$requests_made" | batch "batch"
expect "calls are made in all forms, by 32-bit entry and io_uring too" is "$(ls -x $WATCHED | tr -s ' ')" "b exchanged exchanged-2 four three two"
expect "an exchange twice leaves all as it was" is "$(cat $WATCHED/exchanged)" first
expect "each request tells what is owed" is "$(sed 's/pid=[0-9]*/pid=N/; s/ user=.*audit-/ /' $OWED_BY)" "$(cat <<TOLD
batch: one	done Create $WATCHED/one actor=/usr/local/bin/one-call pid=N user=system-user
batch: two	done Create $WATCHED/two actor=/usr/local/bin/one-call pid=N user=system-user
batch: three	done Create $WATCHED/three actor=/usr/local/bin/one-call pid=N user=system-user
batch: one	done Delete $WATCHED/one actor=/usr/local/bin/one-call pid=N user=system-user
batch: b	done Read $WATCHED/b actor=/usr/local/bin/one-call pid=N user=alice
batch: b	none pid=N
batch: none	failed: unlink: No such file or directory
batch: exchanged	none pid=N
batch: exchanged	done Rename $WATCHED/exchanged -> $WATCHED/exchanged-2 actor=/usr/local/bin/one-call pid=N user=system-user
batch: exchanged	done Rename $WATCHED/exchanged-2 -> $WATCHED/exchanged actor=/usr/local/bin/one-call pid=N user=system-user
batch: four	none pid=N
TOLD
)"
expect "the one that stays is there" is "$(pidof one-call | wc -w)" 1
kill "$(pidof one-call)"

# judge: a verdict for each label, whatever is wrong with its events.
mkdir /run/judged
judged() { (
  LOG=/run/judged OWED_BY=/run/judged/owed-by
  judge | grep .
); }
cat >/run/judged/owed-by <<JUDGED
good	done Create /a actor=/x pid=1 user=root audit-user=system-user
good	done Create /a actor=/x pid=1 user=root audit-user=system-user
open	may Change /b actor=/x pid=2 user=root audit-user=system-user
open	some Change /c actor=/x pid=2 user=root audit-user=system-user
nobody	done Create /d actor=* pid=3
lost	done Delete /e actor=/x pid=4 user=root audit-user=system-user
twice	done Delete /f actor=/x pid=5 user=root audit-user=system-user
quiet	none pid=6
broken	failed: because
JUDGED
cat >/run/judged/receiver.log <<RECEIVED
listening on https://127.0.0.1:8443
event Create /a actor=/x pid=1 user=root audit-user=system-user id=1
event Create /a actor=/x pid=1 user=root audit-user=system-user id=2
event Change /b actor=/x pid=2 user=root audit-user=system-user id=3
event Change /c actor=/x pid=2 user=root audit-user=system-user id=4
event Change /c actor=/x pid=2 user=root audit-user=system-user id=5
event Create /d actor=- pid=3 user=root audit-user=- id=6
event Delete /f actor=/x pid=5 user=root audit-user=system-user id=7
event Delete /f actor=/x pid=5 user=root audit-user=system-user id=8
event Write /g actor=/x pid=6 user=root audit-user=system-user id=9
event Write /h actor=/y pid=7 user=root audit-user=system-user id=10
RECEIVED
expect "judge finds what is missing, what came too often and what nobody did" is "$(judged)" "$(cat <<VERDICTS
PASS good (2 owed)
PASS open (1 owed, 1 more that may come)
PASS nobody (1 owed)
FAIL lost: 1 wrong, 1 owed; missing: Delete /e actor=/x pid=4 user=root audit-user=system-user
FAIL twice: 1 wrong, 1 owed; 2 times: Delete /f actor=/x pid=5 user=root audit-user=system-user
FAIL quiet: 1 wrong, 0 owed; nobody did: Write /g actor=/x pid=6 user=root audit-user=system-user
FAIL broken: 1 wrong, 0 owed; failed: because
FAIL events of others: 1 wrong, 0 owed; nobody did: Write /h actor=/y pid=7 user=root audit-user=system-user
VERDICTS
)"
