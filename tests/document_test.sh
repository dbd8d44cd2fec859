#!/usr/bin/env bash
# Runs a document's examples from top to bottom in an empty folder and writes the document anew with
# what they printed; it must come out as it is.
#
#   document_test.sh DOCUMENT PROGRAM BIN SCRATCH
#
# A block marked `cpp` is an example, run by its number with PROGRAM (document_examples.awk); a block
# marked `text` is what the example before it prints. A block marked `console` holds commands behind
# "$ ", each followed by what it prints; those of BIN are on the path.
set -euo pipefail
document=$1 program=$2 scratch=$4
export PATH=$3:$PATH LC_ALL=C.UTF-8

fail() { printf '%s: %s\n' "$document" "$*" >&2; exit 1; }

show() { [ -z "$1" ] || printf '%s\n' "$1"; }

rewrite() {
  local line fence="" example=0 said="" status=0
  while IFS= read -r line <&3; do
    case "$fence,$line" in
      ,'```'*)
        fence=${line#'```'}
        [ -n "$fence" ] || fence=plain
        printf '%s\n' "$line"
        [ "$fence" != text ] || show "$said"
        if [ "$fence" = cpp ]; then
          example=$((example + 1))
          said=$("$program" $example 2>&1) || fail "example $example: $said"
        fi ;;
      *,'```') fence="" && printf '%s\n' "$line" ;;
      console,'$ '*)
        printf '%s\n' "$line"
        said=$( (exit $status); eval "${line#'$ '}" 2>&1) && status=0 || status=$?
        show "$said" ;;
      console,* | text,*) ;;
      *) printf '%s\n' "$line" ;;
    esac
  done
}

document=$(realpath "$document") program=$(realpath "$program")
rm -rf "$scratch"
mkdir -p "$scratch/run"
cd "$scratch/run"
rewrite 3< "$document" > ../rewritten.md
diff -u "$document" ../rewritten.md
