# shellcheck shell=dash
# Ways around a watched path: another name for what is watched, a place where names mean something else, calls that name
# nothing or are hardly known, a watched folder that is taken away, and a program that pretends to be one of the family.
# Each of them is to be reported once, where it really happened and by whom, and nothing else.
. /scenario/lib.sh

REAL=/srv/real      # watched through a link among its folders
FOLDERS=/srv/folders  # of watched folders that come and go
FAMILY=/opt/ostrel/host-warden
LINK=/srv/outside/link
CALLS=$LINK/calls   # watched folders by other names
ACTOR=/usr/local/bin/file-actor

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

# The seven of the manifest and one of the daemon's own.
in_force() { log_says "Rules in force: $1 of 8"; }
in_force_by_now() { grep -F 'Rules in force: ' $LOG/edr.log | tail -n 1 | grep -qF ": $1 of 8"; }

# truly LABEL SEEN TRUE COMMAND...: the command tells what it did by the names that it used; SEEN stands for TRUE in them.
truly() {
  local label="$1" seen="$2" true="$3"
  shift 3
  if "$@" >/run/acted 2>&1; then
    sed "s|$seen|$true|g; s|^|$label	|" </run/acted >>$OWED_BY
  else
    printf '%s\t%s\n' "$label" "$(tr '\n' ' ' </run/acted)" >>$OWED_BY
  fi
}

# plainly LABEL COMMAND...: the same, and the names are the true ones.
plainly() {
  local label="$1"
  shift
  truly "$label" '^done' 'done' "$@"
}

# i_owe LABEL ACTION PATH: this shell does it.
i_owe() { printf '%s\tdone %s %s actor=/bin/busybox pid=%s\n' "$1" "$2" "$3" $$ >>$OWED_BY; }

# found LABEL PATH: was there before anybody watched, so nobody knows who made it.
found() { printf '%s\tdone Create %s actor=- pid=- user=- audit-user=-\n' "$1" "$2" >>$OWED_BY; }

# in_namespace MOUNTS ACTION NAME: file-actor does it, where the mounts are its own.
in_namespace() { unshare -m sh -c "$1 && exec $ACTOR $2 $3"; }

# The calls that name nothing, or that nothing but extended coverage tells of, through a linked folder.
calls() {
  for call in fchmod fchown fsetxattr fremovexattr; do echo "--extended --stay $call $CALLS/$call"; done
  for call in mkdirat unlinkat renameat fchmodat openat-write linkat; do echo "--extended --dirfd $CALLS $call $call"; done
  for call in open-write unlink chmod rename; do echo "--extended --compat $call $CALLS/32-bit-$call"; done
  for call in link-temporary renameat2-exchange openat2-create openat2-write open-create-to-read open-truncate-to-read \
    truncate utimensat utime uring-openat uring-unlinkat uring-renameat; do
    echo "--extended $call $CALLS/$call"
  done
}

mkdir -p $WATCHED/etc $WATCHED/open $WATCHED/calls $REAL/watched $FOLDERS/renamed $FOLDERS/removed $FOLDERS/parent/away \
  $FAMILY /srv/bound /srv/outside /run/aside/watched
chmod 1777 $WATCHED/open
ln -s $WATCHED $LINK
ln -s $REAL /srv/by-link
ln -s $WATCHED/etc /srv/work
for name in linked bound descriptor chmod leaving lent lent-by-one-that-ends; do echo "$name" >$WATCHED/$name; done
echo one >/srv/one-file
echo "not watched yet" >/srv/stranger
mount --bind $WATCHED /srv/bound
mkdir -p /srv/jail/proc /srv/jail/watched
mount --bind $WATCHED /srv/jail/watched
mount --bind /proc /srv/jail/proc
cp /usr/local/bin/one-call /srv/jail/
tell_what_the_kernel_lacks
calls | for_this_kernel >/run/calls
expect "the objects of the calls are made" one-call prepare </run/calls

