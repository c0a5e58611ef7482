#!/usr/bin/env bash
# Installs the Debian packages the build needs, once; safe to run again.
set -euo pipefail
packages=(build-essential cmake pkg-config libicu-dev nlohmann-json3-dev
          libgtest-dev libgmock-dev libbenchmark-dev clang libclang-rt-14-dev valgrind)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then sudo=(); else sudo=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
