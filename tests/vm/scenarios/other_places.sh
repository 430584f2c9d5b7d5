# shellcheck shell=dash
# rsync and git, whose processes are many, sockets, large files, and the same everyday changes on file systems of another
# kind: through a bind mount, on an overlay and on btrfs, whose files have another device for stat than in records. Which
# documents come of each, in full; of what has a temporary name only the rename is told, as everyday_work says.
# tools: git rsync mkfs.btrfs
# seconds: 1200
. /scenario/lib.sh

GNU=/usr/local/gnu
export PATH=$GNU:$PATH HOME=/root GIT_CONFIG_NOSYSTEM=1

# Of 2 GiB and a byte of zeros.
BIG_SHA256=b8030a8ab89280935633d8d991da3d9907c0f12e8b6fc3bfc515f4d440872b6e

# told_in FOLDER: "ACTION PATH" of each event of the folder of that name below the watched one, sorted.
told_in() {
  sed -n "s/^event //; s/ actor=.*//; s|$WATCHED/||gp" $LOG/receiver.log | grep "^[A-Z][a-z]* $1/" |
    sed "s/\(\.[a-z]*\)\.[A-Za-z0-9]\{6\} -> /\1.XXXXXX -> /; s|/sed[A-Za-z0-9]\{6\} -> |/sedXXXXXX -> |" | sort
}

# tells FOLDER: those events are the lines of standard input, as often as they stand there; a line with "may" in front may
# come or not.
tells() {
  cat >/run/wanted
  told_in "$1" >/run/told
  expect "$1" told_as_wanted
}
told_as_wanted() {
  awk '
    FILENAME == "/run/wanted" && sub(/^may /, "") { most[$0]++; next }
    FILENAME == "/run/wanted" { least[$0]++; most[$0]++; next }
    { came[$0]++ }
    END {
      for (line in most) if (came[line] < least[line]) { print "missing: " line; wrong = 1 }
      for (line in came) if (came[line] > most[line]) { print came[line] " times: " line; wrong = 1 }
      exit wrong
    }' /run/wanted /run/told
}

# everyday FOLDER: what administrators do to files, with the tools of Debian.
everyday() {
  local folder=$WATCHED/$1
  step "$1"
  $GNU/sed -i s/one/two/ "$folder/edited"
  echo more >>"$folder/appended"
  echo new >"$folder/new"
  mkdir "$folder/made"
  $GNU/chmod 0600 "$folder/mode"
  $GNU/mv "$folder/old-name" "$folder/made/new-name"
  $GNU/ln "$folder/mode" "$folder/second"
  $GNU/rm "$folder/removed"
  $GNU/rm -r "$folder/tree"
}
# fill FOLDER: with what everyday works on.
fill() {
  mkdir -p "$1/tree/below"
  for name in edited appended mode old-name removed tree/file tree/below/file; do echo "one line" >"$1/$name"; done
}
tells_everyday() {
  tells "$1" <<END
Change $1/mode
Create $1/made
Create $1/new
Create $1/second
Delete $1/edited
Delete $1/removed
Delete $1/tree
Delete $1/tree/below
Delete $1/tree/below/file
Delete $1/tree/file
Rename $1/old-name -> $1/made/new-name
Rename $1/sedXXXXXX -> $1/edited
Write $1/appended
END
}

# ---- the stage

mkdir -p $WATCHED/rsync $WATCHED/git $WATCHED/socket $WATCHED/large $WATCHED/bound $WATCHED/overlay $WATCHED/btrfs /srv/bind

fill $WATCHED/bound
mount --bind $WATCHED/bound /srv/bind

load_module overlay
mkdir -p /srv/layers
mount -t tmpfs layers /srv/layers
mkdir -p /srv/layers/upper /srv/layers/work
fill /srv/layers/lower
expect "an overlay is mounted" mount -t overlay overlay \
  -o lowerdir=/srv/layers/lower,upperdir=/srv/layers/upper,workdir=/srv/layers/work $WATCHED/overlay

load_module brd rd_nr=1 rd_size=262144
for module in libcrc32c raid6_pq xor blake2b_generic xxhash_generic zstd_compress btrfs; do
  load_module $module || fail "btrfs is there" "$module"
done
expect "btrfs is made" $GNU/mkfs.btrfs -q /dev/ram0
expect "btrfs is mounted" mount -t btrfs /dev/ram0 $WATCHED/btrfs
fill $WATCHED/btrfs

mkdir -p /srv/source/below
for name in first second below/third; do echo "$name" >/srv/source/$name; done

cd $WATCHED/git || exit
{
  git init -q -b main . && git config user.name nobody && git config user.email nobody@example.org
  for name in changed deleted; do echo "one line" >$name; done
  git add . && git commit -q -m first
  git checkout -q -b other
  echo "two lines" >>changed
  mkdir below && echo "new" >below/added
  git rm -q deleted && git add . && git commit -q -m second && git checkout -q main
} >/run/git 2>&1 || fail "a repository is made" "$(cat /run/git)"
cd / || exit

write_configuration
extended_coverage false
configure cpu_limit 100
start_configured

# ---- what is done

step "rsync -a"
expect "rsync copies" rsync -a /srv/source/ $WATCHED/rsync/
step "git checkout"
expect "git checks out" git -C $WATCHED/git checkout -q other
step "a socket"
expect "a socket is made" process-actor bind-unix $WATCHED/socket/listens
step "files of 2 GiB"
truncate -s 67108864 $WATCHED/large/sparse
dd if=/dev/zero of=$WATCHED/large/big bs=1 seek=2147483648 count=1 2>/dev/null
everyday overlay
everyday btrfs
step "a bind mount, worked on by its other path"
(WATCHED=/srv everyday bind)
wait_for_the_last 600 # a digest of 2 GiB takes four minutes in here

# rsync changes owner and mode of files by descriptors, whose names are known as long as it has them open: twice for each
# file at the most.
tells rsync <<END
may Change rsync/first
may Change rsync/first
may Change rsync/second
may Change rsync/second
may Change rsync/below/third
may Change rsync/below/third
Change rsync/below
Create rsync/below
Rename rsync/.first.XXXXXX -> rsync/first
Rename rsync/.second.XXXXXX -> rsync/second
Rename rsync/below/.third.XXXXXX -> rsync/below/third
END
tells git <<END
Create git/below
Create git/below/added
Create git/changed
Delete git/.git/HEAD
Delete git/.git/index
Delete git/changed
Delete git/deleted
Rename git/.git/HEAD.lock -> git/.git/HEAD
Rename git/.git/index.lock -> git/.git/index
Write git/.git/logs/HEAD
END
tells large <<END
Create large/big
Create large/sparse
END
expect "a file of 2 GiB has its digest" grep -qF "\"fileContentHash\":\"$BIG_SHA256\"" $RECEIVED/*
tells socket </dev/null
tells_everyday overlay
tells_everyday btrfs
tells_everyday bound
stop_all
