# shellcheck shell=dash
# A long run under trouble: mixed work that both components hear of, while the configuration is read again, the platform
# goes away, the daemon is killed, halted and started anew, the clock is set, the disk is full and memory is short. In
# the end the books are closed: each event that was owed came, or is explained by a reason that is counted or timed.
#
# What explains a loss reaches back as far as events stay in memory. So work goes on before each kill and each full disk until
# everything that the troubles before had to do with is on disk, or told: of that nothing may be missing.
#
# Daemons are killed in the first third; the last one lives for the rest, so that what grows in it can be seen.
# time: virtual
# seconds: 3600
. /scenario/lib.sh

MINUTES=$(cat /root/soak.minutes 2>/dev/null || echo 10)
POOL=$WATCHED/pool         # a folder a round, with the objects that it works on
LOAD=$WATCHED/load         # the files that bursts write to
DOERS=/usr/local/bin       # where the programs are that work
DISK=/srv/disk             # the disk of spools and databases
DONE=$LOG/soak-done        # "SECOND done EVENT", and "SECOND burst PID FILES" for many at once
WINDOWS=$LOG/soak-windows  # "FROM TO REASON": events of this time may be missing, or come twice
IN_MEMORY=45               # seconds after which an event is on disk, 30 of which a file rests
BEFORE=$((IN_MEMORY + 5))  # seconds of work before a trouble that may lose what is in memory
REST=400                   # seconds without work: losses are told every five minutes, freed memory is given back every three
PAUSE=2                    # seconds between two rounds
ROUNDS=$((MINUTES * 60 / PAUSE + 200))

now() {
  read -r NOW _ </proc/uptime
  NOW=${NOW%.*}
}
window() { echo "$*" >>$WINDOWS; }
line() { echo "soak: $*"; }

# ---- the work

does() {
  now
  if file-actor "$@" >/run/acted 2>&1; then
    while read -r did; do echo "$NOW $did"; done </run/acted >>$DONE
  else
    fail "acting: $*" "$(cat /run/acted)"
  fi
}

# burst FILES EXECS CONNECTS: FILES is a multiple of 100.
burst() {
  now
  event-load $LOAD "$1" "$2" "$3" 5000 >/dev/null &
  echo "$NOW burst $! $1" >>$DONE
  wait $!
}

do_round() {
  ROUND=$((ROUND + 1))
  folder=$POOL/$ROUND
  does create $folder/new
  does write $folder/write
  does chmod $folder/chmod 600
  does rename $folder/rename $folder/renamed
  does unlink $folder/unlink
  does mkdir $folder/folder
  does rmdir $folder/rmdir
  does --loginuid 1000 read $folder/read
  if [ $((ROUND % 10)) -eq 0 ]; then burst 200 20 10; fi
}

# work SECONDS
work() {
  now
  work_until=$((NOW + $1))
  while [ $NOW -lt $work_until ]; do
    do_round
    sleep $PAUSE
    now
    if [ $((NOW - BEGIN)) -ge $((MINUTE * 60)) ]; then tell_minute; fi
  done
}

# ---- what the daemon holds

# kilobytes LINE: of the daemon's status.
kilobytes() { sed -n "s/^$1:[^0-9]*\([0-9]*\) kB/\1/p" "/proc/$(daemon_pid)/status"; }
resident() { kilobytes VmRSS; }
held() { find "/proc/$(daemon_pid)/$1" -mindepth 1 -maxdepth 1 | wc -l; }
rules() { audit-rules | wc -l; }
sample() { echo "$(resident) kB resident, $(kilobytes RssAnon) of them its own data, $(held fd) descriptors, $(held task) threads, $(rules) rules"; }

# least fd|task: the fewest in ten seconds; an upload has some for a moment.
least() {
  for _ in 1 2 3 4 5 6 7 8 9 10; do
    held "$1"
    sleep 1
  done | sort -n | head -n 1
}

