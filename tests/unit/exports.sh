#!/usr/bin/env bash
# usage: exports.sh NM LIBRARY LIST
# Compares what the library exports with the checked-in list, both ways.
set -euo pipefail
export LC_ALL=C
nm=$1 library=$2 list=$3

names=$(grep -v '^#' "$list")
if ! sort --check --unique <<<"$names"; then
    printf '%s isn'\''t in the order of LC_ALL=C sort, or has a name twice\n' "$list"
    exit 1
fi
# Lines of nm: address, kind, name. C++ names are those of the tree's classes alone.
symbols=$("$nm" -D --defined-only "$library" | awk 'NF == 3 { sub("@.*", "", $3); print $3 }' | sort -u)
plain=$(grep -v '^_Z' <<<"$symbols" || true)
stray=$(grep '^_Z' <<<"$symbols" | grep -v '12QovaSnapTree' || true)
lacking=$(comm -13 <(printf '%s\n' "$plain") <(printf '%s\n' "$names"))
extra=$(comm -23 <(printf '%s\n' "$plain") <(printf '%s\n' "$names"))
status=0
[ -z "$lacking" ] || { printf 'in the list, not in the library:\n%s\n' "$lacking"; status=1; }
[ -z "$extra" ] || { printf 'in the library, not in the list:\n%s\n' "$extra"; status=1; }
[ -z "$stray" ] || { printf 'C++ symbols of something else than the tree:\n%s\n' "$stray"; status=1; }
[ -n "$plain" ] || { printf 'the library exports nothing\n'; status=1; }
exit "$status"
