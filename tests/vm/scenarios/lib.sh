# shellcheck shell=dash
# The vocabulary of the scenarios. Each is a script for the guest's busybox shell that begins with ". /scenario/lib.sh"
# and tells, step by step, what is done to the daemon and what must come of it:
#
#   PASS name          one line an expectation that held
#   FAIL name: why     and one for each that did not
#
# The platform is reference-receiver on port 8443, the parent agent is reference-agent, both as people outside use them.

WATCHED=/srv/watched
CONF=/etc/ostrel/host-warden
LOG=/var/log/ostrel
SPOOL=/var/lib/ostrel/fim-spool
IOC_SPOOL=/var/lib/ostrel/ioc-spool
RECEIVED=$LOG/received   # accepted payloads, one file each
OWED=/run/owed           # a line "done ..." for each event that must come
OWED_BY=$LOG/owed-by     # the same in two columns, for many events: see judge
DAEMON=/usr/local/bin/ostrel-edr

# ---- telling

# step TEXT...: a line of the road, shown to who watches.
step() { echo "road: $*"; }

pass() { echo "PASS $1"; }

fail() {
  local name="$1"
  shift
  # At the begin of a line, whatever somebody else has left on the console.
  printf '\nFAIL %s: %s\n' "$name" "$*"
}

# An event's line as people read it: "Create /srv/watched/a by file-actor, process 143, alice".
readable() { sed 's| actor=[^ ]*/\([^ /]*\) pid=\([0-9]*\) user=\([^ ]*\) audit-user=[^ ]*| by \1, process \2, \3|'; }

# expect NAME COMMAND...: the command succeeds; what it printed is the reason when not.
expect() {
  local name="$1" output
  shift
  if output=$("$@" 2>&1); then
    pass "$name"
  else
    fail "$name" "$* (code $?) $(echo "$output" | tail -n 5 | tr '\n' ' ')"
  fi
}

# is ACTUAL EXPECTED
is() {
  if [ "$1" != "$2" ]; then
    echo "is '$1' instead of '$2'"
    return 1
  fi
}

not() { ! "$@"; }

# kernel_has_uring_list: the kernel takes rules for operations of io_uring, which came with 5.16.
kernel_has_uring_list() { uname -r | awk -F. '{ exit !($1 > 5 || ($1 == 5 && $2 >= 16)) }'; }

# load_module NAME [PARAMETER...]: unless it is a part of the kernel.
load_module() {
  local name="$1"
  shift
  [ -e "/scenario/modules/$name.builtin" ] || insmod "/scenario/modules/$name.ko" "$@"
}

# wait_until SECONDS COMMAND...: as within, for three minutes at the least: the bound is for what never comes, and on
# processors that others use, too, nothing is late before that.
wait_until() {
  local seconds=$(($1 < 180 ? 180 : $1))
  shift
  within $seconds "$@"
}

# within SECONDS COMMAND...: tries it five times a second. For what something else would do a little later.
within() {
  local tries=$(($1 * 5))
  shift
  until "$@" >/dev/null 2>&1; do
    tries=$((tries - 1))
    if [ $tries -le 0 ]; then
      echo "in vain: $*"
      return 1
    fi
    sleep 0.2
  done
}

# log_says TEXT [FILE]: the daemon's log, or the named one, has the text.
log_says() { grep -qF -- "$1" "$LOG/${2:-edr.log}"; }

# folders_known COUNT: a scan of the watched paths has ended that knows so many.
folders_known() {
  local known
  known=$(cat $LOG/edr.log* | sed -n 's/.*Folders known below the watched paths: //p' | sort -n | tail -n 1)
  [ "${known:-0}" -ge "$1" ]
}

# next_pid NUMBER: the next process gets it, or the first free one above. Whoever begins just then takes it away.
next_pid() { echo $(($1 - 1)) >/proc/sys/kernel/ns_last_pid; }

# end_of_pids NUMBER: behind it they begin anew at 300.
end_of_pids() { echo "$1" >/proc/sys/kernel/pid_max; }

