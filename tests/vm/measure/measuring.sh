# shellcheck shell=dash
# What the measured guests share: one processor, the same rules, the same load, the same questions.
. /scenario/lib.sh

LOAD=/srv/load
FILES=36000
EXECS=4000
CONNECTS=1000

# prepare_load: what the load works on is there before anybody watches.
prepare_load() {
  mkdir -p $LOAD
  for file in $(seq 0 99); do : >$LOAD/$file; done
  ip address add 192.0.2.2/24 dev lo
}

# watch_calls: the rules of programs and connections, which nobody but the kernel's list has.
watch_calls() {
  auditctl -a always,exit -F arch=b64 -S execve -k programs
  auditctl -a always,exit -F arch=b64 -S connect -k connections
}

# Of the measured processes, $MEASURED.
spent() {
  for pid in $MEASURED; do cat "/proc/$pid/stat"; done | awk '{ ticks += $14 + $15 } END { print ticks }'
}
resident() {
  for pid in $MEASURED; do cat "/proc/$pid/status"; done | awk '/^VmRSS:/ { kb += $2 } END { print kb }'
}
# Each wait of a thread ends with a wake-up.
waits() {
  for pid in $MEASURED; do cat "/proc/$pid"/task/*/status; done | awk '/^voluntary_ctxt/ { sum += $2 } END { print sum }'
}

lost() { audit-rules status | sed 's/.* lost=\([0-9]*\) .*/\1/'; }

# is_quiet: nothing is worked on any more.
is_quiet() {
  local before
  before=$(spent)
  sleep 20
  [ $(($(spent) - before)) -le 10 ]
}

# by_thread: "name:user+system ..." of all threads that live, in ms.
by_thread() {
  for pid in $MEASURED; do
    for task in "/proc/$pid"/task/*; do
      echo "$(tr ' ' _ <"$task/comm"):$(sed 's/.*) //' "$task/stat" | awk '{ print $12 * 10 "+" $13 * 10 }')"
    done
  done | tr '\n' ' '
}

# measure PID...: prints the figures of these processes together.
measure() {
  local waits_before spent_before lost_before idle idle_waits
  MEASURED="$*"
  sleep 60
  waits_before=$(waits)
  sleep 60
  idle_waits=$(($(waits) - waits_before))
  idle=$(resident)
  lost_before=$(lost)
  spent_before=$(spent)
  expect "the load is made" event-load $LOAD $FILES $EXECS $CONNECTS
  expect "it is worked off" wait_until 3600 is_quiet
  echo "MEASURED idle_rss_kb=$idle idle_wakeups=$((idle_waits / 60)).$((idle_waits % 60 * 10 / 60)) \
storm_rss_kb=$(resident) cpu_ms=$((($(spent) - spent_before) * 10)) lost=$(($(lost) - lost_before))"
  echo "THREADS $(by_thread)"
}

# ---- the audit daemon

AUDIT_LOG=/var/log/audit/audit.log

start_auditd() {
  mkdir -p /etc/audit/plugins.d /var/log/audit
  printf '%s\n' "log_file = $AUDIT_LOG" 'log_group = root' 'log_format = RAW' 'flush = INCREMENTAL_ASYNC' 'freq = 50' \
    'use_libwrap = no' 'plugin_dir = /etc/audit/plugins.d' 'max_log_file = 400' 'max_log_file_action = IGNORE' \
    'q_depth = 2000' 'space_left = 2' 'space_left_action = IGNORE' 'admin_space_left = 1' \
    'admin_space_left_action = IGNORE' 'disk_full_action = IGNORE' >/etc/audit/auditd.conf
  chmod 0600 /etc/audit/auditd.conf
  auditd -n >>$LOG/auditd.out 2>&1 &
  AUDITD=$!
  expect "auditd runs" wait_until 20 auditd_is_consumer
  auditctl -b 8192 >/dev/null
  auditctl -a always,exit -F dir=$LOAD -F perm=w -k files
  watch_calls
}

auditd_is_consumer() { audit-rules status | grep -q " pid=$AUDITD "; }

# wrote_all KEY COUNT [FILE]: the log has each event of the key.
wrote_all() { is "$(grep -c "type=SYSCALL.*key=\"$1\"" $AUDIT_LOG)" "$2"; }
wrote_everything() { wrote_all files $FILES && wrote_all connections $CONNECTS && [ "$(grep -c 'type=EXECVE .*"--end"' $AUDIT_LOG)" = $EXECS ]; }
