# shellcheck shell=dash
# What a manifest asks for and what it does not: every operation on files, folders, symbolic and hard links by root, by a
# user who logged in and by a daemon's user, on every depth, for every word of notify, through every filter. All rules are in force at once, each on a folder
# of its own, and what the platform receives is what they ask for, no more and no less.
# seconds: 900
. /scenario/lib.sh

M=/srv/matrix
ACTOR=/usr/local/bin/file-actor
OTHER=/usr/local/bin/other-actor # the same program, by another name
LABEL=
RULES=

# rule NAME DEPTH NOTIFY [MORE]: a folder NAME with a rule on it; MORE is further members of the rule.
rule() {
  mkdir -p "$M/$1/sub/deep"
  chmod -R 0777 "$M/$1"
  RULES="$RULES${RULES:+,}{\"ruleId\": \"$1\", \"ruleType\": \"directory\", \"imagePath\": \"$M/$1\",
    \"recursiveDepth\": \"$2\", \"notify\": [$3]${4:+, $4}}"
}

WORDS="read create delete rename modifyContent modifyMetadata modifySecuritySettings"
EVERY='"read", "create", "delete", "rename", "modifyContent", "modifyMetadata"'

# run WHO PROGRAM ARGUMENT...: file-actor, by another name perhaps, as that user.
run() {
  local who="$1"
  shift
  case $who in
    alice) sh -c "echo 1000 >/proc/self/loginuid && exec su alice -c 'exec $*'" ;; # who came in by su
    sudo) run_with --loginuid 1000 "$@" ;;
    daemon) run_with --uid 2 "$@" ;;
    root) "$@" ;;
  esac
}
run_with() {
  local option="$1" value="$2" program="$3"
  shift 3
  "$program" "$option" "$value" "$@"
}

# id_of WHO: whose the objects are.
id_of() {
  case $1 in
    alice) echo 1000 ;;
    daemon) echo 2 ;;
    *) echo 0 ;;
  esac
}

# prepare FOLDER WHO: the objects that every_operation works on. prepare_kinds: those that every_kind works on.
prepare() {
  for name in write read chmod rename unlink target; do echo here >"$1/$2.$name"; done
  mkdir "$1/$2.rmdir"
  chown -h "$(id_of "$2"):$(id_of "$2")" "$1/$2".*
}
prepare_kinds() {
  prepare "$1" "$2"
  mkdir "$1/$2.list" "$1/$2.folder-chmod" "$1/$2.folder-rename"
  for name in rename unlink lchown; do ln -s "$2.target" "$1/$2.link-$name"; done
  for name in write chmod rename unlink; do
    echo here >"$1/$2.hard-$name"
    ln "$1/$2.hard-$name" "$1/$2.hard-$name.second"
  done
  chown -h "$(id_of "$2"):$(id_of "$2")" "$1/$2".*
}

# operate FOLDER WHO PROGRAM: does each of the operations on standard input, on an object of its own, and prints what was
# done.
operate() {
  local folder="$1" who="$2" program="$3"
  while read -r operation name argument; do
    # shellcheck disable=SC2086 # no argument is none
    run "$who" "$program" "$operation" "$folder/$who.$name" $argument </dev/null || echo "fails: $operation $folder/$who.$name"
  done
}

# every_operation FOLDER WHO [PROGRAM]
every_operation() {
  operate "$1" "$2" "${3:-$ACTOR}" <<END
create create
write write
read read
chmod chmod 0600
rename rename $1/$2.renamed
unlink unlink
mkdir mkdir
rmdir rmdir
symlink symlink target
link link $1/$2.target
END
}

# every_kind FOLDER WHO: those, and what can be done to folders, symbolic links and files with a second name.
every_kind() {
  every_operation "$1" "$2"
  operate "$1" "$2" $ACTOR <<END
list list
chmod folder-chmod 0700
rename folder-rename $1/$2.folder-renamed
rename link-rename $1/$2.link-renamed
unlink link-unlink
lchown link-lchown $(id_of "$2")
write hard-write
chmod hard-chmod 0600
rename hard-rename $1/$2.hard-renamed
unlink hard-unlink
END
}

# owed PATTERN: of what was done (standard input) the lines that match are owed under LABEL, and nothing of the others.
owed() {
  awk -v label="$LABEL" -v pattern="$1" '
    /^done / && $0 ~ pattern { print label "\t" $0; next }
    /^done / { sub(/.* pid=/, ""); sub(/ .*/, ""); print label "\tnone pid=" $0; next }
    { print label "\t" $0 }' >>$OWED_BY
}

# Reading is told of login sessions only.
by_sessions() { case $1 in root | daemon) echo '^done [^R]|^done Rename' ;; *) echo '.' ;; esac; }

