# shellcheck shell=bash
# A guest with a real kernel: Debian's cloud kernel in QEMU's software emulation, on an initramfs with busybox, the
# programs of one build folder and the libraries they need. No disk unless one is asked for, no root file system, no KVM,
# nothing installed.
# Source after common.sh.

GUEST_CACHE="$ROOT/build/guest"

# What the guest finds in /usr/local/bin, as far as the build folder has it.
GUEST_PROGRAMS=(ostrel-edr reference-agent reference-receiver file-actor event-load one-call process-actor audit-recorder audit-rules
  lose-consumer kernel_rules_guest_test power-cut spool-victim process-watcher sql_crash)

# The real tools of this machine, which work otherwise than busybox' applets: in /usr/local/gnu of the guest.
GUEST_TOOLS=(rm tar cp find chmod chown mv sed ln install dash dpkg dpkg-deb dpkg-split)

# Debian's audit daemon and a plugin of it, for scenarios that ask for them. Installed, it would take over this
# machine's audit.
GUEST_AUDITD_PACKAGES=(auditd libwrap0 laurel)
GUEST_AUDITD_PROGRAMS=(sbin/auditd sbin/auditctl usr/sbin/laurel)

# Modules of its kernel, in /scenario/modules: disks in memory, one that records its writes, an overlay, btrfs with what it
# stands on, and a network card.
GUEST_MODULES=(drivers/block/brd.ko drivers/md/dm-mod.ko drivers/md/dm-log-writes.ko fs/overlayfs/overlay.ko
  lib/libcrc32c.ko lib/raid6/raid6_pq.ko crypto/xor.ko crypto/blake2b_generic.ko crypto/xxhash_generic.ko
  lib/zstd/zstd_compress.ko fs/btrfs/btrfs.ko drivers/net/vmxnet3/vmxnet3.ko)

# The targets of them that a demonstration needs.
DEMO_TARGETS=(ostrel-edr reference-agent reference-receiver file_actor audit_rules_list)

# The kernels that scenarios run on, and the suites of Debian that they come from.
declare -A GUEST_SUITES=([5.10]=bullseye [6.1]=bookworm [6.12]=trixie)
GUEST_KERNEL=${OSTREL_GUEST_KERNEL:-6.1}

# guest_choose_kernel VERSION: from here on guests run on it.
guest_choose_kernel() {
  [[ -n ${GUEST_SUITES[$1]:-} ]] || die "no such kernel: $1 (there are: $(printf '%s\n' "${!GUEST_SUITES[@]}" | sort -V | tr '\n' ' '))"
  GUEST_KERNEL=$1
}

# guest_kernel: prints the path of a kernel image. Downloads its package when no kernel is cached; the package is
# unpacked, never installed. A cached kernel that is not the newest is as real as that one: stay off the network.
guest_kernel() {
  mkdir -p "$GUEST_CACHE/kernel"
  (
    flock 9
    folder=
    for cached in $(ls -td "$GUEST_CACHE/kernel/linux-image-$GUEST_KERNEL".*/modules 2>/dev/null); do
      if guest_has_modules "${cached%/modules}"; then folder=${cached%/modules} && break; fi
    done
    if [[ -z $folder ]]; then folder=$(guest_download_kernel) || exit 1; fi
    printf '%s\n' "${folder%/}/vmlinuz"
  ) 9>"$GUEST_CACHE/kernel.lock"
}

# guest_has_modules FOLDER: it holds a kernel with all modules that scenarios load, but for those that are built in.
guest_has_modules() {
  local module name
  for module in "${GUEST_MODULES[@]}"; do
    name=$(basename "$module" .ko)
    [[ -e $1/modules/$name.ko || -e $1/modules/$name.builtin ]] || return 1
  done
}