write_configuration
write_manifest
start_configured
expect "every rule is in force" wait_until 20 in_force 8
# Folders that processes had open are known by their identity then.
expect "the watched folders are known" wait_until 300 folders_known 8

step "calls that name nothing, or that are hardly known"
batch "by a call" </run/calls
sed -i "s|$LINK|$WATCHED|g" $OWED_BY

step "other names"
echo more >>$LINK/linked
i_owe "through a link to the folder" Write $WATCHED/linked
plainly "the making of a second hard link" $ACTOR link /srv/outside/second-name $WATCHED/linked
plainly "a second name for a watched file" $ACTOR link /srv/outside/other-name /srv/one-file
plainly "through it" $ACTOR write /srv/outside/other-name
truly "through a bind mount" /srv/bound $WATCHED $ACTOR write /srv/bound/bound
mkdir /srv/bound-below
mount --bind $WATCHED/etc /srv/bound-below
truly "through a bind mount of a folder below" /srv/bound-below $WATCHED/etc $ACTOR create /srv/bound-below/bound-below
plainly "under its own name after that" $ACTOR --dirfd $WATCHED/etc create after-a-bind-mount
plainly "below a linked folder, as it is meant" $ACTOR create $REAL/watched/as-it-is-meant
plainly "below a linked folder, as it is written" $ACTOR create /srv/by-link/watched/as-it-is-written
truly "relative to a working folder behind a link" /srv/work $WATCHED/etc $ACTOR --chdir /srv/work create relative
exec 3<$WATCHED/descriptor
echo more >/proc/self/fd/3
exec 3<&-
i_owe "through an open descriptor" Write $WATCHED/descriptor
truly "attributes through a link" $LINK $WATCHED $ACTOR chmod $LINK/chmod 0600
truly "a rename into it through a link" $LINK $WATCHED $ACTOR rename /srv/stranger $LINK/stranger
truly "a rename out of it through a link" $LINK $WATCHED $ACTOR rename $LINK/leaving /srv/gone

step "names that procfs lends"
truly "through the root of another process" /proc/1/root '' $ACTOR create /proc/1/root$WATCHED/by-a-root
truly "through a working folder" /proc/self/cwd $WATCHED/etc \
  sh -c "cd $WATCHED/etc && exec $ACTOR create /proc/self/cwd/by-a-working-folder"
truly "through an open folder of a process that ends" /proc/self/fd/4 $WATCHED/etc \
  sh -c "exec 4<$WATCHED/etc && exec $ACTOR create /proc/self/fd/4/by-an-open-folder"
truly "through a descriptor of a process that ends" /proc/self/fd/3 $WATCHED/lent-by-one-that-ends \
  sh -c "exec 3<$WATCHED/lent-by-one-that-ends && exec $ACTOR write /proc/self/fd/3"
exec 4<$WATCHED/lent
truly "through a descriptor of another process" /proc/$$/fd/4 $WATCHED/lent $ACTOR write /proc/$$/fd/4
truly "attributes through it" /proc/$$/fd/4 $WATCHED/lent $ACTOR chmod /proc/$$/fd/4 0640
exec 4<&-

step "other places"
plainly "from a user namespace" unshare -U -m -r $ACTOR create $WATCHED/open/from-a-user-namespace
truly "from a jail" ' /watched' " $WATCHED" chroot /srv/jail /one-call do openat-create /watched/from-a-jail
truly "from a mount namespace" /run/aside $WATCHED in_namespace \
  "mount --bind $WATCHED /run/aside && mount -t tmpfs none $WATCHED" create /run/aside/from-a-namespace
truly "behind memory over the parent" /run/aside $WATCHED in_namespace \
  "mount --bind $WATCHED /run/aside && mount -t tmpfs none /srv" create /run/aside/behind-memory
truly "behind another folder over the parent" /run/aside $WATCHED in_namespace \
  "mount --bind $WATCHED /run/aside && mount --bind /var /srv" create /run/aside/behind-a-folder
