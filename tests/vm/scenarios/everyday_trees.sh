# shellcheck shell=dash
# What people and scripts do to whole trees, with the tools that they do it with. Those name most objects relative to
# folders that they hold open only for a moment, and are gone before anybody can ask them.
. /scenario/lib.sh

GNU=/usr/local/gnu
ELSEWHERE=/srv/elsewhere

# A tree below the present folder: 110 folders, 510 with a further level, and 20 files.
make_tree() {
  awk -v deeper="$1" 'BEGIN {
    for (i = 0; i < 10; i++) for (j = 0; j < 10; j++) {
      if (!deeper) print "tree/d" i "/e" j
      for (k = 0; k < 4 && deeper; k++) print "tree/d" i "/e" j "/f" k
    }
  }' | xargs mkdir -p
  for i in 0 1 2 3 4 5 6 7 8 9; do touch "tree/d$i/file" "tree/d$i/e$i/a file"; done
  $GNU/tar -cf tree.tar tree
}

# prepare SOURCE ROOT: what the tools of each_tree work on.
prepare() {
  for name in removed found modes owners; do $GNU/cp -a "$1/tree" "$2/$name"; done
  mkdir "$2/place"
  echo here >"$2/moved"
}

mkdir -p $ELSEWHERE/large $ELSEWHERE/small $WATCHED/in
cd $ELSEWHERE/large || exit
make_tree 1
cd $ELSEWHERE/small || exit
make_tree 0
prepare $ELSEWHERE/large $WATCHED
prepare $ELSEWHERE/small $WATCHED/in
echo here >$ELSEWHERE/brought
echo here >$ELSEWHERE/brought-in
cd /root || exit

lost() { audit-rules status | sed 's/.* lost=\([0-9]*\).*/\1/'; }

write_configuration
extended_coverage "${COVERAGE:-false}"
# Some thousand events: no pause for the processor, and room for their documents.
configure cpu_limit 100
configure max_file_size_kb 1000
configure max_disk_size_mb 100
step "$(cut -d' ' -f1 /proc/uptime) s: the trees are there"
start_configured
# Rules are in force meanwhile, but names that start at a closed descriptor are told by the folders that are known.
expect "all folders are known" wait_until 300 folders_known 2000
log_less
LOST=$(lost)

# tool LABEL COMMAND...: runs it; its events are owed under LABEL. TAIL is what stands behind their paths.
tool() {
  LABEL=$1
  shift
  "$@" &
  TAIL=" actor=$1 pid=$! user=root audit-user=system-user"
  step "$(cut -d' ' -f1 /proc/uptime) s: $LABEL"
  wait $! || fail "$LABEL" "the tool fails with code $?"
}

# each_tree WHERE SOURCE ROOT PREFIX: every tool on a tree of its own below ROOT, which the tools know as PREFIX.
each_tree() {
  local where="$1" source="$2" root="$3" prefix="$4"

  find "$root/removed" >/run/listed
  tool "rm -rf, $where" $GNU/rm -rf "${prefix}removed"
  owe "$LABEL" done Delete "$TAIL" </run/listed

  find "$root/found" >/run/listed
  tool "find -delete, $where" $GNU/find "${prefix}found" -delete
  owe "$LABEL" done Delete "$TAIL" </run/listed

  tool "chmod -R, $where" $GNU/chmod -R 0700 "${prefix}modes"
  find "$root/modes" | owe "$LABEL" done Change "$TAIL"

  tool "chown -R, $where" $GNU/chown -R 1000:1000 "${prefix}owners"
  find "$root/owners" | owe "$LABEL" done Change "$TAIL"

  # A folder gets its owner by name and its permissions through a descriptor that is closed at once; a file both through
  # the descriptor that wrote it, which names nobody when it is closed.
  tool "tar -x, $where" $GNU/tar -xf "$source/tree.tar" -C "${prefix:-.}"
  find "$root/tree" | owe "$LABEL" done Create "$TAIL"
  # Both get their times back, which extended coverage knows by the name or not at all.
  if [ "${COVERAGE:-false}" = true ]; then
    find "$root/tree" -type d | owe "$LABEL" some Change "$TAIL"
  else
    find "$root/tree" -type d | awk '{ print; print }' | owe "$LABEL" done Change "$TAIL"
  fi
  find "$root/tree" -type f | awk '{ print; print; print }' | owe "$LABEL" may Change "$TAIL"

  tool "cp -a, $where" $GNU/cp -a "$source/tree" "${prefix}copied"
  find "$root/copied" | owe "$LABEL" done Create "$TAIL"
  find "$root/copied" -type d | owe "$LABEL" some Change "$TAIL"
  find "$root/copied" -type f | awk '{ print; print; print }' | owe "$LABEL" may Change "$TAIL"

  tool "mv f dir/, $where" $GNU/mv "${prefix}moved" "${prefix}place/"
  echo "$root/moved -> $root/place/moved" | owe "$LABEL" done Rename "$TAIL"
}

each_tree "from outside" $ELSEWHERE/large $WATCHED $WATCHED/
tool "mv of a file that was elsewhere" $GNU/mv $ELSEWHERE/brought $WATCHED/place/
echo "$ELSEWHERE/brought -> $WATCHED/place/brought" | owe "$LABEL" done Rename "$TAIL"
cd $WATCHED/in || exit
each_tree "from inside" $ELSEWHERE/small $WATCHED/in ""
tool "mv to where we are" $GNU/mv $ELSEWHERE/brought-in .
echo "$ELSEWHERE/brought-in -> $WATCHED/in/brought-in" | owe "$LABEL" done Rename "$TAIL"
cd /root || exit
wait_for_the_last 240
step "$(cut -d' ' -f1 /proc/uptime) s: the last event came"
judge
step "$(cut -d' ' -f1 /proc/uptime) s: all were compared"
expect "the kernel lost no record" is "$(lost)" "$LOST"

stop_all