tell_minute() {
  line "minute $MINUTE: $(sample); $(find $SPOOL $IOC_SPOOL -type f | wc -l) files in spools"
  MINUTE=$((MINUTE + 1))
  rm -f "$RECEIVED"/*  # the guest's disk is its memory
}

# ---- the troubles; each ends with everything as it was

starts() {
  start_agent
  wait_for_daemon || fail "the daemon starts again" "$(tail -n 3 $LOG/agent.log $LOG/edr.log 2>&1 | tr '\n' ' ')"
}

platform() { start_receiver --cert-store /run/certificate; }

# What was accepted when the platform went may be sent again.
platform_goes() {
  now
  window $((NOW - IN_MEMORY)) $((NOW + 1)) again
  stop_receiver
}

strikes() {
  now
  killed_at=$NOW
  kill -9 "$(daemon_pid)"
  do_round
  wait_until 30 agent_is_over || fail "the agent sees its daemon killed" "it still runs"
  wait "$AGENT" 2>/dev/null
  starts
  now
  window $((killed_at - IN_MEMORY)) $((NOW + 1)) killed
}

kill_daemon() {
  work $BEFORE
  strikes
  work 15
}

# Nothing may be missing here: what waits is delivered before the end.
restart() {
  do_round
  reference-agent exit >>$LOG/agent.log 2>&1
  agent_ends >/dev/null
  [ "$DAEMON_CODE" = 0 ] || fail "exit ends the daemon" "code $DAEMON_CODE"
  rules_empty || fail "no rule is left after an exit" "$(rules) rules"
  starts
  work 15
}

# A kill loses nothing of what was spooled before.
kill_without_platform() {
  platform_goes
  work $((BEFORE + 10))
  strikes
  work 10
  platform
  work 10
}

outage() {
  platform_goes
  work 30
  platform
  work 10
}

reload() {
  configure upload_interval 3
  configure_ioc upload_interval 3
  manifests /srv/more
  reference-agent config $CONF/edr.conf.json >>$LOG/agent.log 2>&1
  work 10
  configure upload_interval 5
  configure_ioc upload_interval 5
  manifests
  reference-agent config $CONF/edr.conf.json >>$LOG/agent.log 2>&1
  work 5
}

set_clock() { date -s "@$(($(date +%s) + $1))" >/dev/null; }

clock() {
  set_clock 86400
  work 20
  set_clock -86400
  work 10
}

full_disk() {
  work $BEFORE
  full_at=$NOW
  dd if=/dev/zero of=$DISK/fill bs=64k 2>/dev/null
  burst 1500 20 10
  work 20
  rm $DISK/fill
  now
  window $((full_at - IN_MEMORY)) $((NOW + 1)) refused
  work 15
}

# What a daemon has counted, and has not told yet, dies with it.
full_disk_and_restart() {
  full_disk
  restart
}

short_memory() {
  mkdir -p /run/hog
  mount -t tmpfs -o size=90% hog /run/hog
  dd if=/dev/zero of=/run/hog/fill bs=1M count="$(awk '/^MemAvailable/ { print int($2 / 1024) - 64 }' /proc/meminfo)" 2>/dev/null
  burst 500 50 10
  work 20
  umount /run/hog
  work 5
}

halt() {
  kill -STOP "$(daemon_pid)"
  burst 300 20 10
  sleep 4
  kill -CONT "$(daemon_pid)"
  work 15
}

storm() {
  burst 3000 200 100
  work 20
}

# manifests [FOLDER]: both components hear of $WATCHED, and of the folder, and of no programs but those in the books. Manifests
# are known by their names.
manifests() {
  more_fim="${1:+, {\"ruleId\": \"more\", \"ruleType\": \"directory\", \"imagePath\": \"$1\", \"recursiveDepth\": \"all\", \"notify\": [\"create\"]\}}"
  more_ioc="${1:+, {\"ruleId\": \"more-ioc\", \"ruleType\": \"Directory\", \"imagePath\": \"$1\", \"recursiveDepth\": \"All\", \"notify\": {\"File\": [\"create\"]\}\}}"
  name=manifest${1:+-more}
  printf '{"data": {"fim": {"policyVersion": "1.0", "collectHashes": true, "rules": [{"ruleId": "watched", "ruleType": "directory",
    "imagePath": "%s", "recursiveDepth": "all", "notify": ["read", "create", "delete", "rename", "modifyContent",
    "modifyMetadata", "modifySecuritySettings"]}%s]}}}' $WATCHED "$more_fim" >$CONF/fim-$name.json
  ioc_manifest $CONF/ioc-$name.json "
    {\"ruleId\": \"programs\", \"ruleType\": \"Process\", \"notify\": {\"process\": [\"create\", \"delete\"]},
      \"inclusionFilters\": [{\"filterType\": [\"patterns\"], \"patterns\": [\"$DOERS/file-actor\", \"$DOERS/event-load\"]}],
      \"exclusionFilters\": [{\"filterType\": [\"actorProcess\"], \"actorProcess\": [\"$DOERS/event-load\"]}]},
    {\"ruleId\": \"watched-ioc\", \"ruleType\": \"Directory\", \"imagePath\": \"$WATCHED\", \"recursiveDepth\": \"All\",
      \"notify\": {\"File\": [\"create\", \"write\"]}}$more_ioc" ', "heuristicsEnabled": false'
  configure manifest_path "\"$CONF/fim-$name.json\""
  ioc_manifests $CONF/ioc-$name.json
}

# ---- the books

# counted FIELD: of the losses that the platform was told. No two statuses are alike: one that came twice counts once.
counted() {
  sed -n 's/^status 4004 EDR state=0 //p' $LOG/receiver.log | sort -u | tr ',{}' '\n\n\n' | awk -F: -v field="\"$1\"" '$1 == field { n += $2 } END { print n + 0 }'
}

# close_books: what was owed against what came, by event, program and pid. Prints a line of the table for each component
# and leaves the sums in /run/soak-books, "NAME VALUE" each. "described" are the files that new folders got
# while the disk was full: with each of them, whether it was refused itself or had room again, the
# description of its folder may have been refused.
close_books() {
  awk -v windows=$WINDOWS -v load=$LOAD -v program=$DOERS/ '
    function owes(book, key, second,   n) {
      n = ++want[key]
      at[key, n] = second
      book_of[key] = book
      owed[book]++
    }
    function is_in(second, reason,   i) {
      for (i = 1; i <= count; i++) if (word[i] == reason && second >= from[i] && second <= to[i]) return 1
      return 0
    }
    function cut(text) { sub(/ (user|size)=.*/, "", text); return text }
    BEGIN {
      kind["Create"] = "CREATE"; kind["Write"] = "WRITE"
      while ((getline row < windows) > 0) { split(row, f, " "); count++; from[count] = f[1]; to[count] = f[2]; word[count] = f[3] }
    }
    FNR == 1 { file++ }
    file == 1 && $2 == "burst" {
      for (i = 0; i < $4; i++) {
        owes("FIM", "event Write " load "/" i % 100 " actor=" program "event-load pid=" $3, $1)
        owes("IOC", "ioc WRITE file " load "/" i % 100 " actor=" program "event-load pid=" $3, $1)
      }
      owes("IOC", "ioc RUNNING process " program "event-load pid=" $3, $1)
      owes("IOC", "ioc TERMINATED process " program "event-load pid=" $3, $1)
      next
    }
    file == 1 {
      second = $1
      action = $3
      text = cut($0)
      sub(/^[0-9]* done /, "", text)
      owes("FIM", "event " text, second)
      pid = text; sub(/.* pid=/, "", pid)
      owes("IOC", "ioc RUNNING process " program "file-actor pid=" pid, second)
      owes("IOC", "ioc TERMINATED process " program "file-actor pid=" pid, second)
      if (action in kind && text !~ /\/folder /) {
        sub(/^[A-Za-z]* /, "", text)
        owes("IOC", "ioc " kind[action] " file " text, second)
      }
      next
    }
    /^event / || /^ioc (CREATE|WRITE) file / || /^ioc (RUNNING|TERMINATED) process / {
      key = cut($0)
      if (key in want) { got[key]++; next }
      strange++
      if (strange <= 10) print "soak: nobody did: " $0
    }
    END {
      for (key in want) {
        book = book_of[key]
        n = got[key] + 0
        if (n > want[key]) {
          again[book] += n - want[key]
          if (n > 2 * want[key] || (!is_in(at[key, 1], "again") && !is_in(at[key, 1], "killed"))) {
            doubled++
            if (doubled <= 10) print "soak: " n " times instead of " want[key] ", of second " at[key, 1] ": " key
          }
          n = want[key]
        }
        received[book] += n
        missing = want[key] - n
        for (i = 1; i <= want[key] && missing > 0; i++) {
          second = at[key, i]
          if (is_in(second, "killed")) { killed[book]++; missing-- }
          else if (is_in(second, "refused")) {
            refused[book]++
            missing--
          }
        }
        if (key ~ /^ioc [A-Z]* file / && index(key, load "/") == 0) {
          for (i = 1; i <= want[key]; i++) if (is_in(at[key, i], "refused")) described++
        }
        if (missing > 0) {
          unexplained[book] += missing
          if (++told <= 20) print "soak: missing, of second " at[key, 1] ": " missing " of " want[key] " " key
        }
      }
      for (b = 1; b <= 2; b++) {
        book = b == 1 ? "FIM" : "IOC"
        printf "soak: %s: %d done = %d received + %d in the memory of a killed daemon, or while none ran + %d refused by a full disk + %d unexplained; %d came again\n",
          book, owed[book], received[book], killed[book], refused[book], unexplained[book], again[book]
        print "done-" book, owed[book] + 0 >"/run/soak-books"
        print "unexplained-" book, unexplained[book] + 0 >"/run/soak-books"
        print "refused-" book, refused[book] + 0 >"/run/soak-books"
      }
      print "doubled", doubled + 0 >"/run/soak-books"
      print "strange", strange + 0 >"/run/soak-books"
      print "described", described + 0 >"/run/soak-books"
    }' $DONE $LOG/receiver.log
}