# begin_as PID PROGRAM [ARGUMENT...]: begins the program in the background with this pid, which is free. Sets BEGUN to its pid.
# Its standard input is empty.
begin_as() {
  local pid=$1 tries=100
  shift
  while [ $tries -gt 0 ]; do
    next_pid "$pid"
    # Only a process with the wanted pid becomes the program, so that nothing is done by another one.
    ( read -r me _ </proc/self/stat && [ "$me" = "$pid" ] && exec "$@" ) &
    BEGUN=$!
    if [ $BEGUN = "$pid" ]; then return; fi
    wait $BEGUN
    tries=$((tries - 1))
  done
}

# ---- the platform

# start_receiver [SWITCH...]: with the customer and the agent of the configuration. A document that does not follow its
# schema is refused, and so missing.
start_receiver() {
  local before
  mkdir -p "$RECEIVED"
  before=$(grep -c '^listening on' $LOG/receiver.log 2>/dev/null)
  reference-receiver --port 8443 --store $RECEIVED --validate --ca-out $CONF/platform-ca.pem \
    --customer "$(configured customer_id)" --agent "$(configured agent_id)" --activation "$(configured activation_id)" "$@" >>$LOG/receiver.log 2>&1 &
  RECEIVER=$!
  wait_until 20 receiver_listens $((${before:-0} + 1)) || fail "receiver starts" "$(tail -n 3 $LOG/receiver.log)"
}

receiver_listens() { [ "$(grep -c '^listening on' $LOG/receiver.log)" -ge "$1" ]; }

stop_receiver() {
  kill "$RECEIVER"
  wait "$RECEIVER" 2>/dev/null
}

# ---- configuration

# configured KEY: the value of a text of the example configuration.
configured() { sed -n "s/^ *\"$1\": \"\(.*\)\",*$/\1/p" /examples/edr.conf.json | head -n 1; }

# write_configuration: what stands in examples/, at the places that the configuration names, with the daemon's log at debug.
write_configuration() {
  mkdir -p $CONF $WATCHED "$(configured agent_install_path)"
  cp /examples/edr.conf.json /examples/fim-manifest.json $CONF/
  cp /examples/log.properties $CONF/
  log_level debug
}

# log_level LEVEL: of the daemon's log, in the written configuration.
log_level() { sed -i "s/^\(logging.loggers.l0.level\) = .*/\1 = $1/" $CONF/log.properties; }

# log_less: the running daemon's log from debug to information. A line for each record and each step of an event costs
# a guest more time than the events themselves.
log_less() {
  log_level information
  reference-agent config $CONF/edr.conf.json
  expect "the daemon logs less" wait_until 20 log_says "Updating log level to information"
}

# configure KEY VALUE: changes a key of the written configuration; the value is JSON, texts with their quotes.
# configure_ioc KEY VALUE: the same in the section of indicators of compromise, which the other leaves alone.
configure() {
  sed -i -e '/^  "ioc_config": {/,/^  }/b' -e "s|^\( *\"$1\": \).*[^,]\(,*\)$|\1$2\2|" $CONF/edr.conf.json
}
configure_ioc() {
  sed -i "/^  \"ioc_config\": {/,/^  }/s|^\( *\"$1\": \).*[^,]\(,*\)$|\1$2\2|" $CONF/edr.conf.json
}

# extended_coverage BOOLEAN: whether the daemon sees more than by its ordinary rules.
extended_coverage() { configure extended_coverage "$1"; }

# ---- the agent and the daemon

# start_agent: starts the agent, and the agent the daemon; the configuration names the agent's process.
start_agent() {
  # The shell becomes the agent, so its process id is known before the agent reads the file.
  sh -c "sed -i 's/\"host_warden_pid\": [0-9]*/\"host_warden_pid\": '\$\$'/' $CONF/edr.conf.json
         exec reference-agent run --daemon $DAEMON --config $CONF/edr.conf.json" >>$LOG/agent.log 2>&1 &
  AGENT=$!
}

daemon_pid() { pidof ostrel-edr; }

# daemon_running: it receives the kernel's records, so start-up is over.
daemon_running() { audit-rules status | grep -q " pid=$(daemon_pid) "; }

wait_for_daemon() { wait_until 30 daemon_running; }

