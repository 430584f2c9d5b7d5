# shellcheck shell=dash
# What administrators and packages do to single files, with the tools that they do it with: which documents come of each,
# in full. Temporary names are random: "XXXXXX" stands for them. What was at a temporary name is gone when its event has
# rested, so that without extended coverage only the rename tells of it; of a folder, which does not rest, its making may
# be told or not.
. /scenario/lib.sh

GNU=/usr/local/gnu
mkdir -p /run/tool /srv/elsewhere

# work NAME COMMAND...: runs it and remembers its process.
work() {
  local name=$1
  shift
  "$@" >/run/tool/output 2>&1 &
  echo $! >"/run/tool/$name"
  step "$name"
  wait $! || fail "$name" "the tool fails with code $?: $(tail -n 3 /run/tool/output | tr '\n' ' ')"
}

# tells NAME: each line "ACTION PATH" of standard input is owed of that process, as often as it stands there; one with "may"
# in front may come or not. What else comes, of whomever, is wrong.
tells() {
  local pid
  pid=$(cat "/run/tool/$1")
  printf '%s\tnone pid=%s\n' "$1" "$pid" >>$OWED_BY
  sed "/^may /!s/^/done /; s|^\([a-z]* [A-Z][a-z]*\) \([^/]\)|\1 $WATCHED/\2|; s| -> | -> $WATCHED/|
    s|$| actor=* pid=$pid|; s|^|$1\t|" >>$OWED_BY
}

for folder in sed cp install ln rotate truncate vi nano package fifo; do mkdir -p $WATCHED/$folder; done
for file in sed/config cp/over install/over ln/first ln/over rotate/log truncate/log vi/text nano/text; do
  echo "one line" >$WATCHED/$file
done
echo new >/srv/elsewhere/new
ln -s first $WATCHED/ln/old-link

# A package with a folder, a program and a file.
export PATH=$GNU:$PATH
mkdir -p /var/lib/dpkg/info /var/lib/dpkg/updates /var/lib/dpkg/triggers /srv/package/DEBIAN /srv/package$WATCHED/package/share
: >/var/lib/dpkg/status
: >/var/lib/dpkg/available
echo program >/srv/package$WATCHED/package/program
echo data >/srv/package$WATCHED/package/share/data
printf 'Package: small\nVersion: 1\nArchitecture: all\nMaintainer: Nobody <nobody@example.org>\nDescription: small\n' \
  >/srv/package/DEBIAN/control
expect "the package is built" $GNU/dpkg-deb -Zgzip --root-owner-group --build /srv/package /srv/small.deb

write_configuration
extended_coverage false
configure cpu_limit 100
start_configured

work "sed -i" $GNU/sed -i s/one/two/ $WATCHED/sed/config
work "cp to a new name" $GNU/cp /srv/elsewhere/new $WATCHED/cp/new
work "cp over a file" $GNU/cp /srv/elsewhere/new $WATCHED/cp/over
work "install to a new name" $GNU/install -m 0640 /srv/elsewhere/new $WATCHED/install/new
work "install over a file" $GNU/install -m 0640 /srv/elsewhere/new $WATCHED/install/over
work "ln" $GNU/ln $WATCHED/ln/first $WATCHED/ln/second
work "ln -s" $GNU/ln -s first $WATCHED/ln/link
work "ln -sf" $GNU/ln -sf second $WATCHED/ln/old-link
work "rotate: mv" $GNU/mv $WATCHED/rotate/log $WATCHED/rotate/log.1
work "rotate: create" $GNU/install -m 0640 /dev/null $WATCHED/rotate/log
work "copytruncate: cp" $GNU/cp $WATCHED/truncate/log $WATCHED/truncate/log.1
work "copytruncate: empty" sh -c ": >$WATCHED/truncate/log"
work "vi: backup" $GNU/mv $WATCHED/vi/text $WATCHED/vi/text~
work "vi: write" sh -c "echo new >$WATCHED/vi/text"
work "vi: backup goes" $GNU/rm $WATCHED/vi/text~
work "nano" sh -c "echo more >>$WATCHED/nano/text"
work "mkfifo" mkfifo $WATCHED/fifo/pipe
work "dpkg -i" $GNU/dpkg --force-bad-path -i /srv/small.deb
# What is removed within its rest is told as removed alone.
data=$WATCHED/package/share/data
expect "the package's files have rested" wait_for_event Rename "$data.dpkg-new -> $data"
work "dpkg -r" $GNU/dpkg --force-bad-path -r small
wait_for_the_last 120

tells "sed -i" <<END
Delete sed/config
Rename sed/sedXXXXXX -> sed/config
END
tells "cp to a new name" <<END
Create cp/new
END
tells "cp over a file" <<END
Write cp/over
END
# It changes the mode by the descriptor first: that is told where the descriptor is still there when it is looked for.
tells "install to a new name" <<END
Change install/new
may Change install/new
Create install/new
END
tells "install over a file" <<END
Change install/over
may Change install/over
Create install/over
Delete install/over
END
tells "ln" <<END
Create ln/second
END
tells "ln -s" <<END
Create ln/link
END
tells "ln -sf" <<END
Delete ln/old-link
Rename ln/CuXXXXXX -> ln/old-link
END
tells "rotate: mv" <<END
Rename rotate/log -> rotate/log.1
END
tells "rotate: create" <<END
Change rotate/log
may Change rotate/log
Create rotate/log
END
tells "copytruncate: cp" <<END
Create truncate/log.1
END
tells "copytruncate: empty" <<END
Write truncate/log
END
tells "vi: backup" <<END
END
tells "vi: write" <<END
Create vi/text
END
tells "vi: backup goes" <<END
Delete vi/text~
END
tells "nano" <<END
Write nano/text
END
tells "mkfifo" <<END
END
tells "dpkg -i" <<END
may Create package/share.dpkg-new
may Change package/share.dpkg-new
may Change package/share.dpkg-new
Rename package/program.dpkg-new -> package/program
Rename package/share.dpkg-new -> package/share
Rename package/share/data.dpkg-new -> package/share/data
END
# dpkg takes a file for a folder first, and tries the folders above twice: calls that fail are told, too.
tells "dpkg -r" <<END
Delete /srv/watched
Delete /srv/watched
Delete package
Delete package/program
Delete package/program
Delete package/share
Delete package/share/data
Delete package/share/data
END
sed 's|/sed[A-Za-z0-9]\{6\} -> |/sedXXXXXX -> |; s|/Cu[A-Za-z0-9]\{6\} -> |/CuXXXXXX -> |' $LOG/receiver.log >/run/told
judge /run/told
failed() { cat $RECEIVED/* | sed 's/{"successStatus"/\n&/g' | grep '"successStatus":"no"' | grep -cF "\"imagePath\":\"$1\""; }
expect "a folder that is not empty stays" is "$(failed $WATCHED)" 2
expect "a file is no folder" is "$(failed $WATCHED/package/program)" 1
stop_all
