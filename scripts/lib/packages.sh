# shellcheck shell=bash
# The one list of Debian packages that the project stands on. Source after common.sh.

# What the daemon and the tools are built from.
PACKAGES=(
  build-essential cmake ninja-build ccache mold pkg-config git
  libaudit-dev libauparse-dev libcurl4-openssl-dev libssl-dev liblzma-dev libmagic-dev libpoco-dev libproxy-dev libsqlite3-dev
  libprotobuf-dev libnats-dev protobuf-compiler rapidjson-dev libjs-d3 libgtest-dev libgmock-dev libbenchmark-dev
  clang-format clang-tidy
)
# What boots a real kernel around them.
PACKAGES+=(qemu-system-x86 busybox-static cpio zstd libmagic-mgc e2fsprogs btrfs-progs rsync)
# What stands around the daemon in tests: proxies, an agent and a platform in another language, and what checks them.
PACKAGES+=(tinyproxy-bin squid-openssl openssl python3 xz-utils)
# What makes the package and its manual pages, judges it, and makes a fresh Debian to install it in.
PACKAGES+=(debhelper pandoc lintian debootstrap)
# The engine and the balancer of a fleet, which tests start by themselves on loopback.
PACKAGES+=(nats-server haproxy)
# What opens the receiver's page as a person does.
PACKAGES+=(chromium chromium-driver python3-selenium fonts-dejavu-core)
# What counts instructions for the benchmarks.
PACKAGES+=(valgrind)

# missing_packages: the names of the list that are not installed, one a line.
missing_packages() {
  local package
  for package in "${PACKAGES[@]}"; do
    # Not known at all, removed and half installed are all missing.
    if [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then echo "$package"; fi
  done
}

# ensure_packages: installs what is missing. Asks no network when nothing is; without root it prints what to run
# and fails.
ensure_packages() {
  local missing
  mapfile -t missing < <(missing_packages)
  if ((${#missing[@]} == 0)); then return 0; fi
  if ((EUID != 0)); then
    echo "Missing packages. Run as root:" >&2
    echo "  apt-get update && apt-get install -y --no-install-recommends ${missing[*]}" >&2
    return 1
  fi
  progress "installing ${#missing[@]} packages: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  quietly "$ROOT/build/setup.log" apt-get update || return
  quietly "$ROOT/build/setup.log" apt-get install -y --no-install-recommends "${missing[@]}"
}