for depth in none 1 all; do rule "depth-$depth" $depth "$EVERY"; done
for word in $WORDS; do rule "notify-$word" all "\"$word\""; done
rule include-pattern all "$EVERY" '"inclusionFilters": [{"objectType": "file", "patterns": ["*.create", "/sub/*.write"]}]'
rule exclude-pattern all "$EVERY" '"exclusionFilters": [{"exclusionFilter": {"objectType": "file", "patterns": ["*.create"]}}]'
rule include-folder all "$EVERY" '"inclusionFilters": [{"objectType": "directory", "patterns": ["/sub/*"]}]'
rule include-process all "$EVERY" '"inclusionFilters": [{"inclusionFilter": {"actorProcess": ["other-actor"]}}]'
rule exclude-process all "$EVERY" '"exclusionFilters": [{"actorProcess": ["other-actor"]}]'
rule include-user all "$EVERY" '"inclusionFilters": [{"actorUsername": ["ali*"]}]'
rule exclude-user all "$EVERY" '"exclusionFilters": [{"actorUsername": ["alice"]}]'
rule include-now all "$EVERY" '"inclusionFilters": [{"timespanStart": "00:00:00", "timespanEnd": "23:59:59"}]'
rule exclude-now all "$EVERY" '"exclusionFilters": [{"timespanStart": "00:00:00", "timespanEnd": "23:59:59"}]'
if [ "$(date -u +%H)" -lt 12 ]; then span='"18:00:00", "timespanEnd": "19:00:00"'; else span='"06:00:00", "timespanEnd": "07:00:00"'; fi
rule include-later all "$EVERY" "\"inclusionFilters\": [{\"timespanStart\": $span}]"
rule exclude-later all "$EVERY" "\"exclusionFilters\": [{\"timespanStart\": $span}]"
rule include-and-exclude all "$EVERY" '"inclusionFilters": [{"actorUsername": ["alice"]}], "exclusionFilters": [{"actorUsername": ["*"]}]'
rule untidy all "$EVERY" '"exclusionFilters": [{"objectType": "file", "patterns": ["/sub/*.create"]}]'
RULES=$(echo "$RULES" | sed "s|$M/untidy\"|$M/./untidy//\"|")

for who in root alice daemon; do
  for depth in none 1 all; do
    for folder in "" /sub /sub/deep; do prepare_kinds "$M/depth-$depth$folder" $who; done
  done
done
for word in $WORDS; do prepare_kinds "$M/notify-$word" sudo; done
for folder in include-pattern exclude-pattern include-folder untidy; do
  prepare $M/$folder root
  prepare $M/$folder/sub root
done
for folder in include-process exclude-process; do prepare $M/$folder root; prepare $M/$folder/sub root; done
for folder in include-user exclude-user include-and-exclude; do prepare $M/$folder root; prepare $M/$folder alice; done
for folder in include-now exclude-now include-later exclude-later; do prepare $M/$folder root; done
cp $ACTOR $OTHER

write_configuration
extended_coverage false
configure cpu_limit 100
configure max_file_size_kb 1000
echo "{\"data\": {\"fim\": {\"policyVersion\": \"1.0\", \"collectHashes\": false, \"rules\": [
  {\"ruleId\": \"watched\", \"ruleType\": \"directory\", \"imagePath\": \"$WATCHED\", \"recursiveDepth\": \"all\", \"notify\": [\"create\"]},
  $RULES]}}}" >$CONF/fim-manifest.json
start_configured
expect "every rule is in force" wait_until 30 log_says "Rules in force: 25 of 25"

step "depths"
for who in root alice daemon; do
  for depth in none 1 all; do
    for folder in "" /sub /sub/deep; do
      LABEL="depth $depth, in ${folder:-it}, $who"
      case $depth:$folder in
        1: | all:*) wanted=$(by_sessions $who) ;;
        *) wanted='^$' ;;
      esac
      every_kind "$M/depth-$depth$folder" $who | owed "$wanted"
    done
  done
done
LABEL="depth none, the folder itself"
$ACTOR chmod $M/depth-none 0755 | owed .

step "words of notify"
for word in $WORDS; do
  LABEL="notify $word"
  case $word in
    read) wanted='^done Read' ;;
    create) wanted='^done Create' ;;
    delete) wanted='^done Delete' ;;
    rename) wanted='^done Rename' ;;
    modifyContent) wanted='^done Write' ;;
    *) wanted='^done Change' ;;
  esac
  every_kind "$M/notify-$word" sudo | owed "$wanted"
done

step "filters"
BUT_CREATED='/root[.](write|chmod|rename|unlink|mkdir|rmdir|symlink|link) '
LABEL="inclusion by pattern"
every_operation $M/include-pattern root | owed "/root.create "
every_operation $M/include-pattern/sub root | owed "/root.(create|write) "
LABEL="exclusion by pattern"
every_operation $M/exclude-pattern root | owed "$BUT_CREATED"
LABEL="inclusion by folder"
every_operation $M/include-folder root | owed '^$'
every_operation $M/include-folder/sub root | owed "$(by_sessions root)"
LABEL="inclusion by process"
every_operation $M/include-process root | owed '^$'
every_operation $M/include-process/sub root $OTHER | owed "$(by_sessions root)"
LABEL="exclusion by process"
every_operation $M/exclude-process root | owed "$(by_sessions root)"
every_operation $M/exclude-process/sub root $OTHER | owed '^$'
LABEL="no exclusion by a name of one's own"
unshare -m sh -c "mount --bind $ACTOR $OTHER && exec $OTHER --linger 2 create $M/exclude-process/impostor" | owed .
LABEL="inclusion by user"
every_operation $M/include-user root | owed '^$'
every_operation $M/include-user alice | owed .
LABEL="exclusion by user"
every_operation $M/exclude-user root | owed "$(by_sessions root)"
every_operation $M/exclude-user alice | owed '^$'
LABEL="inclusion before exclusion"
every_operation $M/include-and-exclude root | owed '^$'
every_operation $M/include-and-exclude alice | owed .
LABEL="inclusion by time"
every_operation $M/include-now root | owed "$(by_sessions root)"
every_operation $M/include-later root | owed '^$'
LABEL="exclusion by time"
every_operation $M/exclude-now root | owed '^$'
every_operation $M/exclude-later root | owed "$(by_sessions root)"
LABEL="a path that is not tidy"
every_operation $M/untidy root | owed "$(by_sessions root)"
every_operation $M/untidy/sub root | owed "$BUT_CREATED"

wait_for_the_last 120
judge
stop_all