# guest_apt PROGRAM ARGUMENT...: apt-get or apt-cache with folders of the project's own, which know the kernel's suite and
# nothing else. What this machine's apt knows and does stays as it is.
guest_apt() {
  local folder="$GUEST_CACHE/apt/${GUEST_SUITES[$GUEST_KERNEL]}" program="$1"
  shift
  "$program" -o Dir::Etc::SourceList="$folder/sources.list" -o Dir::Etc::SourceParts=/dev/null -o Dir::State="$folder" \
    -o Dir::State::Lists="$folder/lists" -o Dir::State::status="$folder/status" -o Dir::Cache="$folder/cache" \
    -o APT::Sandbox::User=root -o Acquire::Languages=none -o APT::Update::Post-Invoke-Success= "$@"
}

# guest_site SUITE: where this machine gets packages of the suite from, as far as it gets any.
guest_site() {
  local site
  site=$(apt-get indextargets --format '$(SITE) $(RELEASE)' 'Created-By: Packages' |
    awk -v suite="$1" '$2 == suite { print $1; exit }')
  echo "${site:-$2}"
}

# guest_update: the lists of the kernel's suite.
guest_update() {
  local suite=${GUEST_SUITES[$GUEST_KERNEL]} own site signed="[signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]"
  local folder="$GUEST_CACHE/apt/$suite"
  own=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
  mkdir -p "$folder"/{lists/partial,cache/archives/partial}
  : >"$folder/status"
  site=$(guest_site "$own" http://deb.debian.org/debian)
  printf 'deb %s %s %s main\n' "$signed" "$site" "$suite" "$signed" \
    "$(guest_site "$own-security" http://deb.debian.org/debian-security)" "$suite-security" >"$folder/sources.list"
  guest_apt apt-get -qq update >&2
}

# The package that linux-image-cloud-amd64 stands for in the kernel's suite; nothing without package lists.
guest_kernel_package() {
  guest_apt apt-cache depends linux-image-cloud-amd64 2>/dev/null | sed -n 's/^ *Depends: \(linux-image-.*\)/\1/p' | head -n 1
}

# guest_download FOLDER NAME COMMAND: downloads the packages that COMMAND prints, a word each, into the folder.
guest_download() {
  local folder="$1" name="$2" command="$3" packages try
  for try in 1 2; do
    packages=$("$command")
    # The second try is for package lists that are missing or older than the archive.
    # shellcheck disable=SC2086 # a word each
    if [[ -n $packages ]] && (cd "$folder" && apt-get -qq -o APT::Sandbox::User=root download $packages) >&2; then
      return 0
    elif ((try == 2 || EUID != 0)); then
      echo "Cannot download ${packages:-$name}: run 'apt-get update' as root and try again." >&2
      return 1
    fi
    apt-get -qq update >&2
  done
}

guest_download_kernel() {
  local scratch folder module package
  scratch=$(mktemp -d "$GUEST_CACHE/download.XXXXXX")
  progress "downloading the guest's kernel $GUEST_KERNEL" >&2
  { guest_update && package=$(guest_kernel_package) && [[ -n $package ]] &&
    (cd "$scratch" && guest_apt apt-get -qq download "$package" >&2); } || {
    echo "Cannot download a kernel $GUEST_KERNEL of Debian's ${GUEST_SUITES[$GUEST_KERNEL]}" >&2
    rm -r "$scratch"
    return 1
  }
  dpkg-deb -x "$scratch"/*.deb "$scratch/files" || return
  folder="$GUEST_CACHE/kernel/$(dpkg-deb -W --showformat='${Package}_${Version}' "$scratch"/*.deb)"
  mkdir -p "$folder" "$scratch/modules"
  for module in "${GUEST_MODULES[@]}"; do
    guest_take_module "$scratch/files" "$module" "$scratch/modules" || return
  done
  mv "$scratch"/files/boot/vmlinuz-* "$folder/vmlinuz"
  # The last thing to come: a folder that has it has everything.
  rm -rf "$folder/modules"
  mv "$scratch/modules" "$folder/modules"
  rm -r "$scratch"
  printf '%s\n' "$folder"
}

# guest_take_module FILES MODULE FOLDER: the module of an unpacked kernel, uncompressed; an empty NAME.builtin for one that
# is part of the kernel.
guest_take_module() {
  local lib name found
  name=$(basename "$2" .ko)
  for lib in "$1"/lib/modules/* "$1"/usr/lib/modules/*; do
    found="$lib/kernel/$2"
    if [[ -e $found ]]; then
      cp "$found" "$3/$name.ko"
    elif [[ -e $found.xz ]]; then
      xz -dc "$found.xz" >"$3/$name.ko"
    elif grep -qsxF "kernel/$2" "$lib/modules.builtin"; then
      : >"$3/$name.builtin"
    else
      continue
    fi
    return
  done
  echo "The kernel has no module $2" >&2
  return 1
}

guest_auditd_packages() { echo "${GUEST_AUDITD_PACKAGES[@]}"; }
guest_sudo_packages() { echo sudo; }

# guest_unpacked NAME FILE: prints the folder in which the packages of guest_NAME_packages are unpacked, and with them the
# file; downloads them once.
guest_unpacked() {
  local folder="$GUEST_CACHE/$1" scratch package
  mkdir -p "$GUEST_CACHE"
  (
    flock 9
    if [[ -e $folder/$2 ]]; then exit 0; fi
    rm -rf "$folder"
    scratch=$(mktemp -d "$GUEST_CACHE/download.XXXXXX")
    progress "downloading the guest's $1" >&2
    guest_download "$scratch" "$1" "guest_$1_packages" || { rm -r "$scratch" && exit 1; }
    for package in "$scratch"/*.deb; do dpkg-deb -x "$package" "$scratch/root" || exit 1; done
    mv "$scratch/root" "$folder"
    rm -r "$scratch"
  ) 9>"$GUEST_CACHE/$1.lock" || return
  printf '%s\n' "$folder"
}

# guest_add_tools TREE TOOL...: further tools of this machine, in /usr/local/gnu of the guest.
guest_add_tools() {
  local tree="$1" tool programs=()
  shift
  for tool; do programs+=("$(PATH="$PATH:/usr/sbin:/sbin" type -P "$tool")"); done
  guest_add_programs "$tree" /usr/local/gnu "${programs[@]}"
}

# guest_add_auditd TREE: the audit daemon and its tool, in /usr/local/bin of the guest.
guest_add_auditd() {
  local tree="$1" root programs
  root=$(guest_unpacked auditd usr/sbin/laurel) || return
  programs=("${GUEST_AUDITD_PROGRAMS[@]/#/$root/}")
  LD_LIBRARY_PATH="$root/lib/x86_64-linux-gnu:$root/usr/lib/x86_64-linux-gnu" \
    guest_add_programs "$tree" /usr/local/bin "${programs[@]}" || return
  guest_settle_libraries "$tree" "$root"
}

# guest_add_sudo TREE: sudo with its plugin, where Debian has them, and a module of PAM that asks nobody anything. Whom it
# trusts is left to the scenario: /etc/sudoers and /etc/pam.d/sudo.
guest_add_sudo() {
  local tree="$1" root modules=/lib/x86_64-linux-gnu/security
  root=$(guest_unpacked sudo usr/bin/sudo) || return
  {
    LD_LIBRARY_PATH="$root/usr/libexec/sudo" guest_add_programs "$tree" /usr/bin "$root/usr/bin/sudo" &&
      LD_LIBRARY_PATH="$root/usr/libexec/sudo" guest_add_programs "$tree" /usr/libexec/sudo "$root/usr/libexec/sudo/sudoers.so" &&
      guest_add_programs "$tree" $modules $modules/pam_permit.so
  } || return
  guest_settle_libraries "$tree" "$root"
  chmod 4755 "$tree/usr/bin/sudo"
}

# guest_settle_libraries TREE ROOT: libraries that are not installed here were found below ROOT; in the guest they lie where
# its loader looks.
guest_settle_libraries() {
  if [[ -e $1$2 ]]; then
    cp -r "$1$2/." "$1/"
    rm -r "$1${2:?}"
  fi
}

# guest_image BIN: prints the path of an initramfs with the programs of the build folder BIN; makes it again only when
# one of its ingredients is newer. Several callers may ask at the same time.
guest_image() {
  local bin="$1" image
  image="$(dirname "$bin")/guest/base.cpio"
  mkdir -p "$(dirname "$image")"
  (
    flock 9
    if guest_image_is_stale "$bin" "$image"; then guest_make_image "$bin" "$image" || exit 1; fi
    printf '%s\n' "$image"
  ) 9>"$image.lock"
}

guest_image_is_stale() {
  local bin="$1" image="$2" program
  [[ -e $image ]] || return 0
  for program in "${GUEST_PROGRAMS[@]}"; do
    if [[ $bin/$program -nt $image ]]; then return 0; fi
  done
  [[ -n $(find "$ROOT/examples" "$ROOT/tests/vm/root" "$ROOT/scripts/lib/guest.sh" -newer "$image" -print -quit) ]]
}

guest_make_image() {
  local bin="$1" image="$2" tree program programs=() tools=()
  for program in "${GUEST_PROGRAMS[@]}"; do
    if [[ -x $bin/$program ]]; then programs+=("$bin/$program"); fi
  done
  if ((${#programs[@]} == 0)); then
    echo "No programs for the guest in $bin: build them first." >&2
    return 1
  fi
  for program in "${GUEST_TOOLS[@]}"; do tools+=("$(type -P "$program")"); done
  programs+=("$(PATH="$PATH:/usr/sbin:/sbin" type -P mke2fs)")
  tree=$(mktemp -d "$image.XXXXXX")
  {
    mkdir -p "$tree"/{bin,dev,proc,sys,etc/ostrel/host-warden,root,srv,tmp,run,usr/local/bin,var/lib/ostrel,var/log/ostrel} &&
      ln -s ../run "$tree/var/run" &&
      chmod 1777 "$tree/tmp" &&
      cp /bin/busybox "$tree/bin/busybox" &&
      guest_add_programs "$tree" /usr/local/bin "${programs[@]}" &&
      guest_add_programs "$tree" /usr/local/gnu "${tools[@]}" &&
      cp -r "$ROOT/tests/vm/root/." "$tree/" &&
      cp -r "$ROOT/examples" "$tree/examples" &&
      cp -L /usr/lib/file/magic.mgc "$tree/etc/ostrel/host-warden/magic.mgc" &&
      (cd "$tree" && guest_pack) >"$image.new"
  } || { rm -r "$tree" && return 1; }
  rm -r "$tree"
  mv "$image.new" "$image"
}

# guest_add_programs TREE FOLDER PROGRAM...: programs without their debug information, and every library that the loader would open for them.
guest_add_programs() {
  local tree="$1" folder="$2" program library
  shift 2
  mkdir -p "$tree$folder"
  for program; do
    strip --strip-debug -o "$tree$folder/$(basename "$program")" "$program" || return
    chmod 0755 "$tree$folder/$(basename "$program")" || return
  done
  if ldd "$@" 2>/dev/null | grep 'not found' >&2; then return 1; fi
  while read -r library; do
    { mkdir -p "$tree$(dirname "$library")" && cp -L "$library" "$tree$library"; } || return
  done < <(ldd "$@" 2>/dev/null | grep -o '/[^ ]*\.so[^ ]*' | grep -v ':$' | sort -u)
}

# guest_pack: the folder that it is called in as one archive of an initramfs, on standard output.
guest_pack() { find . -print0 | cpio --null --create --format=newc --owner=0:0 --quiet; }

# The processors of a guest, for qemu. In virtual time there is one, whose clock counts its instructions, two
# nanoseconds each, and jumps to the next timer when there is nothing to do: an idle hour passes in seconds, and what
# something costs does not depend on what else this machine does.
GUEST_PROCESSORS=(-smp 2)
GUEST_VIRTUAL_TIME=(-smp 1 -icount "shift=1,sleep=off" -rtc clock=vm)

# The network of a guest, for qemu: none. guest_page PORT: a network card that leads nowhere; what comes to this port of
# the machine's loopback goes to port 8080 of the guest.
GUEST_NETWORK=(-net none)
guest_page() {
  GUEST_NETWORK=(-nic "user,model=vmxnet3,restrict=on,ipv6=off,hostfwd=tcp:127.0.0.1:$1-10.0.2.15:8080")
}

# The disk of a guest, for qemu: none. guest_disk FILE MEGABYTES: an empty one, /dev/nvme0n1, which lies in the file and so
# outlives a guest.
GUEST_DISK=()
guest_disk() {
  rm -f "$1"
  truncate -s "$2M" "$1"
  GUEST_DISK=(-drive "if=none,id=disk,format=raw,file=$1" -device "nvme,serial=disk,drive=disk")
}

# guest_boot SECONDS PLACE [WORD...]: boots PLACE/initrd with the console on this terminal and, as a copy, in
# PLACE/console; what the guest writes to its second serial line goes to PLACE/files.tar. Ends when the guest powers
# off or the time is over (code 124; 0 seconds are no limit). The words end up in the guest's /proc/cmdline. The kernel
# trusts its timer: one whose first ticks a busy machine emulates late is not broken, which it would panic about.
guest_boot() {
  local seconds="$1" place="$2" kernel
  shift 2
  # Two emulated processors are what this one panics about most.
  if [[ $GUEST_KERNEL == 6.12 && ${GUEST_PROCESSORS[0]} == -smp ]]; then GUEST_PROCESSORS[1]=1; fi
  kernel=$(guest_kernel) || return
  # Ends with the script that boots it, in whatever way that one ends.
  setpriv --pdeathsig TERM timeout --foreground --kill-after=5 "$seconds" \
    qemu-system-x86_64 -accel tcg -cpu max -m "${GUEST_MEMORY:-1024}" "${GUEST_PROCESSORS[@]}" -display none -no-reboot \
    "${GUEST_NETWORK[@]}" "${GUEST_DISK[@]}" \
    -chardev "stdio,id=console,signal=off,logfile=$place/console" -serial chardev:console \
    -serial "file:$place/files.tar" -kernel "$kernel" -initrd "$place/initrd" \
    -append "console=ttyS0 quiet audit=1 panic=-1 no_timer_check rdinit=/init $*"
}

# guest_died_of_emulation PLACE: the kernel ended as 6.12 now and then does in the emulation of its first ten seconds,
# whatever runs in it: by a double fault in one of two functions.
guest_died_of_emulation() {
  [[ $GUEST_KERNEL == 6.12 ]] && ! grep -q '^PASS \|^FAIL ' "$1/console" && awk '
    /double fault/ { is_fault = 1 }
    is_fault && match($0, /\[ *[0-9]+\.[0-9]+\].* RIP: [0-9a-f]+:/) {
      second = substr($0, RSTART + 1) + 0
      is_known = second < 10 && substr($0, RSTART + RLENGTH) ~ /^(__kmalloc_noprof|do_sync_core)\+/
      exit
    }
    END { exit !is_known }' "$1/console"
}

# guest_add_file TREE FILE[:PATH]: a file of this machine in the guest, at the path or under its own name in
# /usr/local/bin; a program without its debug information, and with its libraries.
guest_add_file() {
  local tree="$1" file="${2%%:*}" path
  path=/usr/local/bin/$(basename "$file")
  if [[ $2 == *:* ]]; then path=${2#*:}; fi
  [[ -f $file ]] || die "--add: no such file: $file"
  [[ $path == /* ]] || die "--add: no absolute path: $path"
  mkdir -p "$tree$(dirname "$path")"
  if [[ $(head -c 4 "$file" | tail -c 3) == ELF ]]; then
    local scratch="$tree/.added"
    guest_add_programs "$tree" /.added "$file" || return
    mv "$scratch/$(basename "$file")" "$tree$path"
    rmdir "$scratch"
  else
    cp -L --preserve=mode "$file" "$tree$path"
  fi
}
