# shellcheck shell=dash
# How a tracked file was when it was first met: one document for each name, before its first event, with content and
# digest as far as there are any; none again for a second event, after a restart or after a kill.
. /scenario/lib.sh

TRACKED=$WATCHED/tracked
ODD="it's \"two\"
lines"

# documents ACTION NAME: those of the platform, a line each; the name as JSON has it.
documents() {
  cat $RECEIVED/* | sed 's/{"successStatus"/\n&/g' | grep "\"eventAction\":\"$1\"" | grep -F "\"imagePath\":\"$TRACKED/$2\""
}
count() { documents "$@" | wc -l; }
shows() { documents "$1" "$2" | grep -qF -- "$3"; }
# comes_first NAME: of all documents of the file the first one is its baseline.
comes_first() {
  cat $RECEIVED/* | sed 's/{"successStatus"/\n&/g' | grep -F "\"imagePath\":\"$TRACKED/$1\"" | head -n 1 |
    grep -q '"eventAction":"Baseline"'
}
baselines() { cat $RECEIVED/* | grep -o '"eventAction":"Baseline"' | wc -l; }
once_each() {
  local name
  for name in written old-name new-name largest too-large removed 'it'\''s \"two\"\nlines'; do
    is "$name: $(count Baseline "$name")" "$name: 1" || return
  done
}

mkdir -p $TRACKED
for name in written old-name removed "$ODD"; do echo "here before the daemon" >"$TRACKED/$name"; done
dd if=/dev/zero of=$TRACKED/largest bs=51200 count=1 2>/dev/null
dd if=/dev/zero of=$TRACKED/too-large bs=51201 count=1 2>/dev/null

write_configuration
extended_coverage false
echo "{\"data\": {\"fim\": {\"policyVersion\": \"1.0\", \"collectHashes\": true, \"rules\": [
  {\"ruleId\": \"tracked\", \"ruleType\": \"directory\", \"imagePath\": \"$TRACKED\", \"recursiveDepth\": \"all\",
   \"notify\": [\"create\", \"delete\", \"rename\", \"modifyContent\", \"modifyMetadata\"],
   \"trackContentChange\": true}]}}}" >$CONF/fim-manifest.json
start_configured

act write $TRACKED/written
act write $TRACKED/written
act rename $TRACKED/old-name $TRACKED/new-name
act chmod $TRACKED/largest 0600
act chmod $TRACKED/too-large 0600
act chmod "$TRACKED/$ODD" 0600
act unlink $TRACKED/removed
wait_for_owed 60

expect "each name has one baseline" once_each
expect "two writes are two events" is "$(count Write written)" 2
expect "the baseline comes before the event" comes_first written
expect "it has the content" shows Baseline written "\"fileContent\":\"$(base64 -w 0 $TRACKED/written)\",\"contentStatus\":\"READ_SUCCESSFUL\""
expect "and the digest" shows Baseline written "\"fileContentHash\":\"$(sha256sum <$TRACKED/written | cut -d' ' -f1)\""
expect "and nobody who did it" not shows Baseline written '"actor"'
expect "a write has the content, too" shows Write written "\"fileContent\":\"$(base64 -w 0 $TRACKED/written)\""
expect "the old name of a rename has nothing to show" shows Baseline old-name '"fileContent":"","contentStatus":"READ_FAILURE"'
expect "the new one has the content" shows Baseline new-name "\"fileContent\":\"$(base64 -w 0 $TRACKED/new-name)\""
expect "51,200 bytes are captured" shows Baseline largest "\"fileContent\":\"$(base64 -w 0 $TRACKED/largest)\",\"contentStatus\":\"READ_SUCCESSFUL\""
expect "51,201 bytes are not" shows Baseline too-large '"fileContent":"","contentStatus":"MAX_SIZE_LIMIT_REACHED"'
expect "what is gone has no digest" not shows Baseline removed '"fileContentHash"'

step "a restart"
stop_daemon
start_again
act write $TRACKED/written
act chmod "$TRACKED/$ODD" 0644
wait_for_owed 60
expect "after a restart there is none again" is "$(baselines)" 7

step "a kill"
reference-agent kill
agent_ends
expect "it was killed" is "$DAEMON_CODE" 137
start_again
act write $TRACKED/written
act chmod $TRACKED/largest 0644
act create $TRACKED/later
wait_for_owed 60
expect "after a kill there is one of the new file alone" is "$(baselines), $(count Baseline later)" "8, 1"
expect "each name has still one" once_each
expect "and each write its event" is "$(count Write written)" 4

stop_all
