#!/usr/bin/env bash
# What ./dev says of packages that are missing before it installs any.
#
#   dev_test.sh SOURCES SCRATCH
set -euo pipefail
sources=$1 scratch=$2

fail() { printf 'dev_test: %s\n' "$*" >&2; exit 1; }

# A root whose Debian has nothing installed, and where nothing can be.
rm -rf "$scratch"
mkdir -p "$scratch"
printf '#!/bin/sh\nexit 1\n' > "$scratch/dpkg-query"
printf '#!/bin/sh\necho 0\n' > "$scratch/id"
printf '#!/bin/sh\ntouch "%s/installing"; exit 1\n' "$scratch" > "$scratch/apt-get"
chmod +x "$scratch"/*
export PATH=$scratch:$PATH
unset HX_NO_INSTALL

expect() {
  local said
  said=$("${@:2}" 2>&1) && fail "${*:2} succeeds"
  [[ $said == $1 ]] || fail "${*:2} says: $said"
}
expect 'dev: missing packages; run: apt-get install -y clang-format-14' "$sources/dev" --no-install format --check
HX_NO_INSTALL=1 expect 'dev: missing packages; run: apt-get install -y g++ *' "$sources/dev" build
[ ! -e "$scratch/installing" ] || fail "it installs what it was told not to"
expect 'Installing by apt-get: clang-format-14' "$sources/dev" format --check
[ -e "$scratch/installing" ] || fail "it does not install what it said"
