#!/usr/bin/env bash
# The house rules that no compiler checks: who includes whom, that files include each other in no
# circle, what files are called and how long they are, and what the module imports and exports.
# architecture_test.sh SOURCES MODULE   (no module: one with a sanitizer in it imports more)
set -euo pipefail
cd "$1"
library=${2:-}
outcome=0
complain() { printf '%s\n' "$*"; outcome=1; }

# How a path begins: how the paths begin that it may include of the tree, and "+" where any header
# of the system may be. The first that fits counts. README's tour of the folders says it in words.
inner="records/ file/ store/ item/ blob/ module/"
slots="host/kernel.h host/encoding.h host/file_io.h"
rules=(
  "host/http/: + host/http/ $slots"
  "host/linux/: + host/linux/ $slots"
  "host/: $slots"
  "api/: + api/ host/http/remote_file.h host/linux/ file/format.h item/item_view.h records/lock_guard.h records/records.h records/status.h module/entry.h $slots"
  "inspect/: + inspect/ api/hxcrate/ file/format.h"
  "tool/: + tool/ api/hxcrate/"
  "mount/: + mount/ api/hxcrate/ tool/manifest/manifest.h"
  "python/: + python/native/ api/hxcrate/"
  "examples/memory_host.c: + module/crate.h"
  "examples/: + api/hxcrate/"
)
# The module's folders lie one above the other, but for item/ and blob/, which lie side by side.
below=$slots
for layer in records/ file/ store/ "item/ blob/" module/; do
  for folder in $layer; do rules+=("$folder: $folder $below"); done
  below="$below $layer"
done

# Where an include leads: from the root, the includer's folder, or api/, which programs search. A
# file may also be made by the build.
resolve() {
  local candidate
  for candidate in "$2" "${1%/*}/$2" "api/$2"; do
    if [ -e "$candidate" ] || [ -e "$candidate.in" ]; then resolved=$candidate; return; fi
  done
  resolved=
}

begins_with_any() {
  local path=$1 prefix
  shift
  for prefix in "$@"; do [[ $path == "$prefix"* ]] && return; done
  return 1
}

check_include() {
  local path=$1 sign=$2 written=$3 allowed=$4
  resolve "$path" "$written"
  if [ "$sign" = '"' ] || [[ $resolved == api/hxcrate/* ]]; then
    [[ -n $resolved && $written != *..* ]] || { complain "$path includes $written"; return; }
    begins_with_any "$resolved" $allowed || complain "$path includes $resolved"
    edges+="$path $resolved"$'\n'
  elif [[ $allowed != *+* && ! $written =~ ^(stddef|stdint)\.h$ && "$path $written" != h*" uchar.h" ]]; then
    complain "$path includes <$written>"
  fi
}

edges=
used=
while read -r path; do
  found=
  for rule in "${rules[@]}"; do
    [[ $path == "${rule%%:*}"* ]] && found=$rule && break
  done
  [ -n "$found" ] || complain "$path is under no rule"
  used+="${found%%:*} "
  while read -r sign written; do
    check_include "$path" "$sign" "$written" "${found#*:}"
  done < <(sed -n 's/^#include \([<"]\)\([^>"]*\).*/\1 \2/p' "$path")
done < <(find $inner host api inspect tool mount python examples -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.c')
for rule in "${rules[@]}"; do
  [[ " $used" == *" ${rule%%:*} "* ]] || complain "a rule for files that there are none of: $rule"
done
[ "$(wc -l <<< "$edges")" -gt 500 ] || complain "too few includes were found"
tsort <<< "$edges" > /dev/null || complain "files include each other"

named=$(find $inner host api inspect tool mount python tests -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.c')
twins=$(sed 's,.*/,,' <<< "$named" | sort | uniq -d)
[ -z "$twins" ] || complain "several files are called $twins"
while read -r lines path; do
  [ "$lines" -le 400 ] || [[ $path == tests/* || $path == total ]] || complain "$path has $lines lines"
done < <(xargs wc -l <<< "$named")

[ -n "$library" ] || exit $outcome
imports=$(nm -D --undefined-only "$library" | awk '{ print $NF }' | grep -vxE 'memcpy|memmove|memset' || true)
[ -z "$imports" ] || complain "the module imports" $imports
exports=$(nm -D --defined-only "$library" | awk '{ print $NF }')
for name in hxmodent hxmodver hxrelct1 hxcrate Exported_HXHandle hxcrateOpenStore; do
  grep -qx $name <<< "$exports" || complain "the module does not export $name"
done
decorated=$(grep -vxE '[a-z][A-Za-z0-9]*|.*_map|Exported_HXHandle' <<< "$exports" || true)
[ -z "$decorated" ] || complain "the module exports" $decorated

# What a slip of memory must not lead to: a changed return address, a jump into the middle of a
# function, a changed table of functions.
check_hardened() {
  local words word path=${library%/*}/$1
  shift
  words=$({ readelf -Wdl "$path"; objdump -d --no-show-raw-insn "$path"; } | tr -s ' \t@<>,' '\n' | sort | uniq -c)
  for word in GNU_RELRO NOW __stack_chk_fail "$@"; do
    grep -qE " $word\$" <<< "$words" || complain "$path lacks $word"
  done
  # What comes with the compiler has a few.
  [ "$(awk '$2 == "endbr64" { n = $1 } END { print n + 0 }' <<< "$words")" -gt 50 ] || complain "$path lacks endbr64"
}
check_hardened libhxcrate.so
check_hardened libhxhost.so
check_hardened hxcrate PIE
exit $outcome
