# shellcheck shell=bash
# Shared by the scripts of this folder: where the repository is, what a line of progress looks like.
# Source it; it sets ROOT and changes nothing else.

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
# The moment the outermost script began: scripts that call each other count from the same start.
: "${OSTREL_STARTED:=$(date +%s)}"
export OSTREL_STARTED

# progress TEXT...: "[  12s] TEXT"
progress() { printf '[%4ds] %s\n' "$(($(date +%s) - OSTREL_STARTED))" "$*"; }

die() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# usage_of FILE: the comment that a script opens with, as its help text.
usage_of() { sed -n '2,/^[^#]/ s/^# \{0,1\}//p' "$1"; }

# quietly LOG COMMAND...: runs COMMAND with its output in LOG and a sign of life every ten seconds;
# shows the end of LOG when it fails.
quietly() {
  local log="$1" started status=0 step
  shift
  started=$(date +%s)
  mkdir -p "$(dirname "$log")"
  "$@" >"$log" 2>&1 &
  local pid=$!
  while kill -0 "$pid" 2>/dev/null; do
    sleep 0.2
    if (($(date +%s) - started >= 10)); then
      started=$(date +%s)
      step=$(tr '\r' '\n' <"$log" | grep -v '^[[:space:]]*$' | tail -n 1 | cut -c1-100)
      progress "  ... $step"
    fi
  done
  wait "$pid" || status=$?
  if ((status != 0)); then
    tail -n 60 "$log" >&2
    printf 'failed with code %d: %s (whole output: %s)\n' "$status" "$*" "$log" >&2
  fi
  return "$status"
}

# build PRESET [TARGET...]: configures when needed and builds the targets, all of them without names.
build() {
  local preset="$1" targets=()
  shift
  if (($#)); then targets=(--target "$@"); fi
  progress "building $preset${*:+: $*} (output in build/$preset/build.log)"
  quietly "$ROOT/build/$preset/configure.log" cmake -S "$ROOT" --preset "$preset" || return
  quietly "$ROOT/build/$preset/build.log" cmake --build "$ROOT/build/$preset" "${targets[@]}"
}
