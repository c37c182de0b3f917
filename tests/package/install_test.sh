#!/usr/bin/env bash
# Installs a build to a temporary prefix and builds examples/ against it twice, through the
# CMake package (find_package) and through pkg-config, then runs both programs on one fresh
# store: the first creates the group and its parameters, the second finds them. Also checks
# that the README shows that same program.
# With the Python package built, also imports the installed package and runs an experiment
# from Python, and checks that a local install (prefix /usr/local) lands where Debian's Python
# looks.
#   install_test.sh BUILD_DIR SOURCE_DIR CMAKE GENERATOR CXX LIBDIR [SANITIZERS [PYDIR PYTHON]]
# With SANITIZERS (the build's -fsanitize list) the example is compiled with them too: the
# installed static libraries are instrumented and need the sanitizer runtime at link.
set -euo pipefail
build=$1 source=$2 cmake=$3 generator=$4 cxx=$5 libdir=$6 sanitize=${7:-} pydir=${8:-} python=${9:-}

# The README shows the example program whole: the two must not drift apart.
if ! diff <(awk '/^## A user.s program/{s=1} s&&/^```$/{exit} s==2{print} s&&/^```cpp$/{s=2}' \
              "$source/README.md") "$source/examples/rabi_scan.cpp"; then
  echo "FAILED: README's \"A user's program\" differs from examples/rabi_scan.cpp"; exit 1
fi

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
flags=""
if [ -n "$sanitize" ]; then
  flags="-fsanitize=$sanitize -fno-omit-frame-pointer"
fi

# Runs a step with its output kept aside, shown only when it fails.
quiet() {
  "$@" >"$tmp/step.log" 2>&1 || { echo "FAILED: $*"; cat "$tmp/step.log"; exit 1; }
}

quiet "$cmake" --install "$build" --prefix "$tmp/prefix"
quiet "$cmake" -S "$source/examples" -B "$tmp/by-cmake" -G "$generator" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_PREFIX_PATH="$tmp/prefix"
quiet "$cmake" --build "$tmp/by-cmake"

export PKG_CONFIG_PATH="$tmp/prefix/$libdir/pkgconfig"
# shellcheck disable=SC2046,SC2086  # the flags are lists of words
quiet "$cxx" -std=c++20 -O1 $flags -o "$tmp/by-pkg-config" "$source/examples/rabi_scan.cpp" \
  $(pkg-config --cflags --libs korvalin_embedded)

unset KORVALIN_SERVICE_URL KORVALIN_TOKEN
export KORVALIN_STORAGE_DIR="$tmp/store" KORVALIN_CACHE_DIR="$tmp/cache"
for program in "$tmp/by-cmake/rabi_scan" "$tmp/by-pkg-config"; do
  if ! "$program" >"$tmp/out.txt" 2>&1; then
    echo "FAILED: $program"; cat "$tmp/out.txt"; exit 1
  fi
  cat "$tmp/out.txt"
  grep -q "^4 items, finished$" "$tmp/out.txt"
  grep -q "^experiment [0-9]*: 4 of 4 items$" "$tmp/out.txt"
done
echo "package: installed, built with find_package and with pkg-config, both ran"

if [ -n "$pydir" ]; then
  if ! "$python" -c 'import sys; sys.exit("/usr/local/'"$pydir"'" not in sys.path)'; then
    echo "FAILED: /usr/local/$pydir is not on the path of $python"; exit 1
  fi
  # From the installed package only: nothing of the build tree on the path.
  (cd "$tmp" && PYTHONPATH="$tmp/prefix/$pydir" quiet "$python" -c '
import korvalin_client
from korvalin_client.group.cloud_group import CloudGroup
assert korvalin_client.__file__.startswith("'"$tmp/prefix"'"), korvalin_client.__file__
g = CloudGroup("lab-a", "origin")
exp = g.create_exp("python", "from the installed package")
exp.sweep("/q0/drive/amp", [0.0, 0.5]).measure_quantity("I")
assert len(g.pull_result(g.submit_exp(exp))["I"]) == 2
')
  echo "package: the installed Python package ran an experiment"
fi
