# shellcheck shell=dash
# Names that the kernel reports in pieces: below a working folder, below an open folder, in a folder made a moment ago,
# from programs that know nothing of this test, and names that want to be something else in JSON.
. /scenario/lib.sh

mkdir -p $WATCHED/deep/er /srv/elsewhere
for name in one two three four five; do echo "$name" >$WATCHED/deep/$name; done
echo away >/srv/elsewhere/incoming
start_all

act --chdir /srv write watched/deep/one
act --chdir $WATCHED/deep chmod two 0600
act --chdir $WATCHED rename deep/three deep/er/three
act --dirfd $WATCHED/deep write four
act --dirfd $WATCHED unlink deep/five
act --dirfd $WATCHED create 'new below an open folder'
act mkdir $WATCHED/young
act create $WATCHED/young/file
act rename /srv/elsewhere/incoming $WATCHED/incoming
act create "$WATCHED/quote\" back\\slash"
act create "$WATCHED/two
lines"
act create "$WATCHED/Grüße"
cd $WATCHED/deep || exit
step "programs of busybox do it as well"
mv er/three ./third
chmod 0640 third
ln -s third link
rm one
cd /root || exit
wait_for_owed 60
expect "mv, with relative names" wait_for_event Rename "$WATCHED/deep/er/three -> $WATCHED/deep/third" /bin/busybox
expect "chmod" wait_for_event Change $WATCHED/deep/third /bin/busybox
expect "ln -s" wait_for_event Create $WATCHED/deep/link /bin/busybox
expect "rm" wait_for_event Delete $WATCHED/deep/one /bin/busybox

stop_all
