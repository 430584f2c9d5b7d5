# shellcheck shell=dash
# What stands in the documents that the platform accepted, beside path, action and actor.
. /scenario/lib.sh

mkdir -p $WATCHED
echo "here before the daemon" >$WATCHED/mode.txt
echo "here before the daemon" >$WATCHED/old.txt
chmod 0644 $WATCHED/mode.txt
start_all
act create $WATCHED/new.txt
act chmod $WATCHED/mode.txt 0600
act --loginuid 1000 read $WATCHED/mode.txt
act unlink $WATCHED/old.txt
act mkdir $WATCHED/folder
wait_for_owed 60

# document ACTION PATH: the JSON of one event, on a line of its own.
document() { cat $RECEIVED/* | sed 's/{"successStatus"/\n&/g' | grep "\"eventAction\":\"$1\"" | grep -F "\"imagePath\":\"$2\""; }
has() { document "$1" "$2" | grep -qE -- "$3"; }

expect "an event tells what it is" has Change $WATCHED/mode.txt '"successStatus":"yes".*"eventClass":"Disk","eventType":"File"'
expect "a folder is told from a file" has Create $WATCHED/folder '"eventType":"Directory"'
expect "the rule is named" has Change $WATCHED/mode.txt '"associatedRules":\["[^"]+"\]'
expect "permissions are octal digits: what they were" has Change $WATCHED/mode.txt '"securitySettings":\{"old":\{[^}]*"permission":644'
expect "and what they are" has Change $WATCHED/mode.txt '"securitySettings":.*"new":\{[^}]*"permission":600'
expect "the size is hexadecimal: here before the daemon" has Change $WATCHED/mode.txt '"size":\{"new":"0x17"\}'
expect "the actor has ids too" has Read $WATCHED/mode.txt '"userID":0,"auditUserName":"alice","auditUserID":1000'
expect "the actor's command line" has Read $WATCHED/mode.txt '"procTitle":"file-actor --loginuid 1000 read /srv/watched/mode.txt"'
expect "a new file's content is hashed" has Create $WATCHED/new.txt "\"fileContentHash\":\"$(sha256sum <$WATCHED/new.txt | cut -d' ' -f1)\""
expect "a file that is gone has no size" not has Delete $WATCHED/old.txt '"size"'
expect "the payload has the time of its upload" grep -qE '"timestamp":"20[0-9-]+T[0-9:]+Z"\}$' "$(grep -l '^{"events"' $RECEIVED/* | head -n 1)"

stop_all
