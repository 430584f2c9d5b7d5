# shellcheck shell=dash
# Names that are hard to write down: the kernel quotes some, writes others in hexadecimal digits, and says "(null)" for
# those that it does not know. And paths that their callers wrote in odd ways.
. /scenario/lib.sh

WORK=$WATCHED/work
mkdir -p $WORK

# many TIMES CHARACTER
many() { printf "%0$1d" 0 | sed "s/0/$2/g"; }

NUMBER=0
: >/run/names
# name TEXT NAME: three objects of this name, in folders of their own, each for another call.
name() {
  NUMBER=$((NUMBER + 1))
  for call in open-write chmod unlink; do
    mkdir -p $WORK/$NUMBER/$call
    one-call prepare $call "$WORK/$NUMBER/$call/$2" || fail "$1" "cannot be made"
  done
  mkdir $WORK/$NUMBER/open-create
  eval "TEXT_$NUMBER=\$1 NAME_$NUMBER=\$2"
}

name "a blank" 'with blank'
name "blanks at both ends" ' blanks '
name "a double quote" 'quo"te'
name "single quotes" "'single'"
name "a backslash" 'back\slash'
name "a line break" 'two
lines'
name "a tabulator" 'a	tab'
name "the separator of enriched records" "$(printf 'a\035b')"
name "a byte that is no UTF-8" "$(printf 'no\377utf8')"
name "half a character" "$(printf 'half\303')"
name "UTF-8" 'Grüße'
name "a missing name" '(null)'
name "what looks like fields" 'x" inode=1 name="y'
name "a percent sign" '%s%n%d'
name "wildcards" '*?[a-z]{}'
name "a dash" '-rf'
name "255 bytes" "$(many 255 n)"
name "255 bytes that are no text" "$(many 254 n)$(printf '\001')"
name "127 characters of two bytes" "$(many 127 ü)"

# A path of 4,095 bytes is the longest that a call takes. The watch reaches ten folders down, so it begins at a long path.
DEEP_ROOT=/srv/deep
while [ ${#DEEP_ROOT} -lt 1900 ]; do DEEP_ROOT=$DEEP_ROOT/$(many 240 d); done
DEEP=$DEEP_ROOT
while [ ${#DEEP} -lt 3830 ]; do DEEP=$DEEP/$(many 240 d); done
mkdir -p "$DEEP"
LONGEST=$(many $((4095 - ${#DEEP} - 1)) l)
for call in open-write chmod unlink rmdir; do one-call prepare $call "$DEEP/$call"; done
one-call prepare open-write "$DEEP/$LONGEST" || fail "the longest path" "cannot be made"
one-call prepare chmod "$DEEP/bl ank" || fail "the longest path" "cannot be made"

mkdir -p "$WORK/(null)/(null)" $WORK/detour/in
one-call prepare unlink "$WORK/(null)/(null)/file"
one-call prepare rename "$WORK/(null)/file"
for call in rmdir rename-folder chmod-folder unlinkat-folder fchmodat; do
  for form in absolute working-folder open-folder; do one-call prepare $call $WORK/$call.$form; done
done
for name in open-write unlink chmod; do one-call prepare $name $WORK/detour/$name; done
mkdir $WORK/real
ln -s real $WORK/link-to-folder
one-call prepare chmod $WORK/real/file
one-call prepare link $WORK/link-of-link
rm $WORK/link-of-link-2
ln -s nowhere $WORK/link-of-link-2

write_configuration
sed -i "s|\"rules\": \[|&\n{\"ruleId\": \"5f0c6a3e-7f5d-4a53-9a0e-2b6d7f1c0a03\", \"ruleType\": \"directory\", \"imagePath\": \"$DEEP_ROOT\",\n\"recursiveDepth\": \"all\", \"notify\": [\"create\", \"delete\", \"rename\", \"modifyContent\", \"modifySecuritySettings\"]},|" $CONF/fim-manifest.json
start_configured

i=0
while [ $i -lt $NUMBER ]; do
  i=$((i + 1))
  eval "text=\$TEXT_$i name=\$NAME_$i"
  once "$text, absolute" open-write "$WORK/$i/open-write/$name"
  once "$text, created" open-create "$WORK/$i/open-create/$name"
  once "$text, from the working folder" --chdir $WORK/$i/chmod chmod "$name"
  once "$text, deleted from the folder above" --chdir $WORK/$i unlink "unlink/$name"
done

once "the longest path, written to" open-write "$DEEP/$LONGEST"
once "a deep path, created" open-create "$DEEP/created"
once "a deep working folder" --chdir "$DEEP" open-write open-write
once "a deep open folder" --dirfd "$DEEP" unlinkat unlink
once "a deep path, changed" chmod "$DEEP/chmod"
once "a deep path with a blank" --chdir "$DEEP" chmod "bl ank"
once "a deep path, removed" rmdir "$DEEP/rmdir"

once "folders called (null)" --chdir "$WORK/(null)" unlink "(null)/file"
once "a folder called (null), renamed in" --chdir "$WORK/(null)" rename file '(null)-2'

for form in absolute working-folder open-folder; do
  case $form in
    absolute) set -- $WORK/ ;;
    working-folder) set -- "" --chdir $WORK ;;
    open-folder) set -- "" --dirfd $WORK ;;
  esac
  prefix=$1
  shift
  if [ $form != open-folder ]; then
    once "rmdir of a name with a slash behind it, $form" "$@" rmdir "${prefix}rmdir.$form/"
    once "rename of names with slashes behind them, $form" "$@" rename-folder "${prefix}rename-folder.$form/" "${prefix}renamed.$form/"
    once "chmod of a name with slashes behind it, $form" "$@" chmod-folder "${prefix}chmod-folder.$form//"
  fi
  once "unlinkat of a folder with a slash behind it, $form" "$@" unlinkat-folder "${prefix}unlinkat-folder.$form/"
  once "mkdirat with a slash behind the name, $form" "$@" mkdirat "${prefix}mkdirat.$form/"
done

# owed_as LABEL PATH REQUEST...: as once, but the path is another one than the caller wrote.
owed_as() {
  local label=$1 path=$2
  shift 2
  once "$label" "$@"
  sed -i "/^$label\\t/s|\\tdone \\([A-Z][a-z]*\\) .* actor=|\\tdone \\1 $path actor=|" $OWED_BY
}
owed_as "a detour" $WORK/detour/open-write open-write $WORK/./detour//in/../open-write
owed_as "a detour from the working folder" $WORK/detour/unlink --chdir $WORK/detour/in unlink ../unlink
once "a way through a link" chmod $WORK/link-to-folder/file
owed_as "a link with a slash behind it" $WORK/real chmod-folder $WORK/link-to-folder/
once "a link of a symbolic link" link $WORK/link-of-link

wait_for_the_last 120
judge
stop_all
