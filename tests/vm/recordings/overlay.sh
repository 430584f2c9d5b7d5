# shellcheck shell=dash
# The records of tests/data/audit-overlay-6.1.log: everyday changes on an overlay, whose lower layer has files already.
#
#   tests/vm/run-guest tests/vm/recordings/overlay.sh
#   cp build/dev/guest/overlay/log/records tests/data/audit-overlay-6.1.log
. /scenario/lib.sh

RECORDS=$LOG/records
O=/srv/w/overlay

# record OPERATION NAME [ARGUMENT]: by file-actor, after a mark.
record() {
  audit-recorder mark "$*"
  expect "$*" file-actor "$@"
}

insmod /scenario/modules/overlay.ko
mkdir -p /srv/layers $O
mount -t tmpfs layers /srv/layers
mkdir -p /srv/layers/upper /srv/layers/work /srv/layers/lower/tree/below
for name in edited appended mode old-name removed tree/file tree/below/file; do echo "one line" >"/srv/layers/lower/$name"; done
mount -t overlay overlay -o lowerdir=/srv/layers/lower,upperdir=/srv/layers/upper,workdir=/srv/layers/work $O

audit-recorder files $RECORDS >/run/recorder 2>&1 &
RECORDER=$!
expect "the rules are in force" wait_until 10 grep -q recording /run/recorder
record create $O/a
record write $O/appended
record chmod $O/mode 600
record rename $O/old-name $O/new-name
record unlink $O/removed
record mkdir $O/made
record rmdir $O/made
record unlink $O/a
record create $O/b
record rename $O/b $O/tree/c
record link $O/l $O/edited
record rename-over $O/l $O/appended
record symlink $O/s target
audit-recorder mark "rm -r"
/usr/local/gnu/rm -r $O/tree
kill $RECORDER
wait $RECORDER
