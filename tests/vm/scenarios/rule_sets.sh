# shellcheck shell=dash
# Two hundred rules, replaced ten times while somebody works in a folder whose rule stays: nothing of that is missed.
# Nor is a folder that goes before the next set comes, and comes back after it.
. /scenario/lib.sh

FOLDERS=/srv/many

# manifest FILE ROUND: a hundred rules that are the same in every round, and a hundred that are not.
manifest() {
  awk -v round="$2" -v folders=$FOLDERS 'BEGIN {
    printf "{\"data\": {\"fim\": {\"policyVersion\": \"1.0\", \"collectHashes\": false, \"rules\": ["
    for (i = 1; i <= 200; i++) {
      id = i <= 100 ? i : i "-" round
      printf "%s{\"ruleId\": \"rule-%s\", \"ruleType\": \"directory\", \"imagePath\": \"%s/%d\", \"recursiveDepth\": \"all\", \"notify\": [\"create\"]}", (i > 1 ? ", " : ""), id, folders, i
    }
    print "]}}}"
  }' >"$1"
}

work() {
  local i=0
  until [ -e /run/enough ]; do
    i=$((i + 1))
    echo "$i" >$FOLDERS/1/file-$i
    sleep 0.1
  done
  echo $i >/run/written
}

sets_in_force() { [ "$(grep -cF 'Rules in force: 201 of 201' $LOG/edr.log)" -ge "$1" ]; }
created() { grep -c "^event Create $FOLDERS/1/file-" $LOG/receiver.log; }
all_created() { is "$(created)" "$(cat /run/written)"; }

i=1
while [ $i -le 200 ]; do
  mkdir -p $FOLDERS/$i
  i=$((i + 1))
done
write_configuration
manifest $CONF/fim-manifest.json 0
extended_coverage false
log_level information
start_configured
expect "two hundred rules are in force" wait_until 30 sets_in_force 1
work &
round=1
while [ $round -le 10 ]; do
  manifest $CONF/manifest-$round.json $round
  configure manifest_path "\"$CONF/manifest-$round.json\""
  reference-agent config $CONF/edr.conf.json
  expect "set $round is in force" wait_until 30 sets_in_force $((round + 1))
  expect "with its own rules" wait_until 10 has_rule "key=rule-200-$round\$"
  expect "and not the former ones" wait_until 10 lacks_rule "key=rule-200-$((round - 1))\$"
  round=$((round + 1))
done
touch /run/enough
wait_until 5 test -e /run/written
step "$(cat /run/written) files were made meanwhile"
expect "each of them was reported" wait_until 90 all_created

step "a folder is gone while the rules are replaced"
rmdir $FOLDERS/2
expect "its rule waits" wait_until 10 log_says "Rule rule-2 is not in force any more: $FOLDERS/2 is gone"
manifest $CONF/manifest-11.json 11
configure manifest_path "\"$CONF/manifest-11.json\""
reference-agent config $CONF/edr.conf.json
expect "the next set is there" wait_until 30 has_rule "key=rule-200-11\$"
expect "and waits on" wait_until 10 log_says "Rule rule-2 is not in force: there is no $FOLDERS/2"
mkdir $FOLDERS/2
echo early >$FOLDERS/2/early
expect "the folder is watched when it comes back" wait_until 10 log_says "Rule rule-2 is in force: $FOLDERS/2 is there now"
echo late >$FOLDERS/2/late
expect "what was made before is reported" wait_until 90 event_came Create $FOLDERS/2/early
expect "and what was made after" wait_until 60 event_came Create $FOLDERS/2/late
stop_all
