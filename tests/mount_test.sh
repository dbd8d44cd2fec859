#!/usr/bin/env bash
# Mounts stores and uses them as programs do. Ends with 77 where nothing can be mounted.
#
#   mount_test.sh BIN CORPUS SCRATCH
set -euo pipefail
bin=$1 corpus=$2 scratch=$3
export PATH=$bin:$PATH LC_ALL=C.UTF-8

fail() { printf 'mount_test: %s\n' "$*" >&2; exit 1; }
skip() { printf 'mount_test: skipped: %s\n' "$*" >&2; exit 77; }
same() { [ "$1" = "$2" ] || fail "'$1' is not '$2'"; }

unmount_all() {
  local place
  for place in "$scratch"/{m,m2}; do umount -l "$place" 2> /dev/null || fusermount3 -uzq "$place" 2> /dev/null || true; done
}

# Until the program over a folder is gone, though nobody may have asked yet how it ended.
is_running() { readlink "/proc/$1/exe" > /dev/null 2>&1; }
wait_for() {
  for _ in $(seq 600); do is_running "$1" || return 0; sleep 0.05; done
  fail "the program goes on: $2"
}
# Of the program that serves the store now, which was named by its whole path: other tests may run, and the
# program before may take a moment to end, and lets go of the store with that.
server_of() { pgrep -n -f "^[^ ]*hxcrate-mount .*$scratch/$1 "; }
mount_staying() {
  hxcrate mount -f "$1" m 2> log & server=$!
  until mountpoint -q m; do is_running $server || fail "$(cat log)"; sleep 0.05; done
}
unmount() { fusermount3 -u "$1" || umount "$1"; }

scratch=$(mkdir -p "$scratch" && realpath "$scratch")
unmount_all
rm -rf "$scratch" && mkdir -p "$scratch"/{m,m2,in/odd,in/empty} && cd "$scratch"
trap unmount_all EXIT
[ -e /dev/fuse ] || skip "there is no /dev/fuse"
printf x > in/one && hxcrate pack one.st in
said=$(hxcrate mount one.st m 2>&1) || { [[ $said == *"not permitted"* || $said == *"ermission denied"* ]] && skip "$said"; fail "$said"; }
unmount m

hxcrate mount --idle 5 "$scratch/one.st" m2 && exec 6< m2/one && idle=$(server_of one.st) && SECONDS=0
deep=in/deep$(printf '/d%.0s' $(seq 500))
mkdir -p "$deep" && printf bottom > "$deep/file"
cp in/one in/twin
for size in 0 1 4095 4096 4097 300000 3000001; do head -c $size /dev/urandom > in/$size; done
for name in 'a b' $'new\nline' $'\xff\x80' -l 'back\slash' co:lon "$(printf 'n%.0s' $(seq 64))"; do printf '%s' "$name" > "in/odd/$name"; done
(cd in && find . -type f ! -path '*/odd/*' -exec sha256sum {} +) > sums
hxcrate pack big.st in
hxcrate pack --page-size 100 small.st in
hxcrate copy --encoding hxmok1/be/utf-8 big.st foreign.st
hxcrate pack --in-memory blob.st in

listing() { (cd "$1" && find . -mindepth 1 -type d -printf '%y %p\n' -o -printf '%y %s %p\n' | sort); }
for store in big small foreign blob; do
  hxcrate mount $store.st m
  listing in | cmp - <(listing m) || fail "$store: other names or sizes"
  for reader in $(seq 8); do (cd m && sha256sum --quiet -c ../sums > ../said.$reader) & readers[reader]=$!; done
  for reader in $(seq 8); do wait "${readers[reader]}" || fail "$store: $(cat said.$reader)"; done
  diff -r in m
  [ ! -e m/none ] && ! touch m/new 2> /dev/null || fail "$store: there is what there is not"
  same "$(find m -printf '%i\n' | sort | uniq -d)" ""
  unmount m
done

# Numbers stay; attributes; parts, several.
hxcrate mount big.st m
find m -printf '%i %P\n' | sort > before
same "$(stat -c '%a %s' m/one m/odd | xargs)" "444 1 555 0"
same "$(stat -c %Y m/one)" "$(stat -c %Y big.st)"
same "$(python3 -c 'import os; print(*(os.getxattr("m/300000", n).decode() for n in sorted(os.listxattr("m/300000")) if "offset" not in n))')" \
  "$(($(stat -f -c %s m) ? (300000 + $(stat -f -c %s m) - 1) / $(stat -f -c %s m) : 0))"
same "$(python3 -c 'import os; os.getxattr("m/one", "security.selinux")' 2>&1 | grep -c 'not supported')" 1  # else ls -l asks every file
unmount m
hxcrate put -p --wait 60 big.st added/later < /dev/null
hxcrate mount big.st m
find m -printf '%i %P\n' | sort | comm -23 before - | grep . && fail "other numbers than before"
unmount m
hxcrate mount big.st:odd m && diff -r in/odd m && unmount m
hxcrate mount m big.st:deep small.st && diff -r in m/small.st && diff -r in/deep m/deep && unmount m

