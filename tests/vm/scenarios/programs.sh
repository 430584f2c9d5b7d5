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
