# shellcheck shell=dash
# What rules of indicators of compromise ask for and what they do not: files, folders, processes, connections and trusted
# programs, by root and by a user who has logged in. Then the manifests change in the middle of a storm, and pids come again.
# What the platform receives is what the rules ask for, no more and no less.
. /scenario/lib.sh

S=/srv/stage # whose programs' starts are asked for
T=/srv/trusted
F=/srv/ioc
ACTOR=$S/file-actor
LABEL=

# rule ID FOLDER DEPTH [MORE]: of a folder, for everything.
rule() {
  mkdir -p "$2/sub"
  chmod -R 0777 "$2"
  printf '{"ruleId": "%s", "ruleType": "Directory", "imagePath": "%s", "recursiveDepth": "%s", "notify": {
    "File": ["create", "delete", "rename", "write", "attribute", "read"], "Directory": ["create", "delete", "rename"]}%s}, ' \
    "$1" "$2" "$3" "${4:+, $4}"
}

# does WHO WANTED PROGRAM ARGUMENT...: what file-actor does, its start and its end are owed under LABEL. WANTED: all, no
# file (its event is not asked for), end (its start is not), nothing.
does() {
  local who=$1 wanted=$2 program=$3 pid
  shift 3
  if [ "$who" = alice ]; then
    sh -c "echo 1000 >/proc/self/loginuid && exec su alice -c 'exec $program $*'" >/run/acted 2>&1 &
  else
    $program "$@" >/run/acted 2>&1 &
  fi
  pid=$!
  wait $pid || printf '%s\tfails: %s %s\n' "$LABEL" "$program" "$(tr '\n' ' ' </run/acted)" >>$OWED_BY
  case $wanted in
    nothing) printf '%s\tnone pid=%s\n' "$LABEL" $pid >>$OWED_BY && return ;;
    end) owe_ioc "$LABEL" "TERMINATED process $program actor=/bin/busybox parent=$$ pid=$pid user=$who" ;;
    *) owe_process "$LABEL" $program $pid $who ;;
  esac
  if [ "$wanted" = "no file" ]; then return; fi
  in_ioc_words </run/acted | case $1 in
    mkdir | rmdir) sed 's/ / directory /' ;;
    connect) ;;
    *) sed 's/ / file /' ;;
  esac | while read -r event; do owe_ioc "$LABEL" "$event"; done
}

# connects WANTED PROGRAM HOW ADDRESS PORT
connects() {
  local wanted=$1 program=$2 pid
  shift 2
  $program "$@" &
  pid=$!
  wait $pid || printf '%s\tfails: %s\n' "$LABEL" "$*" >>$OWED_BY
  owe_process "$LABEL" $program $pid root
  if [ "$wanted" = no ]; then return; fi
  case $1 in
    connect) set -- ESTABLISHED "$@" ;;
    *) set -- LISTEN "$@" ;;
  esac
  owe_ioc "$LABEL" "$1 network $3:$4 actor=$program pid=$pid user=root"
}

# wait_for_all: until all that was done came.
wait_for_all() {
  local last
  last="$F/all/last-$(cut -d' ' -f1 /proc/uptime)"
  LABEL="the last of it"
  does root all $ACTOR create "$last"
  wait_for_end_of "$ACTOR create $last"
}