# What a manifest tells, where it fits.
cat > manifest << END
#mtree
. type=dir mode=0750 time=1000000001.0
./one type=file mode=0640 uid=12 gid=13 time=1000000000.5 size=1 nlink=2 resdevice=1 inode=7 sha256digest=$(sha256sum < in/one | head -c 64)
./twin type=file size=1 nlink=2 resdevice=1 inode=7
./false type=file size=1 nlink=2 resdevice=1 inode=7
./odd type=file mode=0600
./odd/link type=link link=../../nowhere\040at\040all
./1 type=link link=one
./empty/link type=link link=../one
END
cp small.st told.st && hxcrate put told.st .mtree manifest && printf z | hxcrate put told.st false
hxcrate mount told.st m
same "$(cd m && stat -c '%a %u %g %Y' one odd . empty/link 1 | sed 3q | xargs)" "640 12 13 1000000000 555 $(id -u) $(id -g) $(stat -c %Y told.st) 750 0 0 1000000001"
same "$(stat -c '%h %i' m/twin) $(cat m/one m/false)" "2 $(stat -c %i m/one) xz"
same "$(readlink m/odd/link) $(cat m/empty/link) $(stat -c '%F %s' m/1)" "../../nowhere at all x regular file 1"
same "$(python3 -c 'import os; print(os.getxattr("m/one", "user.hxcrate.sha256").decode())')" "$(sha256sum < in/one | head -c 64)"
unmount m
hxcrate mount told.st:odd m && same "$(readlink m/link)" '../../nowhere at all' && unmount m

# Life: a killed program leaves what the next one mends; signals; while a file is open; by itself.
hxcrate mount "$scratch/small.st" m
server=$(server_of small.st) && kill -9 "$server" && wait_for "$server" killed
! ls m > said 2>&1 || fail "somebody serves"
hxcrate mount "$scratch/small.st" m && diff -r in m
exec 5< m/3000001
unmount m 2> /dev/null && fail "it was unmounted under a reader"
server=$(server_of small.st) && kill -TERM "$server" && wait_for "$server" SIGTERM
exec 5<&-
same "$(ls m)" ""
hxcrate mount "$scratch/small.st" m && server=$(server_of small.st) && exec 5< m/3000001
fusermount3 -uz m || umount -l m
cmp - in/3000001 <&5 && exec 5<&- && wait_for "$server" "unmounted while a file was open"

# What is damaged is an error of its own, and the log says where.
printf '\377%.0s' $(seq 24) > junk
cp big.st broken.st
mount_staying big.st
offset=$(python3 -c 'import os; print(os.getxattr("m/3000001", "user.hxcrate.offset").decode())')
unmount m && wait $server
dd if=junk of=broken.st bs=1 seek="$offset" conv=notrunc status=none
mount_staying broken.st
diff -r in m > differences 2>&1 && fail "damage is not seen"
same "$(grep -v '^Only in m: added' differences)" "diff: m/3000001: Input/output error"
grep -q "broken.st: 3000001: .* byte $offset " log || fail "the log says $(cat log)"
unmount m && wait $server

mkdir images
for image in "$corpus"/image/*.store; do  # as if our host had written them
  order=le && grep -q fake/big "$image" && order=be
  { printf 'hxmok1/%s/utf-8\0\0\0\0\0\0\0\0\0' $order; tail -c +25 "$image"; } > "images/${image##*/}"
done
hxcrate pack --page-size 100 images/0.st in/odd
for part in $(seq 15); do
  cp images/0.st images/$part.st
  dd if=junk of=images/$part.st bs=1 seek=$(($(stat -c %s images/0.st) * part / 16)) conv=notrunc status=none
done
walked=0
for image in images/*; do
  timeout 60 hxcrate mount "$scratch/$image" m 2> said || { [ $? -eq 4 ] && continue; fail "$image: $(cat said)"; }
  server=$(server_of "$image")
  timeout 60 find m -type f -exec cat {} + > /dev/null 2>&1 || [ $? -ne 124 ] || fail "$image: a walk does not end"
  timeout 60 find m -ls > /dev/null 2>&1 || [ $? -ne 124 ] || fail "$image: a walk does not end"
  is_running "$server" || fail "$image: the program is gone"
  unmount m && wait_for "$server" "$image"
  walked=$((walked + 1))
done
[ $walked -gt 20 ] || fail "only $walked damaged stores were walked"

while [ $SECONDS -lt 7 ]; do sleep 0.5; done
is_running "$idle" || fail "unmounted while a file was open"
exec 6<&- && wait_for "$idle" --idle && same "$(ls m2)" ""

# The command alone says what is missing; who is not root can mount too.
alone=$(mktemp -d) && trap 'unmount_all; umount -l "$alone/m" 2> /dev/null || true; rm -rf "$alone"' EXIT
mkdir "$alone/m" && cp "$bin"/hxcrate "$bin"/lib*.so.1 one.st "$alone"
same "$(PATH=/usr/bin:/bin "$alone/hxcrate" mount a b 2>&1)" \
  "hxcrate: no command is called mount: install the package hxcrate-mount (see hxcrate --help)"
[ "$(id -u)" -eq 0 ] && setpriv --reuid nobody --clear-groups test -w /dev/fuse || exit 0
cp "$bin/hxcrate-mount" "$alone" && chown -R nobody "$alone" && cd "$alone"
setpriv --reuid nobody --regid nogroup --clear-groups sh -ec \
  './hxcrate mount one.st m && cat m/one && ./hxcrate mount -o nonsense one.st m 2> said || fusermount3 -u m' > "$scratch/said"
same "$(cat "$scratch/said")" x
