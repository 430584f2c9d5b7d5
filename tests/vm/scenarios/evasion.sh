# shellcheck shell=dash
# Ways around a watched path: another name for what is watched, a place where names mean something else, a watched
# folder that is taken away, and a program that pretends to be one of the family. Each of them is to be reported, where
# it really happened and by whom.
. /scenario/lib.sh

REAL=/srv/real      # watched through a link among its folders
FOLDERS=/srv/folders  # of watched folders that come and go
FAMILY=/opt/ostrel/host-warden

rule() {
  printf '{"ruleId": "5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0b%s", "ruleType": "%s", "imagePath": "%s", "recursiveDepth": "all",
    "notify": ["create", "delete", "rename", "modifyContent", "modifyMetadata"]}' "$1" "$2" "$3"
}

write_manifest() {
  printf '{"data": {"fim": {"policyVersion": "1.0", "collectHashes": true, "rules": [%s, %s, %s, %s, %s, %s]}}}' \
    "$(rule 01 directory $WATCHED)" "$(rule 02 directory /srv/by-link/watched)" "$(rule 03 directory $FOLDERS/renamed)" \
    "$(rule 04 directory $FOLDERS/removed)" "$(rule 05 directory $FOLDERS/parent/away)" "$(rule 06 file /srv/one-file)" \
    >$CONF/fim-manifest.json
}

in_force() { log_says "Rules in force: $1 of 7"; }

mkdir -p $WATCHED/etc $WATCHED/open $REAL/watched $FOLDERS/renamed $FOLDERS/removed $FOLDERS/parent/away $FAMILY \
  /srv/bound /srv/outside /srv/memory
chmod 1777 $WATCHED/open
ln -s $WATCHED /srv/outside/link
ln -s $REAL /srv/by-link
ln -s $WATCHED/etc /srv/work
for name in linked bound descriptor chmod; do echo "$name" >$WATCHED/$name; done
echo one >/srv/one-file
mount --bind $WATCHED /srv/bound
mkdir -p /srv/jail/bin /srv/jail/watched
mount --bind $WATCHED /srv/jail/watched
cp /bin/busybox /srv/jail/bin/

write_configuration
write_manifest
start_configured
expect "every rule is in force" wait_until 20 in_force 7

step "other names"
echo more >>/srv/outside/link/linked
ln $WATCHED/linked /srv/outside/second-name
ln /srv/one-file /srv/outside/other-name
echo more >>/srv/outside/other-name
echo more >>/srv/bound/bound
echo more >$REAL/watched/as-it-is-meant
echo more >/srv/by-link/watched/as-it-is-written
(cd /srv/work && echo more >relative)
(exec 3<$WATCHED/descriptor && echo more >/proc/self/fd/3)
chmod 0600 /srv/outside/link/chmod

step "other places"
chroot /srv/jail /bin/busybox sh -c 'echo more >/watched/from-a-jail'
unshare -m sh -c "mount -t tmpfs none /srv/memory && mkdir /srv/memory/w && mount --bind $WATCHED /srv/memory/w &&
  mount -t tmpfs none $WATCHED && echo more >/srv/memory/w/from-a-namespace && echo unseen >$WATCHED/in-its-own-memory"

step "a program that is called like one of the family, in a namespace where it is"
dressed_up() {
  unshare -m sh -c "mount -t tmpfs none $FAMILY && cp /usr/local/bin/file-actor $FAMILY/updated && chmod 0755 $FAMILY &&
    exec $FAMILY/updated --uid 1000 $*"
}
dressed_up create $WATCHED/open/by-a-dressed-up-one >/dev/null
dressed_up --linger 40 create $WATCHED/open/by-one-that-stays >/dev/null &

step "an excluded process ends, and its pid is nobody's excuse"
sleep 2 &
FORMER=$!
configure host_warden_pid $FORMER
reference-agent config $CONF/edr.conf.json
expect "the process is excluded" wait_until 5 has_rule "^exit never .*pid=$FORMER "
expect "and no longer when it has ended" wait_until 10 lacks_rule "pid=$FORMER "

step "watched folders that go and come"
mv $FOLDERS/renamed $FOLDERS/was-renamed
echo more >$FOLDERS/was-renamed/where-it-is-now
mkdir $FOLDERS/renamed
echo early >$FOLDERS/renamed/before-the-rule
expect "the new folder is watched" wait_until 10 log_says "is in force: $FOLDERS/renamed is there now"
sleep 1
echo more >$FOLDERS/renamed/after-it
rmdir $FOLDERS/removed
mkdir $FOLDERS/removed
echo early >$FOLDERS/removed/before-the-rule
expect "the folder that was made again is watched" wait_until 10 log_says "is in force: $FOLDERS/removed is there now"
sleep 1
echo more >$FOLDERS/removed/after-it
mv $FOLDERS/parent $FOLDERS/elsewhere
echo more >$FOLDERS/elsewhere/away/meanwhile
sleep 1
mv $FOLDERS/elsewhere $FOLDERS/parent
echo more >$FOLDERS/parent/away/and-back
expect "every rule is in force again" is "$(grep -F 'Rules in force: ' $LOG/edr.log | tail -n 1 | sed 's/.*: //')" "7 of 7"

wait_for_the_last 60
came() { expect "$1" event_came "$2" "$3" "$4"; }
came "through a link to the folder" Write $WATCHED/linked /bin/busybox
came "the making of a second hard link" Create /srv/outside/second-name /bin/busybox
came "a second name for a watched file" Create /srv/outside/other-name
came "through it" Write /srv/outside/other-name /bin/busybox
came "through a bind mount" Write $WATCHED/bound /bin/busybox
came "below a linked folder, as it is meant" Create $REAL/watched/as-it-is-meant
came "below a linked folder, as it is written" Create /srv/by-link/watched/as-it-is-written
came "relative to a working folder behind a link" Create $WATCHED/etc/relative
came "through an open descriptor" Write $WATCHED/descriptor
came "attributes through a link" Change $WATCHED/chmod
came "from a jail" Create $WATCHED/from-a-jail
came "from a mount namespace" Create $WATCHED/from-a-namespace
came "by a dressed-up sibling" Create $WATCHED/open/by-a-dressed-up-one $FAMILY/updated
came "by one that stays" Create $WATCHED/open/by-one-that-stays $FAMILY/updated
came "the rename of a watched folder" Rename "$FOLDERS/renamed -> $FOLDERS/was-renamed"
came "in the renamed folder" Create $FOLDERS/was-renamed/where-it-is-now
came "in the new one before it was watched" Create $FOLDERS/renamed/before-the-rule
came "in the new one" Create $FOLDERS/renamed/after-it
came "the removal of a watched folder" Delete $FOLDERS/removed
came "in the one made again, before it was watched" Create $FOLDERS/removed/before-the-rule
came "in the one made again" Create $FOLDERS/removed/after-it
came "below a parent that was renamed away" Create $FOLDERS/elsewhere/away/meanwhile
came "below it when it was back" Create $FOLDERS/parent/away/and-back
expect "what lies in memory of their own is theirs" not event_came Create $WATCHED/in-its-own-memory

# The agent of the configuration has ended: the daemon still hears its real one.
stop_all
