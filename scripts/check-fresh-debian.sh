#!/usr/bin/env bash
# The README's commands on a fresh minimal Debian 12 that holds nothing but a clean clone of
# this repository (the committed HEAD): once as root, once as a user with sudo who types
# the password on a terminal. Each run starts from a new copy of a debootstrap
# --variant=minbase bookworm root, cached in build-fresh/. Prints the wall time of each
# step. Needs root on the host, debootstrap and the network. MIRROR picks the Debian mirror.
# Two whole builds from nothing take about half an hour on a busy 2-core machine (a quarter
# of an hour at best), which is why CI does not run it: `make check-fresh` does.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
cache=$repo/build-fresh
mirror=${MIRROR:-http://deb.debian.org/debian}
[ "$(id -u)" -eq 0 ] || { echo "check-fresh: needs root (chroot and mounts)" >&2; exit 1; }
command -v debootstrap >/dev/null || { echo "check-fresh: needs debootstrap" >&2; exit 1; }
mkdir -p "$cache/archives"

mounts=()
cleanup() {  # every mount made below, on every way out
  local i
  for ((i = ${#mounts[@]} - 1; i >= 0; i--)); do
    umount -R "${mounts[i]}" 2>/dev/null || umount -lR "${mounts[i]}" 2>/dev/null || true
  done
  mounts=()
}
trap cleanup EXIT
trap 'exit 130' INT TERM

timed() {  # timed <label> <command...>: runs it, prints its wall time; output in a log
  local start log=$cache/$run.log
  start=$(date +%s)
  echo "== $1" >>"$log"
  if ! "${@:2}" >>"$log" 2>&1; then
    echo "check-fresh: $run: '$1' failed; the end of $log:" >&2
    tail -n 40 "$log" >&2
    exit 1
  fi
  printf 'check-fresh: %-5s %-36s %5d s\n' "$run" "$1" $(($(date +%s) - start))
}

if [ ! -e "$cache/base/etc/debian_version" ]; then
  rm -rf "$cache/base.tmp"
  run=base
  timed "debootstrap --variant=minbase" \
    debootstrap --variant=minbase bookworm "$cache/base.tmp" "$mirror"
  mv "$cache/base.tmp" "$cache/base"
fi

fresh_root() {  # fresh_root <name>: a new copy of the base root with the clone and mounts
  root=$cache/$1
  rm -rf "$root"
  cp -a "$cache/base" "$root"
  cp /etc/resolv.conf /etc/hosts "$root/etc/"
  mount -t proc proc "$root/proc" && mounts+=("$root/proc")
  mount --rbind /dev "$root/dev" && mounts+=("$root/dev")
  mount --make-rslave "$root/dev"
  # Downloaded packages are kept between runs; what is installed is not.
  mount --bind "$cache/archives" "$root/var/cache/apt/archives" && mounts+=("$root/var/cache/apt/archives")
  clone=$2
  git clone -q --no-checkout "$repo" "$root$clone"
  git -C "$root$clone" checkout -q "$(git -C "$repo" rev-parse HEAD)"
}
in_root() {  # in_root <user> <shell command>
  local user=$1 home=/root
  [ "$user" = root ] || home=/home/$user
  chroot --userspec="$user:$user" "$root" /usr/bin/env -i HOME="$home" USER="$user" \
    PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin LANG=C.UTF-8 TERM=dumb \
    bash -c "cd ~/tqble && $2"
}

echo "check-fresh: logs in $cache/<run>.log"
# As root: the README's lines as they stand.
run=root
fresh_root root /root/tqble
: >"$cache/root.log"
timed "./scripts/setup.sh" in_root root ./scripts/setup.sh
timed "make demo" in_root root "make demo"
timed "make test" in_root root "make test"
cleanup

# As a user with sudo: setup asks for the password once, on a terminal (script gives it
# one; the password is typed after the prompt appears), then the two commands.
run=user
fresh_root user /home/dev/tqble
: >"$cache/user.log"
timed "(prepare) useradd dev" chroot "$root" useradd -m -s /bin/bash dev
chown -R 1000:1000 "$root/home/dev"
says() {  # says <text> <shell command>: the command fails and its error output holds text
  local err
  if err=$(in_root dev "$2" 2>&1 >/dev/null); then echo "'$2' succeeded" >&2; return 1; fi
  grep -qF "$1" <<<"$err" || { echo "'$2' said: $err" >&2; return 1; }
}
timed "./scripts/setup.sh without sudo fails" says "sudo is not installed" "./scripts/setup.sh"
timed "(prepare) apt-get install sudo" chroot "$root" bash -c '
  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq sudo >/dev/null &&
  echo dev:fresh-secret | chpasswd && adduser -q dev sudo'
timed "./scripts/setup.sh without a tty fails" says "no terminal to ask for it" "./scripts/setup.sh </dev/null"
prompts() {
  (sleep 5; echo fresh-secret) |
    in_root dev "script -qfec ./scripts/setup.sh /dev/null" | tee "$cache/user.tty"
  n=$(grep -c 'password for dev' "$cache/user.tty" || true)
  [ "$n" = 1 ] || { echo "asked for the password $n times" >&2; return 1; }
}
timed "./scripts/setup.sh (password once)" prompts
timed "make demo" in_root dev "make demo"
timed "make test" in_root dev "make test"
cleanup
echo "check-fresh: passed"
