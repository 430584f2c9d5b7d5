# shellcheck shell=dash
# The records of tests/data/audit-processes-6.1.log: how processes begin and end, and what sockets they use.
#
#   tests/vm/run-guest tests/vm/recordings/processes.sh
#   cp build/dev/guest/processes/log/records tests/data/audit-processes-6.1.log
. /scenario/lib.sh

RECORDS=$LOG/records

# record TEXT COMMAND...: a mark, and what the command causes. The code is told: some steps are meant to fail.
record() {
  audit-recorder mark "$1"
  shift
  "$@" >/run/recorded 2>&1
  step "$1 $2 (code $?) $(head -n 1 /run/recorded)"
}

ip addr add 10.1.2.3/24 dev lo
ip addr add 2001:db8::7/128 dev lo
printf '#!/bin/sh\nexit 0\n' >/srv/script
printf '#!/srv/script\n' >/srv/script-of-script
chmod 0755 /srv/script /srv/script-of-script
mkdir -p "/srv/with blank"
cp /usr/local/bin/process-actor "/srv/with blank/quo\"te"
ln -s /usr/local/bin/process-actor /srv/link
many=""
i=0
while [ $i -lt 300 ]; do
  many="$many argument-$i-$(printf '%060d' $i)"
  i=$((i + 1))
done

audit-recorder processes $RECORDS >/run/recorder 2>&1 &
RECORDER=$!
expect "the rules are in force" wait_until 10 grep recording /run/recorder
cat /run/recorder

record "execve of a program" process-actor execve /bin/busybox true
record "execve of a script" process-actor execve /srv/script one 'two words' ''
record "execve of a script whose interpreter is a script" process-actor execve /srv/script-of-script
record "execve by a symbolic link" process-actor execve /srv/link clone
record "execve of a program with a blank and a quote in its name" process-actor execve "/srv/with blank/quo\"te" clone
# shellcheck disable=SC2086
record "execve of 300 long arguments" process-actor execve /bin/busybox true $many
record "execve of one argument of 20000 bytes" process-actor execve /bin/busybox true "$(printf '%020000d' 7)"
record "execve of arguments with a quote, a line break and bytes that are no UTF-8" process-actor execve /bin/busybox true 'a"b' 'two
lines' "$(printf 'x\377\376y')"
cd /usr/local
record "execve relative to the working folder" bin/process-actor execve bin/process-actor clone
cd /root
record "execve that fails" process-actor execve /srv/nothing
record "execveat" process-actor execveat /bin/busybox true
record "fork" process-actor fork
record "vfork" process-actor vfork
record "clone" process-actor clone
record "clone3" process-actor clone3
record "clone of a thread" process-actor thread
record "exit_group with code 3" sh -c 'exit 3'
record "an abnormal end by SIGSEGV" process-actor crash
record "connect over IPv4" process-actor connect 10.1.2.3 443
record "connect over IPv6" process-actor connect 2001:db8::7 8443
record "connect to loopback over IPv4" process-actor connect 127.1.2.3 443
record "connect to loopback over IPv6" process-actor connect ::1 443
record "connect to any address" process-actor connect 0.0.0.0 443
record "connect to nobody over UNIX" process-actor connect-unix /srv/nobody
record "bind over IPv4" process-actor bind 10.1.2.3 5353
record "bind over IPv6" process-actor bind 2001:db8::7 5353
record "bind to any address" process-actor bind 0.0.0.0 5354
record "bind to port 0" process-actor bind 10.1.2.3 0
record "bind over UNIX" process-actor bind-unix /srv/socket
record "bind, connect and a refused connect over TCP" process-actor listen 10.1.2.3 7443
record "32-bit fork" process-actor compat-fork
record "32-bit execve" process-actor compat-execve /bin/busybox true
record "32-bit connect" process-actor compat-connect 10.1.2.3 443
record "32-bit connect by socketcall" process-actor compat-socketcall 10.1.2.3 443
record "32-bit exit_group" process-actor compat-exit 0
record "the end" true

kill $RECORDER
wait $RECORDER
expect "records came" grep -q 'step: the end' $RECORDS
expect "an abnormal end" grep -q '^type=ANOM_ABEND ' $RECORDS
expect "the rules are gone" rules_empty
echo "lines: $(wc -l <$RECORDS), bytes: $(wc -c <$RECORDS)"