mkdir -p $S $T $F/stays $F/elsewhere $WATCHED/shared
for round in 0 1 2 3 4; do mkdir -p $F/rounds/$round; done
for program in file-actor other-actor quiet-actor trusted-actor; do cp /usr/local/bin/file-actor $S/$program; done
cp /usr/local/bin/process-actor $S/connector
cp /usr/local/bin/file-actor $T/anything
cp /bin/busybox $S/cp
cp /bin/busybox $S/sh
echo one >$F/file.txt
echo two >$F/file2.txt
chmod 0666 $F/*.txt
ip addr add 10.1.2.3/8 dev lo
{
  rule all $F/all All
  rule one $F/one 1
  rule none $F/none None
  rule types $F/types All '"fileTypeToInclude": ["ELF", "script"]'
  rule filtered $F/filtered All '"exclusionFilters": [
    {"filterType": ["objectType", "actorProcess"], "objectType": "File", "patterns": ["*.tmp"], "actorProcess": ["other-actor"]}]'
  rule included $F/included All '"inclusionFilters": [
    {"filterType": ["objectType"], "objectType": "Directory", "patterns": ["'$F'/included/sub"]},
    {"filterType": ["actorProcess"], "actorProcess": ["other-actor"]}]'
  cat <<RULES
  {"ruleId": "one-file", "ruleType": "File", "imagePath": "$F/file.txt", "notify": {"File": ["write", "rename"]}},
  {"ruleId": "stays", "ruleType": "Directory", "imagePath": "$F/stays", "recursiveDepth": "All", "notify": {"File": ["create"]}},
  {"ruleId": "programs", "ruleType": "Process", "notify": {"process": ["create", "delete"]},
    "inclusionFilters": [{"filterType": ["patterns"], "patterns": ["$S/*", "$T/*"]}],
    "exclusionFilters": [{"filterType": ["patterns"], "patterns": ["quiet-actor"]},
                         {"filterType": ["actorProcess"], "actorProcess": ["$S/sh"]}]},
  {"ruleId": "connections", "ruleType": "Network", "notify": {"network": ["establish", "listen"]},
    "inclusionFilters": [{"filterType": ["remotePort", "localPort"],
      "remotePort": {"number": [443], "range": [{"min": 8000, "max": 8080}]}, "localPort": {"range": [{"min": 1, "max": 1023}]}}],
    "exclusionFilters": [{"filterType": ["remoteIPAddress"], "remoteIPAddress": ["10\\\\.9\\\\..*"]}]},
  {"ruleId": "trusted", "ruleType": "EDR", "ruleClass": "WhitelistGlobal", "imagePath": "$S/trusted-actor", "applyTo": ["file"],
    "exclusionFilters": [{"filterType": ["parentProcess"], "parentProcess": ["busybox"]}]},
  {"ruleId": "trusted-folder", "ruleType": "EDR", "ruleClass": "WhitelistGlobal", "imagePath": "$T",
    "applyTo": ["file", "directory", "process", "network"], "exclusionFilters": [{"filterType": []}]}
RULES
} >/run/rules
for folder in one one/sub none filtered included included/sub; do
  for name in write chmod; do echo here >$F/$folder/$name; done
done
for who in root alice; do
  for name in write read chmod rename unlink target; do echo here >$F/all/$who.$name; done
done
mkdir $F/all/folder $F/all/unknown
chown alice $F/all/alice.*
chmod -R a+rwX $F

write_configuration
configure cpu_limit 100
HOT=', "heuristicsEnabled": false'
ioc_manifest $CONF/first.json "$(cat /run/rules)" "$HOT"
shared() {
  printf '{"ruleId": "shared-%s", "ruleType": "Directory", "imagePath": "%s", "recursiveDepth": "All", "notify": {"File": [%s]}}' \
    "$1" $WATCHED/shared "$2"
}
ioc_manifest $CONF/second.json "$(shared one '"create"'), $(shared two '"write", "delete"')" "$HOT"
ioc_manifests $CONF/first.json $CONF/second.json
start_configured
expect "both manifests are read" log_says "[IOC]: Successfully parsed manifest file $CONF/second.json"

step "folders"
for who in root alice; do
  LABEL="everything by $who"
  for operation in create mkdir; do does $who all $ACTOR $operation $F/all/$who.$operation; done
  for operation in write chmod rename unlink symlink link; do
    case $operation in
      chmod) argument=0600 ;;
      rename) argument=$F/all/$who.renamed ;;
      symlink) argument=target ;;
      link) argument=$F/all/$who.target ;;
      *) argument= ;;
    esac
    echo "$operation $F/all/$who.$operation $argument"
  done >/run/operations
  while read -r operation name argument; do
    wanted=all
    # Nobody was told of the file.
    if [ "$operation" = unlink ]; then wanted="no file"; fi
    # shellcheck disable=SC2086 # none or one
    does $who "$wanted" $ACTOR $operation $name $argument
  done </run/operations
done
# A folder that is made is not told of.
sed -i '/done CREATE directory /d' $OWED_BY
LABEL="reading is told of login sessions"
does alice all $ACTOR read $F/all/alice.read
does root "no file" $ACTOR read $F/all/root.read
LABEL="another folder's name"
$ACTOR rename $F/all/folder $F/all/folder-by-another-name >/run/acted &
pid=$!
wait $pid
owe_process "$LABEL" $ACTOR $pid root
owe_ioc "$LABEL" "RENAME directory $F/all/folder-by-another-name actor=$ACTOR pid=$pid user=root"
LABEL="a folder that nobody was told of"
does root "no file" $ACTOR rmdir $F/all/unknown
LABEL="depth"
does root all $ACTOR write $F/one/write
does root "no file" $ACTOR write $F/one/sub/write
does root "no file" $ACTOR write $F/none/write
LABEL="one file"
does root all $ACTOR write $F/file.txt
does root "no file" $ACTOR chmod $F/file.txt 0640
does root "no file" $ACTOR write $F/file2.txt
LABEL="exclusion: both tests of a group"
does root all $ACTOR create $F/filtered/new.tmp
does root all $S/other-actor create $F/filtered/new.txt
does root "no file" $S/other-actor create $F/filtered/other.tmp
LABEL="inclusion: one of the groups"
does root "no file" $ACTOR write $F/included/write
does root all $ACTOR write $F/included/sub/write
does root all $S/other-actor write $F/included/chmod
LABEL="types of files"
does root "no file" $ACTOR create $F/types/text
$S/cp /bin/busybox $F/types/elf &
pid=$!
wait $pid
owe_process "$LABEL" $S/cp $pid root
owe_ioc "$LABEL" "CREATE file $F/types/elf actor=$S/cp pid=$pid user=root"
$S/sh -c "echo '#!/bin/sh' >$F/types/script" &
pid=$!
wait $pid
owe_process "$LABEL" $S/sh $pid root
owe_ioc "$LABEL" "CREATE file $F/types/script actor=$S/sh pid=$pid user=root"

step "processes"
LABEL="an excluded program's file, and its end"
does root end $S/quiet-actor create $F/all/quiet
does root nothing $S/quiet-actor create $F/unwatched
LABEL="the child of an excluded actor"
$S/sh -c "$ACTOR create $F/all/by-sh >/run/acted; :" &
pid=$!
wait $pid
owe_process "$LABEL" $S/sh $pid root
child=$(sed -n 's/.* pid=\([0-9]*\).*/\1/p' /run/acted)
owe_ioc "$LABEL" "$(in_ioc_words </run/acted | sed 's/ / file /')"
owe_ioc "$LABEL" "TERMINATED process $ACTOR actor=$S/sh parent=$pid pid=$child user=root"