# start_all: platform, configuration, agent, daemon.
start_all() {
  write_configuration
  start_configured "$@"
}

# start_configured [SWITCH...]: the same with what stands in the written configuration.
start_configured() {
  start_receiver "$@"
  start_agent
  wait_for_daemon || fail "daemon starts" "$(tail -n 3 $LOG/agent.log $LOG/edr.log 2>&1 | tr '\n' ' ')"
}

# agent_ends: the agent ends when its daemon did; DAEMON_CODE is the code that both ended with.
# To be called by itself, not through expect: only this shell can wait for its own child.
agent_ends() {
  if ! within 90 agent_is_over; then
    fail "the agent sees its daemon end" "it still runs"
    DAEMON_CODE=none
    return 1
  fi
  wait "$AGENT"
  DAEMON_CODE=$?
  pass "the agent sees its daemon end"
}

agent_is_over() { ! grep -q '^State:.[^Z]' "/proc/$AGENT/status"; }

# stop_daemon: the "exit" command; start_again: agent and daemon, with what stands in the written configuration.
stop_daemon() {
  reference-agent exit >>$LOG/agent.log 2>&1
  agent_ends
  expect "exit ends the daemon with code 0" is "$DAEMON_CODE" 0
}

start_again() {
  start_agent
  wait_for_daemon || fail "the daemon starts again" "$(tail -n 3 $LOG/agent.log $LOG/edr.log 2>&1 | tr '\n' ' ')"
}

# stop_all: the "exit" command, and everything that must come of it.
stop_all() {
  stop_daemon
  expect "the kernel's rule list is empty" rules_empty
  stop_receiver
}

# The three of them fail when the kernel cannot be asked.
rules_empty() {
  local rules
  rules=$(audit-rules) && is "$rules" ""
}

# has_rule PATTERN: a rule of the kernel matches the pattern of grep -E; lacks_rule PATTERN: none does.
# hears: the daemon is the one that the kernel sends its records to.
hears() { audit-rules status | grep -q " pid=$(daemon_pid) "; }

has_rule() { audit-rules | grep -qE -- "$1"; }

lacks_rule() {
  local rules
  rules=$(audit-rules) || return
  if echo "$rules" | grep -E -- "$1"; then return 1; fi
}

# ---- the spool

spool_is_empty() { [ -z "$(ls $SPOOL)" ]; }

