# shellcheck shell=dash
# with: auditd
# time: virtual
# An administrator silences audit, which tells nobody: the daemon notices within eleven minutes, says why and goes on as
# soon as audit speaks again. Its own file is the proof, and concerns nobody else.
. /scenario/lib.sh

SIGN=$(configured agent_install_path)/edr-proof-of-life
ROUND=600   # seconds between two proofs
SILENT="Proof of life: audit is silent: "

# said TEXT COUNT: the log has the text so often.
said() { is "$(grep -cF -- "$1" $LOG/edr.log)" "$2"; }

# pass_round: until the next proof is due and its minute is over.
pass_round() { sleep $((ROUND + 90)); }

# Children that have ended and that the daemon has not let go of.
no_zombies() { ! cat /proc/[0-9]*/stat 2>/dev/null | grep -q ") Z $(daemon_pid) "; }

reported_silent() { grep '^status 4004 EDR state=0 ' $LOG/receiver.log | grep -qF "\"auditSilent\":\"$1"; }

mkdir -p $WATCHED
start_all
expect "its own file is watched" wait_until 10 has_rule "path=$SIGN .*key=ostrel_proof_of_life\$"

step "audit speaks"
sleep $((ROUND + 10))
expect "a proof was asked for" said "Proof of life: waiting for the event" 1
expect "and given" said "Proof of life: the event has come" 1
expect "nobody is told" said "$SILENT" 0
expect "who gave it is gone" no_zombies

step "a rule in front: no task is audited"
auditctl -a never,task
pass_round
expect "a rule in front is told, once" said "${SILENT}no event came, though audit is on: a rule in front" 1
expect "the daemon's rules are put in anew" log_says "RuleEngine::Invalidate: Cleaning up all rules"
expect "they are there" has_rule "dir=$WATCHED .*key="
expect "its own too" has_rule "path=$SIGN .*key=ostrel_proof_of_life\$"
sleep 300
expect "the platform knows" wait_until 30 reported_silent "no event came, though audit is on"
auditctl -d never,task
pass_round
expect "it speaks again" said "Proof of life: audit speaks again" 1

step "audit is switched off"
auditctl -e 0
pass_round
expect "that is told apart" said "${SILENT}audit is switched off" 1
sleep 300
expect "the platform knows that, too" wait_until 30 reported_silent "audit is switched off"
auditctl -e 1
pass_round
expect "it speaks again (2)" said "Proof of life: audit speaks again" 2
expect "nothing was told twice" said "$SILENT" 2
expect "all who were asked are gone" no_zombies

act create $WATCHED/after.txt
wait_for_owed 60
expect "nobody hears of the daemon's own file" no_other_events
# That no manifest has settings of tags is the one thing that is told as an error.
complaints() { grep -E '^[^ ]* E ' $LOG/edr.log | grep -vF "Tag settings does not have threshold score"; }
expect "nothing to complain about" not complaints
stop_all
