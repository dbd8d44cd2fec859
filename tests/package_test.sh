#!/usr/bin/env bash
# Installs the build, moves what was installed, and builds and runs programs against it there: with
# find_package, with pkg-config, and a host in C against the module's interfaces.
#
#   package_test.sh SOURCES BUILD LIBDIR SCRATCH
set -euo pipefail
sources=$1 build=$2 libdir=$3 scratch=$4

fail() { printf 'package_test: %s\n' "$*" >&2; exit 1; }

quietly() {
  "$@" > "$scratch/log" 2>&1 || { cat "$scratch/log" >&2; fail "$*"; }
}

greets() {
  local said
  said=$("$1")
  [ "$said" = "hello from $version" ] || fail "$1 says: $said"
}

# Where the loader looks for libraries never depends on the working directory.
check_run_paths() {
  local file entry entries=() count=0
  while IFS= read -r file; do
    entry=$(readelf -d "$file" 2> /dev/null | sed -n 's/.*R\(UN\)\?PATH.*\[\(.*\)\]$/\2/p') || continue
    [ -n "$entry" ] || continue
    count=$((count + 1))
    IFS=: read -ra entries <<< "$entry:end"
    for entry in "${entries[@]:0:${#entries[@]}-1}"; do
      case $entry in /* | '$ORIGIN' | '$ORIGIN/'*) ;; *) fail "$file looks for libraries in '$entry'" ;; esac
    done
  done < <(find "$@" -type f)
  [ "$count" -gt 1 ] || fail "no run paths were found in $*"
}

rm -rf "$scratch"
mkdir -p "$scratch"
quietly cmake --install "$build" --prefix "$scratch/first"
prefix=$scratch/moved
mv "$scratch/first" "$prefix"
check_run_paths "$build" -maxdepth 1
check_run_paths "$prefix"
version=$("$prefix/bin/hxcrate" --version)
modules=$prefix/lib/python3/dist-packages
[ ! -d "$modules" ] || [ "$(PYTHONPATH=$modules /usr/bin/python3 -c 'import hxcrate; print("hxcrate", hxcrate.__version__)')" = "$version" ] ||
  fail "Python does not import what is installed"

quietly cmake -G Ninja -S "$sources/examples/consumer" -B "$scratch/found" "-DCMAKE_PREFIX_PATH=$prefix"
quietly cmake --build "$scratch/found"
greets "$scratch/found/consumer"

# The examples, where they are installed, from a build folder elsewhere.
quietly cmake -G Ninja -S "$prefix/share/doc/hxcrate/examples" -B "$scratch/examples"
quietly cmake --build "$scratch/examples" --target hx_notes hx_quickstart hx_memory_host
"$scratch/examples/hx_notes" "$scratch/notes.st" monday tea
[ "$("$scratch/examples/hx_notes" "$scratch/notes.st")" = $'notes/monday, 4 bytes:\ntea' ] || fail "hx_notes"
said=$(c++ -std=c++17 -I "$prefix/include" -fsyntax-only -x c++ - 2>&1 <<< '#include <hxcrate/error.hpp>' || true)
[[ $said == *'needs C++20'* ]] || fail "an older language is not named: $said"

# What README tells a program to write is what this one wrote.
! awk '/^```$/ { inside = 0 } inside; /^```cmake$/ { inside = 1 }' "$sources/README.md" |
  grep -vxFf "$sources/examples/consumer/CMakeLists.txt" || fail "README's lines differ"

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
read -ra flags <<< "$(pkg-config --cflags --libs hxcrate)"
quietly c++ -std=c++20 "$sources/examples/consumer/consumer.cpp" "${flags[@]}" \
  "-Wl,-rpath,$prefix/$libdir" -o "$scratch/configured"
greets "$scratch/configured"

# The library is found by a relative path, and the program goes where a stranger's module lies under
# that path before it needs its own.
mkdir -p "$scratch/away/moved/$libdir"
quietly cc -shared -o "$scratch/away/moved/$libdir/libhxcrate.so.1" -x c - \
  <<< '__attribute__((constructor)) static void run(void) { __builtin_trap(); }'
quietly c++ -std=c++20 -o "$scratch/wanderer" -x c++ - "${flags[@]}" <<'PROGRAM'
#include <hxcrate/crate.hpp>
#include <unistd.h>
int main() {
  if (chdir("away") != 0) return 1;
  hxcrate::Session session;
}
PROGRAM
(cd "$scratch" && LD_LIBRARY_PATH=moved/$libdir quietly ./wanderer)

read -ra flags <<< "$(pkg-config --cflags hxcrate-module)"
quietly cc -std=c11 "$sources/examples/memory_host.c" "${flags[@]}" -o "$scratch/memory_host"
quietly "$scratch/memory_host" "$(pkg-config --variable=module hxcrate-module)"
quietly c++ -std=c++20 -fsyntax-only -x c++ "${flags[@]}" - << 'END'
#include <module/entry.h>
#include <store/records.h>
#include <store/status.h>
static_assert(sizeof(hx::Store) != 0 && hx::kOk == 0);
END