step "connections"
LABEL="connections"
connects yes $S/connector connect 10.1.2.3 443
connects yes $S/connector connect 10.1.2.3 8042
connects no $S/connector connect 10.1.2.3 444
connects no $S/connector connect 10.9.2.3 443
connects no $S/connector connect 127.0.0.1 443
connects yes $S/connector bind 10.1.2.3 80
connects no $S/connector bind 10.1.2.3 2000

step "trusted programs"
LABEL="a trusted program's files"
does root "no file" $S/trusted-actor create $F/all/trusted
LABEL="whatever lies in a trusted folder"
does root nothing $T/anything create $F/all/anything

step "two manifests and file integrity monitoring on one folder"
LABEL="one folder for three"
does root all $ACTOR create $WATCHED/shared/new
cp /run/acted $OWED
does alice "no file" $ACTOR read $WATCHED/shared/new
wait_for_all
LABEL="one folder for three"
does root all $ACTOR unlink $WATCHED/shared/new
cat /run/acted >>$OWED
LABEL="deletions of what was told of"
for file in $F/all/root.create $F/filtered/new.tmp $F/file2.txt; do does root all $ACTOR unlink $file; done
# Nobody was told of it.
sed -i '/done DELETE file .*file2.txt /d' $OWED_BY

step "other manifests in the middle of a storm"
log_less
# storm NAME FOLDER WANTED: makes files in the folder, each by a process of its own, until it is enough.
storm() {
  local me rest pid made=0
  read -r me rest </proc/self/stat
  LABEL="storm: $1"
  until [ -e /run/enough ]; do
    $ACTOR create $2/$1-$made >/dev/null &
    pid=$!
    wait $pid || printf '%s\tfails: %s\n' "$LABEL" $made >>$OWED_BY
    owe_process "$LABEL" $ACTOR $pid root $me
    if [ "$3" = all ]; then owe_ioc "$LABEL" "CREATE file $2/$1-$made actor=$ACTOR pid=$pid user=root"; fi
    made=$((made + 1))
    echo $made >"/run/made-$1"
  done
}
storm stays $F/stays all &
STORMS=$!
storm elsewhere $F/elsewhere "no file" &
STORMS="$STORMS $!"
storms_made() { echo $(($(cat /run/made-stays) + $(cat /run/made-elsewhere))); }
is_storm() { [ "$(storms_made)" -ge $((round * 25)) ]; }
for round in 1 2 3 4; do
  before=$((round - 1))
  expect "that is a storm" wait_until 90 is_storm
  ioc_manifest $CONF/round-$round.json "$(cat /run/rules), {\"ruleId\": \"round-$round\", \"ruleType\": \"Directory\",
    \"imagePath\": \"$F/rounds/$round\", \"recursiveDepth\": \"All\", \"notify\": {\"File\": [\"create\"]}}" "$HOT"
  ioc_manifests $CONF/round-$round.json $CONF/second.json
  reference-agent config $CONF/edr.conf.json >>$LOG/agent.log 2>&1
  expect "set $round is in force" wait_until 30 has_rule "key=round-$round\$"
  expect "and no other" wait_until 10 lacks_rule "key=round-$before\$"
  LABEL="a folder of set $round"
  does root all $ACTOR create $F/rounds/$round/new
  LABEL="a folder of another set than $round"
  does root "no file" $ACTOR create $F/rounds/$before/late
  expect "what set $round asks for comes while it is in force" wait_until 90 ioc_came "ioc CREATE file $F/rounds/$round/new "