# spool_holds TEXT: a file of the spool has it.
spool_holds() { grep -qF -- "$1" $SPOOL/*; }

# ---- doing and expecting

# act [OPTION...] OPERATION NAME [ARGUMENT]: file-actor does it; what it says is owed by the platform from now on.
act() {
  if ! file-actor "$@" >/run/acted 2>&1; then
    fail "acting: $*" "$(cat /run/acted)"
    return 1
  fi
  cat /run/acted >>$OWED
  readable </run/acted | while read -r line; do step "  $line"; done
}

# received LINE: the event of a "done" line came, once. The id is the daemon's, everything else was known before.
# Lines of processes may have such words among their arguments.
received() { is "$(grep '^event ' $LOG/receiver.log | grep -cF "event ${1#done } id=")" 1; }

all_received() {
  local line
  while read -r line; do received "$line" || return 1; done <$OWED
}

# wait_for_event ACTION PATH [TEXT]: an event that a program without a voice caused; TEXT is a further part of its line.
wait_for_event() { wait_until "${SECONDS_TO_WAIT:-60}" event_came "$@"; }

event_came() { grep '^event ' $LOG/receiver.log | grep -F "event $1 $2 actor=" | grep -qF -- "${3:-}"; }

# wait_for_owed SECONDS: until every owed event came; says meanwhile what it waits for and what the platform receives.
wait_for_owed() {
  local left=$1 told
  told=$(grep -c . $LOG/receiver.log)
  step "waiting: file events rest 30 s in the daemon's cache by design, until the file has settled"
  while [ "$left" -gt 0 ] && ! all_received >/dev/null; do
    told=$(tell_received "$told")
    if [ $((left % 5)) -eq 0 ]; then
      step "  ... $(owed_missing | wc -l) of $(wc -l <$OWED) events still on their way"
    fi
    sleep 1
    left=$((left - 1))
  done
  tell_received "$told" >/dev/null
  while read -r line; do expect "received: ${line#done }" received "$line"; done <$OWED
}

# tell_received COUNT: tells the platform's lines after the first COUNT ones, on the console; prints how many there are.
tell_received() {
  local count
  count=$(grep -c . $LOG/receiver.log)
  if [ "$count" -gt "$1" ]; then
    sed -n "$(($1 + 1)),${count}p" $LOG/receiver.log | sed '/^\(ioc\|batch\) /d' | readable | sed 's/^/road:   platform: /' >/dev/console
  fi
  echo "$count"
}

# no_other_events: every event of the platform is an owed one.
no_other_events() {
  local line strange=0
  grep '^event ' $LOG/receiver.log >/run/events
  while read -r line; do
    if ! grep -qxF "done $(echo "${line#event }" | sed 's/ id=[0-9]*$//')" $OWED; then
      echo "unexpected: $line"
      strange=1
    fi
  done </run/events
  return $strange
}

# For many events. $OWED_BY has a line for each, in two columns with a tabulator between: a label, under which they are
# judged together, and what is owed:
#
#   done EVENT        comes once for each such line; the event may end behind its pid, or have "*" as its actor
#   some EVENT        comes once or more often
#   may EVENT         comes at most once for each such line
#   none pid=NUMBER   nothing comes of that process
#   anything else     is a reason why nothing could be done, and a failure
#
# Events that nobody owes are told under the label of their process.

# batch NAME: one-call makes the calls of the requests on standard input, and says what is owed for them. The label of each
# is NAME and its object's name. fchmodat2 came with 6.6; every other call is there, or its request has failed.
batch() {
  local lacks
  one-call batch >/run/batch
  lacks=$(grep -c "$NO_FCHMODAT2" /run/batch)
  [ "$lacks" -eq 0 ] || step "this kernel has no call fchmodat2: $lacks requests of it are left out"
  sed -e "/$NO_FCHMODAT2/d" -e "s|^[^\t]*[ /]\([^ /\t]*\)\t|$1: \1\t|" /run/batch >>$OWED_BY
}

NO_FCHMODAT2='fchmodat2 .*no such call$'

# once LABEL REQUEST...: one-call makes this call.
once() {
  local label=$1
  shift
  if one-call do "$@" >/run/acted 2>&1; then
    sed "s|^|$label\t|" </run/acted >>$OWED_BY
  else
    printf '%s\t%s\n' "$label" "$(grep failed /run/acted)" >>$OWED_BY
  fi
}

# owe LABEL KIND ACTION TAIL: a line of $OWED_BY for each path on standard input; TAIL is what stands behind the path.
owe() { awk -v label="$1" -v kind="$2" -v action="$3" -v tail="$4" '{ print label "\t" kind " " action " " $0 tail }' >>$OWED_BY; }

# for_this_kernel: of the requests on standard input those that it can do, and can be held to. 5.10 has no list for io_uring: most
# of its operations are not there, and nobody is told of what is opened through it or by openat2. With a call on a descriptor
# it does not tell the working folder, in which the file of a process that has ended would be looked for.
for_this_kernel() {
  if kernel_has_uring_list; then
    cat
  else
    sed -e '/\(^\| \)uring-\(unlinkat\|mkdirat\|symlinkat\|renameat\|linkat\|setxattr\|fsetxattr\) /d' \
      -e '/\(^\| \)\(uring-openat\|openat2-\)/s/--extended //' \
      -e '/--stay /!{/--chdir [^ ]* \(fchmod\|fchown\|fsetxattr\|fremovexattr\) /d}'
  fi
}

tell_what_the_kernel_lacks() {
  kernel_has_uring_list && return
  step "this kernel lets io_uring open files only, and tells nobody of that, or of openat2: no event is owed for these"
  step "it tells no working folder with calls on a descriptor: these are not made by processes that end at once, by a relative name"
}

# requests FOLDER OPTION...: a request for each call and form, on objects in the folder.
requests() {
  local folder=$1
  shift
  one-call list | awk -v folder="$folder" -v options="$*" '{
    print options, $1, folder "/" $1 ".absolute"
    if ($1 ~ /^open(at2?)?-read$/) print options, "--loginuid 1000", $1, folder "/" $1 ".logged-in"
    print options, "--chdir", folder, $1, $1 ".working-folder"
    if ($2 == "at") print options, "--dirfd", folder, $1, $1 ".open-folder"
    if ($3 == "compat") print options, "--compat", $1, folder "/" $1 ".compat"
  }' | sed 's/^ *//' | for_this_kernel
}

