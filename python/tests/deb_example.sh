#!/usr/bin/env bash
# The python3-tqble package, made by CPack from the build and extracted into a scratch
# root, runs the README's example with Debian's python3 and nothing from the build tree.
# usage: deb_example.sh <build-dir> <work-dir> <example>
set -euo pipefail
build=$1 work=$2 example=$3
rm -rf "$work" && mkdir -p "$work"
# The sanitizer runtime preloaded for python3 stays out of CPack and its tools.
env -u LD_PRELOAD cpack --config "$build/CPackConfig.cmake" -B "$work/debs" -D CPACK_COMPONENTS_ALL=python >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; exit 1; }
dpkg-deb -x "$work"/debs/python3-tqble_*.deb "$work/root"
[ -f "$work/root/usr/share/doc/python3-tqble/examples/$(basename "$example")" ]
# -I: no PYTHONPATH, no user site; only the extracted dist-packages is added.
cd "$work" && /usr/bin/python3 -I -c "import sys; sys.path.insert(0, '$work/root/usr/lib/python3/dist-packages')
import tqble; assert tqble.__file__.startswith('$work/root'), tqble.__file__
exec(open('$example').read())"
