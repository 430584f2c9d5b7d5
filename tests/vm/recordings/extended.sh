# shellcheck shell=dash
# The records of tests/data/audit-extended-6.1.log: changes of files by calls that say little about what they change, or
# that no watch covers, and names that are hard to write down.
#
#   tests/vm/run-guest tests/vm/recordings/extended.sh
#   cp build/dev/guest/extended/log/records tests/data/audit-extended-6.1.log
. /scenario/lib.sh

RECORDS=$LOG/records
W=/srv/w

# record TEXT [OPTION...] CALL NAME: the call, after a mark.
record() {
  local text="$1"
  shift
  audit-recorder mark "$text"
  one-call do --extended "$@" >/run/recorded 2>&1
  step "$text (code $?) $(grep -v '^done' /run/recorded | tail -n 1)"
}

# both CALL NAME: by its whole name, relative to the working folder and, as a last word says, to an open folder.
both() {
  record "$1, absolute" "$1" $W/"$1".a
  record "$1, relative to the working folder" --chdir $W "$1" "$1".c
  if [ "${2:-}" = at ]; then record "$1, relative to an open folder" --dirfd $W "$1" "$1".d; fi
}

start_recorder() {
  audit-recorder "$1" $RECORDS >/run/recorder 2>&1 &
  RECORDER=$!
  expect "the rules of $1 are in force" wait_until 10 grep -q recording /run/recorder
  cat /run/recorder
  expect "the kernel takes all rules of $1" not grep refuses /run/recorder
}

stop_recorder() {
  kill $RECORDER
  wait $RECORDER
}

mkdir -p $W/deep /srv/elsewhere
BY_NAME="utime utimes truncate creat-over open-create-to-read open-truncate-to-read chmod-link lchown-link"
BY_FOLDER="openat2-write openat2-create openat2-truncate openat-create-to-read openat-truncate-to-read utimensat
  futimesat fchmodat2 renameat2-exchange renameat2-over fchownat-link open-by-handle link-temporary"
BY_DESCRIPTOR="fchmod fchmod-folder fchown fchownat-empty fsetxattr fremovexattr futimens ftruncate"
BY_URING="uring-openat uring-openat-write uring-openat2 uring-unlinkat uring-mkdirat uring-symlinkat uring-renameat
  uring-linkat uring-setxattr uring-fsetxattr"
COMPAT="open-write open-create creat mkdir rename unlink chmod chown lchown-link truncate openat-write openat-create
  renameat unlinkat fchmodat fchownat linkat utimensat openat2-write"
for call in $BY_NAME $BY_FOLDER $BY_DESCRIPTOR $BY_URING; do
  for form in a c d; do one-call prepare "$call" "$W/$call.$form"; done
done
for call in $BY_URING; do one-call prepare "$call" "$W/$call.e"; done
for call in $COMPAT fchown ftruncate; do one-call prepare "$call" "$W/$call.32"; done
for name in 'with blank' 'quo"te' 'two
lines' '(null)' "$(printf 'no\377utf8')" 'Grüße' "'single'"; do one-call prepare open-write "$W/$name"; done
for name in slashed slashed-chmod slashed-from; do one-call prepare rmdir $W/$name; done
one-call prepare unlink $W/deep/detour

start_recorder files
for call in $BY_NAME; do both "$call"; done
for call in $BY_FOLDER; do both "$call" at; done
for call in $BY_DESCRIPTOR; do both "$call"; done
for call in $BY_URING; do both "$call" at; done
for call in $COMPAT fchown ftruncate; do record "$call by a 32-bit program" --compat "$call" "$W/$call.32"; done
record "a name with a blank" open-write "$W/with blank"
record "a name with a quote" open-write "$W/quo\"te"
record "a name with a line break" open-write "$W/two
lines"
record "a file called (null)" open-write "$W/(null)"
record "a file called (null), relative to the working folder" --chdir $W open-write '(null)'
record "a name that is no UTF-8" open-write "$W/$(printf 'no\377utf8')"
record "a name in UTF-8" open-write "$W/Grüße"
record "a name with single quotes" open-write "$W/'single'"
record "rmdir with a trailing slash" --chdir $W rmdir slashed/
record "chmod with trailing slashes" --chdir $W chmod-folder slashed-chmod//
record "rename with trailing slashes" --chdir $W rename-folder slashed-from/ slashed-to/
record "a detour" --chdir $W/deep unlink ../deep/./detour
record "the end of the first part" open-read $W/deep
stop_recorder

start_recorder uring-enter
for call in $BY_URING; do record "$call, absolute, with io_uring_enter audited" "$call" "$W/$call.e"; done
record "the end" open-read $W/deep
stop_recorder

expect "records came" grep -q 'step: the end ' $RECORDS
expect "io_uring has records" grep -q '^type=URINGOP ' $RECORDS
expect "openat2 tells how" grep -q '^type=OPENAT2 ' $RECORDS
expect "the rules are gone" rules_empty
echo "lines: $(wc -l <$RECORDS), bytes: $(wc -c <$RECORDS)"