# make_every_call COVERAGE OPTION...: a whole scenario: each call in each form, by processes that end and by some that stay.
make_every_call() {
  local coverage=$1 work=$WATCHED/work
  shift
  mkdir -p $work/ends $work/stays
  tell_what_the_kernel_lacks
  requests $work/ends "$@" >/run/ends
  requests $work/stays --stay "$@" >/run/stays
  expect "the objects are made" sh -c 'cat /run/ends /run/stays | one-call prepare'
  write_configuration
  extended_coverage "$coverage"
  start_configured
  step "$(wc -l </run/ends) calls by processes that end at once"
  batch "ends" </run/ends
  step "$(wc -l </run/stays) calls by processes that stay"
  batch "stays" </run/stays
  wait_for_the_last 120
  judge
  # shellcheck disable=SC2046 # a word each
  kill $(pidof one-call)
  stop_all
}

# wait_for_the_last SECONDS: until the event of something done now came. Events leave the daemon in their order, so what
# has not come by then will not come.
wait_for_the_last() {
  sleep 2 # times of events are whole seconds
  act create "$WATCHED/the last, $(cut -d' ' -f1 /proc/uptime)"
  tail -n 1 $OWED | sed 's/^/the last\t/' >>$OWED_BY
  step "waiting: file events rest 30 s in the daemon's cache by design, until the file has settled"
  expect "the last event came" wait_until "$1" received "$(tail -n 1 $OWED)"
}

# judge [EVENTS]: a verdict for each label of $OWED_BY; EVENTS is the file that has what came, the platform's log if none is
# named.
judge() {
  awk -F'\t' '
    function pid_of(event) { return match(event, / pid=[0-9]+/) ? substr(event, RSTART + 5, RLENGTH - 5) : "" }
    function known(event,   short) {
      if (event in kind) return event
      short = event
      sub(/ user=.*/, "", short)
      if (short in kind) return short
      sub(/ actor=[^ ]* /, " actor=* ", short)
      return short in kind ? short : ""
    }
    function tell(label, problem) {
      if (++problems[label] <= 4) told[label] = told[label] "; " problem
    }
    NR == FNR {
      if (!($1 in owed)) order[++labels] = $1
      owed[$1] += 0
      word = $2; sub(/ .*/, "", word)
      event = substr($2, length(word) + 2)
      label_of[pid_of(" " $2)] = $1
      if (word == "none") next
      if (word != "done" && word != "some" && word != "may") { tell($1, $2); next }
      if (word != "may" || !(event in kind)) kind[event] = word
      by[event] = $1; want[event]++
      if (word == "done") least[event]++
      if (word != "may") owed[$1]++
      next
    }
    /^event / {
      event = substr($0, 7); sub(/ id=[0-9]*$/, "", event)
      match_of = known(event)
      if (match_of != "") {
        got[match_of]++
        if (kind[match_of] == "may") extra[by[match_of]]++
        next
      }
      label = pid_of(event) in label_of ? label_of[pid_of(event)] : "events of others"
      if (label == "events of others" && !(label in owed)) { order[++labels] = label; owed[label] = 0 }
      tell(label, "nobody did: " event)
    }
    END {
      for (event in kind) {
        if (kind[event] != "may" && !(event in got)) tell(by[event], "missing: " event)
        else if (kind[event] != "some" && got[event] > want[event]) tell(by[event], got[event] " times: " event)
        else if (kind[event] == "done" && got[event] < least[event]) tell(by[event], "only " got[event] " of " least[event] ": " event)
      }
      for (i = 1; i <= labels; i++) {
        label = order[i]
        if (label in problems) print "\nFAIL " label ": " problems[label] " wrong, " owed[label] + 0 " owed" told[label]
        else print "PASS " label " (" owed[label] + 0 " owed" (label in extra ? ", " extra[label] " more that may come" : "") ")"
      }
    }' $OWED_BY "${1:-$LOG/receiver.log}"
}

