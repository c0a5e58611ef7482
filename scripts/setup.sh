#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, and any named as arguments,
# once; safe to run again.
# As root it calls apt-get directly, otherwise through sudo (asking for the password
# once, on the terminal). apt's own output goes to build/setup.log.
set -euo pipefail
cd "$(dirname "$0")/.."

# Everything the project needs from Debian 12, one package per word.
packages=(
  make build-essential cmake pkg-config file
  libicu-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libsdbus-c++-dev libsystemd-dev dbus python3-dbusmock python3-bleak libglib2.0-dev
  libmosquitto-dev libtomlplusplus-dev mosquitto mosquitto-clients
  clang libclang-rt-14-dev valgrind tshark
  python3-dev pybind11-dev python3-pybind11 python3-pytest python3-pytest-asyncio
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

fail() { echo "setup: $*" >&2; exit 1; }
sudo=()
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null ||
    fail "sudo is not installed: run ./scripts/setup.sh once as root (or install sudo)"
  if ! sudo -n true 2>/dev/null; then
    # A password is needed: ask for it now, once, before anything is printed.
    if [ -t 0 ] && [ -t 2 ]; then
      sudo -v || fail "sudo refused; run ./scripts/setup.sh as root instead"
    else
      fail "sudo needs a password and there is no terminal to ask for it:" \
           "run ./scripts/setup.sh in a terminal, or as root"
    fi
  fi
  sudo=(sudo)
fi

mkdir -p build
log=$PWD/build/setup.log
echo "setup: installing ${missing[*]}"
apt() {
  "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 -y "$@" \
    >>"$log" 2>&1
}
: >"$log"
if ! apt update || ! apt install --no-install-recommends "${missing[@]}"; then
  echo "setup: apt-get failed; its output is in $log, ending with:" >&2
  tail -n 15 "$log" >&2
  exit 1
fi
echo "setup: done, ${#missing[@]} packages installed (apt-get output in $log)"