book() { sed -n "s/^$1 //p" /run/soak-books; }
at_most() { [ "$1" -le "$2" ] || { echo "$1, at most $2" && return 1; }; }

# ---- the run

: >$DONE
: >$WINDOWS
mkdir -p $LOAD $POOL /srv/more $DISK
seq 0 99 | while read -r i; do : >$LOAD/"$i"; done
seq $ROUNDS | sed "s|.*|$POOL/&/rmdir|" | xargs mkdir -p
seq $ROUNDS | while read -r i; do
  for name in write chmod rename unlink read; do : >$POOL/"$i"/$name; done
done
write_configuration
log_level information
manifests
mount -t tmpfs -o size=32m disk $DISK
mkdir -p $DISK/spools $DISK/installed
mount --bind $DISK/spools /var/lib/ostrel
mount --bind $DISK/installed "$(configured agent_install_path)"
platform
starts
ROUND=0
MINUTE=1
now
BEGIN=$NOW
END=$((BEGIN + MINUTES * 60))

# Each round is whole: every trouble has its turn, however short the run is.
while [ $NOW -lt $((BEGIN + MINUTES * 20)) ]; do
  for trouble in kill_daemon restart reload kill_without_platform full_disk_and_restart clock; do
    line "second $((NOW - BEGIN)): $trouble"
    $trouble
  done