owed_missing() {
  while read -r line; do
    received "$line" >/dev/null || echo "$line"
  done <$OWED
}

# ---- indicators of compromise

# ioc_manifest FILE RULES [MORE [SETTINGS]]: MORE is further members of the manifest, each with a comma in front; SETTINGS
# the global ones.
ioc_manifest() {
  printf '{"policyVersion": "2.0.0", "policyId": "guest", "productId": "guest", "globalSettings": {%s}, "rules": [%s]%s}' \
    "${4:-}" "$2" "${3:-}" >"$1"
}

# ioc_manifests FILE...: those that the written configuration names.
ioc_manifests() {
  local list="" file
  for file; do list="$list${list:+, }{\"manifest_path\": \"$file\", \"manifest_type\": \"ioc\"}"; done
  configure_ioc manifests "[$list]"
}

# watch_programs_and_files PROGRAMS FILES: two rules are in force, for the programs of the one folder and for files that come
# and go in the other; nothing is damped.
watch_programs_and_files() {
  ioc_manifest $CONF/ioc-manifest.json "
    {\"ruleId\": \"programs\", \"ruleType\": \"Process\", \"notify\": {\"process\": [\"create\", \"delete\"]},
      \"inclusionFilters\": [{\"filterType\": [\"patterns\"], \"patterns\": [\"$1/*\"]}]},
    {\"ruleId\": \"files\", \"ruleType\": \"Directory\", \"imagePath\": \"$2\", \"recursiveDepth\": \"All\",
      \"notify\": {\"File\": [\"create\", \"delete\"]}}" ', "heuristicsEnabled": false'
  ioc_manifests $CONF/ioc-manifest.json
}

# ioc_came LINE: a line of a batch at the platform begins so. ioc_owes NAME LINE: it comes soon.
ioc_came() { awk -v line="$1" 'index($0, line) == 1 { came = 1; exit } END { exit !came }' $LOG/receiver.log; }

ioc_owes() { expect "$1" wait_until 60 ioc_came "$2"; }

# ioc_events: what came, in the form that judge reads:
#
#   event ACTION file PATH actor=PROGRAM pid=NUMBER user=NAME            and so for directories and connections
#   event ACTION process PROGRAM actor=PARENT'S parent=NUMBER pid=NUMBER user=NAME
#
# without the folders that are told of because a file in them is.
ioc_events() {
  sed -n -e '/^ioc NONE directory /d' -e '/^ioc /!d' -e 's/ size=.*//' \
    -e 's/^ioc \([A-Z]* process .*\) pid=\([0-9]*\) user=\([^ ]*\) parent=\([0-9]*\) actor=\([^ ]*\) status=.*/event \1 actor=\5 parent=\4 pid=\2 user=\3/p' \
    -e 's/^ioc \([A-Z]* [fdn].*\)/event \1/p' $LOG/receiver.log
}

judge_ioc() {
  ioc_events >/run/ioc-events
  judge /run/ioc-events
}

# owe_ioc LABEL EVENT: it comes once.
owe_ioc() { printf '%s\tdone %s\n' "$1" "$2" >>$OWED_BY; }

# owe_process LABEL PROGRAM PID USER [PARENT]: this shell has started it, or a part of it that runs in the background, and it
# ends.
owe_process() {
  owe_ioc "$1" "RUNNING process $2 actor=/bin/busybox parent=${5:-$$} pid=$3 user=$4"
  owe_ioc "$1" "TERMINATED process $2 actor=/bin/busybox parent=${5:-$$} pid=$3 user=$4"
}

# in_ioc_words: what file-actor did (standard input), as it is told of an indicator of compromise.
in_ioc_words() {
  awk '/^done / {
    word["Create"] = "CREATE"; word["Write"] = "WRITE"; word["Read"] = "READ"; word["Change"] = "CHANGE"
    word["Rename"] = "RENAME"; word["Delete"] = "DELETE"
    action = word[$2]
    sub(/^done [A-Za-z]* /, ""); sub(/ audit-user=.*/, "")
    print action, $0
  }'
}

# wait_for_end_of COMMAND: until the end of a reported process with these words came, and with it all that was before.
wait_for_end_of() {
  expect "the last event came" wait_until 90 end_came "$1"
  sleep 1 # a batch is told with its processes at the end
}

end_came() { grep -F -- "arguments=$1" $LOG/receiver.log | grep -q '^ioc TERMINATED '; }

# programs_on_stage: /usr/bin and its programs, which are busybox, file-actor and process-actor by other names; each is a
# file of its own, so that it is known by its path.
programs_on_stage() {
  local name
  mkdir -p /usr/bin
  for name in sh cat chmod cp id mkdir mv nc rm sleep tee touch; do ln /bin/busybox /usr/bin/$name; done
  for name in logger passwd; do ln /usr/local/bin/file-actor /usr/bin/$name; done
  ln /usr/local/bin/process-actor /usr/bin/curl
  ln /usr/local/gnu/dash /usr/bin/dash
}

# alice SCRIPT [ARGUMENT...]: she has logged in and runs it; administrator: as root after her login; service: as root,
# and nobody has logged in. What the change of the user tells of a process is that of a process without siblings.
alice() { sh -c "( echo 1000 >/proc/self/loginuid && exec su alice -c 'exec /usr/bin/sh $*' ); :"; }
administrator() { sh -c "( echo 1000 >/proc/self/loginuid && exec /usr/bin/sh $* ); :"; }
service() { sh -c "/usr/bin/sh $*; :"; }

# ioc_stories: what came, with the names of those who did it in the place of their pids, as far as their starts are told:
#
#   event ACTION file PATH by cp<sh<sh as USER        and so for directories and connections
#   event ACTION process PROGRAM by sh<sh as USER
ioc_stories() {
  sed '/^ioc NONE directory /d' $LOG/receiver.log | awk '
    function field(name,   at) {
      at = match($0, " " name "=[^ ]*")
      return at ? substr($0, RSTART + length(name) + 2, RLENGTH - length(name) - 2) : ""
    }
    function short(path) { sub(/.*\//, "", path); return path }
    function chain(pid,   text, depth) {
      for (depth = 0; (pid in program) && depth < 20; depth++) {
        text = text (depth ? "<" : "") short(program[pid])
        pid = parent[pid]
      }
      return text == "" ? "-" : text
    }
    !/^ioc / { next }
    { line[++lines] = $0 }
    /^ioc RUNNING process / { pid = field("pid"); program[pid] = $4; parent[pid] = field("parent") }
    END {
      for (i = 1; i <= lines; i++) {
        $0 = line[i]
        pid = field("pid")
        subject = $0
        sub(/^ioc /, "", subject)
        sub(/ (actor|pid)=.*/, "", subject)
        if ($3 == "process") {
          by = chain(field("parent"))
        } else {
          by = short(field("actor"))
          if (pid in program) { above = chain(parent[pid]); if (above != "-") by = by "<" above }
        }
        print "event " subject " by " by " as " field("user")
      }
    }'
}

# last_batch: the number of the batch that came last.
last_batch() { sed -n 's/^batch \([0-9]*\) .*/\1/p' $LOG/receiver.log | tail -n 1; }

# numbers_are_whole TWICE: of the batches none is missing, and at most so many came twice.
numbers_are_whole() {
  sed -n 's/^batch \([0-9]*\) .*/\1/p' $LOG/receiver.log | sort -n | awk -v twice="$1" '
    $1 == last { again++; next }
    $1 != last + 1 { print "after " last " comes " $1; wrong = 1 }
    { last = $1 }
    END { if (again > twice) { print again " came twice"; wrong = 1 } exit wrong }'
}

# boot_time: as the last batch tells it.
boot_time() { sed -n 's/^batch .* boot=\([0-9]*\) .*/\1/p' $LOG/receiver.log | tail -n 1; }

no_gaps() { ! grep '^sequence gap' $LOG/receiver.log; }

mkdir -p $LOG
: >$OWED
: >$OWED_BY