done
touch /run/enough
# shellcheck disable=SC2086 # a word each
wait $STORMS
step "$(storms_made) files were made meanwhile"
wait_for_all

step "pids that come again"
LABEL="pids that come again"
next_pid 320
end_of_pids 380
again=0
while [ $again -lt 60 ]; do
  does root all $ACTOR create $F/all/again-$again
  does root all $S/other-actor write $F/all/again-$again
  again=$((again + 1))
done
end_of_pids 32768
expect "they did" [ "$(sed -n 's/^pids that come again\tdone RUNNING .* pid=\([0-9]*\) .*/\1/p' $OWED_BY | sort | uniq -d | wc -l)" -ge 20 ]
wait_for_all

judge_ioc
expect "file integrity monitoring hears of the common folder, too" wait_until 60 all_received
expect "each folder is told of once" is "$(sed -n 's/^ioc NONE directory \([^ ]*\) .*/\1/p' $LOG/receiver.log | sort | uniq -d)" ""
expect "no batch is missing" no_gaps
expect "the kernel has lost nothing" grep -q ' lost=0 ' <<STATUS
$(audit-rules status)
STATUS
expect "nothing of the daemon's own is told" not grep -E '^ioc .*(ostrel-edr|reference-(agent|receiver)|/var/(lib|log)/ostrel)' $LOG/receiver.log
stop_all
expect "nothing failed" not grep -E 'Uncaught exception|EventProcessor: Failed' $LOG/edr.log