done
restart
work 60
# As it is measured in the end; it is none of the minutes.
sleep $REST
BEGIN=$((BEGIN + REST))
END=$((END + REST))
PID=$(daemon_pid)
FIRST_RESIDENT=$(resident)
FIRST_DESCRIPTORS=$(least fd)
FIRST_THREADS=$(least task)
FIRST_RULES=$(rules)
line "the last daemon's first minute: $(sample)"
now
while :; do
  for trouble in outage full_disk reload clock short_memory halt storm; do
    line "second $((NOW - BEGIN)): $trouble"
    $trouble
  done
  [ $NOW -lt $END ] || break
done

does create "$WATCHED/the-last"
LAST=$(sed -n 's/.* pid=\([0-9]*\) .*/\1/p' /run/acted)
expect "the last file is told" wait_until 600 event_came Create "$WATCHED/the-last"
expect "and the end of its process" wait_until 600 ioc_came "ioc TERMINATED process /usr/local/bin/file-actor pid=$LAST "
sleep $REST
expect "the spools are empty" is "$(find $SPOOL $IOC_SPOOL -type f | wc -l)" 0
line "the last daemon's end: $(sample)"
expect "it is the same daemon" is "$(daemon_pid)" "$PID"
expect "at most 10 % more is resident than after its first minute" at_most "$(resident)" $((FIRST_RESIDENT * 110 / 100))
expect "no descriptor is left over" at_most "$(least fd)" "$FIRST_DESCRIPTORS"
expect "no thread" at_most "$(least task)" "$FIRST_THREADS"
expect "and as many rules are in force" is "$(rules)" "$FIRST_RULES"
stop_all

close_books
for field in kernelLost queueDropped bytesAtStop eventsDropped leftAtStop unplaced componentDropped spoolRefused spoolRemovedFiles spoolRemovedBytes notBuilt unsupportedCall fileReplaced; do
  echo "$field=$(counted $field)"
done >/run/counts
line "counted by the daemons: $(tr '\n' ' ' </run/counts)"
expect "much was done" [ "$(book done-FIM)" -ge $((MINUTES * 100)) ]
expect "FIM: what did not come is explained" is "$(book unexplained-FIM)" 0
expect "IOC: what did not come is explained" is "$(book unexplained-IOC)" 0
refused=$(($(book refused-FIM) + $(book refused-IOC)))
expect "what the full disk has cost is counted" at_most $refused "$(counted spoolRefused)"
expect "and nothing else, but for folders that were to be described" at_most "$(counted spoolRefused)" $((refused + $(book described)))
for field in kernelLost queueDropped eventsDropped leftAtStop unplaced componentDropped spoolRemovedFiles; do
  expect "nothing else is lost: $field" is "$(counted $field)" 0
done
expect "what came again was under way when somebody died, and came twice" is "$(book doubled)" 0
expect "nothing came that nobody did" is "$(book strange)" 0
