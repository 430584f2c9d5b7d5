# shellcheck shell=dash
# Names that the kernel reports in pieces: below a working folder, below an open folder, in a folder made a moment ago,
# from programs that know nothing of this test, and names that want to be something else in JSON.
. /scenario/lib.sh

mkdir -p $WATCHED/deep/er /srv/elsewhere
for name in one two three four five six seven eight nine; do echo "$name" >$WATCHED/deep/$name; done
echo away >/srv/elsewhere/incoming
start_all

act --chdir /srv write watched/deep/one
act --chdir $WATCHED/deep chmod two 0600
act --chdir $WATCHED rename deep/three deep/er/three
# An open folder's name is asked from /proc: the process must still be there.
act --linger 2 --dirfd $WATCHED/deep write four
act --linger 2 --dirfd $WATCHED unlink deep/five
act --linger 2 --dirfd $WATCHED create 'new below an open folder'
act mkdir $WATCHED/young
act create $WATCHED/young/file
act rename /srv/elsewhere/incoming $WATCHED/incoming
act create "$WATCHED/quote\" back\\slash"
act create "$WATCHED/two
lines"
act create "$WATCHED/Grüße"
cd $WATCHED/deep || exit
step "programs of busybox do it as well"
mv six er/six
mv er/../seven ./renamed
chmod 0640 eight
ln -s eight link
rm nine
cd /root || exit
wait_for_owed 60
expect "mv" wait_for_event Rename "$WATCHED/deep/six -> $WATCHED/deep/er/six" /bin/busybox
expect "mv by a detour" wait_for_event Rename "$WATCHED/deep/seven -> $WATCHED/deep/renamed" /bin/busybox
expect "chmod" wait_for_event Change $WATCHED/deep/eight /bin/busybox
expect "ln -s" wait_for_event Create $WATCHED/deep/link /bin/busybox
expect "rm" wait_for_event Delete $WATCHED/deep/nine /bin/busybox

stop_all