truly "through the parent at another place" /run/aside/watched $WATCHED in_namespace \
  "mount --bind /srv /run/aside && mount -t tmpfs none /srv" create /run/aside/watched/through-the-parent
plainly "relative, with memory over the parent" unshare -m sh -c \
  "cd $WATCHED && mount -t tmpfs none /srv && exec one-call do openat-create below-memory"
sed -i "s| Create below-memory | Create $WATCHED/below-memory |; s| Create /below-memory | Create $WATCHED/below-memory |" $OWED_BY
# What lies in memory of their own is theirs.
in_namespace "mount -t tmpfs none $WATCHED" create $WATCHED/in-its-own-memory >/dev/null

step "a program that is called like one of the family, in a namespace where it is"
dressed_up() {
  unshare -m sh -c "mount -t tmpfs none $FAMILY && cp $ACTOR $FAMILY/updated && chmod 0755 $FAMILY &&
    exec $FAMILY/updated --uid 1000 $*"
}
plainly "by a dressed-up sibling" dressed_up create $WATCHED/open/by-a-dressed-up-one
dressed_up --linger 90 create $WATCHED/open/by-one-that-stays >/run/stays &
wait_until 20 [ -s /run/stays ]
plainly "by one that stays" cat /run/stays

step "an excluded process ends, and its pid is nobody's excuse"
sleep 2 &
FORMER=$!
configure host_warden_pid $FORMER
reference-agent config $CONF/edr.conf.json
expect "the process is excluded" wait_until 5 has_rule "^exit never .*pid=$FORMER "
# The look of each minute would take it away as well.
expect "and no longer when it has ended" within 30 lacks_rule "pid=$FORMER "
wait $FORMER
begin_as $FORMER $ACTOR create $WATCHED/by-its-successor >/run/successor
wait $BEGUN
expect "somebody gets its pid" is $BEGUN $FORMER
plainly "by one with a former agent's pid" cat /run/successor

sleep 1000 &
KILLED=$!
configure host_warden_pid $KILLED
reference-agent config $CONF/edr.conf.json
expect "another one is excluded" wait_until 5 has_rule "^exit never .*pid=$KILLED "
kill -KILL $KILLED
wait $KILLED

step "watched folders that go and come"
plainly "the rename of a watched folder" $ACTOR rename $FOLDERS/renamed $FOLDERS/was-renamed
plainly "in the renamed folder" $ACTOR create $FOLDERS/was-renamed/where-it-is-now
mkdir $FOLDERS/renamed
echo early >$FOLDERS/renamed/before-the-rule
found "in the new one before it was watched" $FOLDERS/renamed/before-the-rule
expect "the new folder is watched" wait_until 10 log_says "is in force: $FOLDERS/renamed is there now"
sleep 1
plainly "in the new one" $ACTOR create $FOLDERS/renamed/after-it
plainly "the removal of a watched folder" $ACTOR rmdir $FOLDERS/removed
mkdir $FOLDERS/removed
echo early >$FOLDERS/removed/before-the-rule
found "in the one made again, before it was watched" $FOLDERS/removed/before-the-rule
expect "the folder that was made again is watched" wait_until 10 log_says "is in force: $FOLDERS/removed is there now"
sleep 1
plainly "in the one made again" $ACTOR create $FOLDERS/removed/after-it
mv $FOLDERS/parent $FOLDERS/elsewhere
plainly "below a parent that was renamed away" $ACTOR create $FOLDERS/elsewhere/away/meanwhile
sleep 1
mv $FOLDERS/elsewhere $FOLDERS/parent
plainly "below it when it was back" $ACTOR create $FOLDERS/parent/away/and-back
expect "every rule is in force again" wait_until 10 in_force_by_now 8

wait_for_the_last 120
judge
expect "who was killed, which no record tells, is looked for once a minute" within 70 lacks_rule "pid=$KILLED"

# shellcheck disable=SC2046 # a word each
kill $(pidof one-call)
# The agent of the configuration has ended: the daemon still hears its real one.
stop_all
