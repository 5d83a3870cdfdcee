#!/usr/bin/env bash
# usage: installed.sh pkg-config|cmake BUILD-FOLDER CC CXX
# Installs the build into a folder of its own, builds the two programs beside this script against that tree as somebody
# else would, and runs them, in a sandbox: they leave settings and claims behind. 77 where no sandbox is to be had.
set -euo pipefail
way=$1 build=$2 cc=$3 cxx=$4
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/tree" >"$work/install.log" 2>&1 || { cat "$work/install.log"; exit 1; }
# A moved tree works as well as one that stands where it was installed.
mv "$work/tree" "$work/moved"
tree=$work/moved
pkgconfig=$(dirname "$(find "$tree" -name qovasharesnapshot.pc)")
lib=$(dirname "$pkgconfig")

case $way in
pkg-config)
    export PKG_CONFIG_PATH=$pkgconfig
    pkg-config --exact-version=7.0.0 qovasharesnapshot
    read -r -a flags <<<"$(pkg-config --cflags qovasharesnapshot)"
    read -r -a libs <<<"$(pkg-config --libs qovasharesnapshot)"
    "$cc" -std=c11 -Wall -Wextra -pedantic -Werror "${flags[@]}" "$here/consumer.c" -o "$work/consumer_c" "${libs[@]}"
    "$cxx" -std=c++17 -Wall -Wextra -pedantic -Werror "${flags[@]}" "$here/consumer.cpp" -o "$work/consumer_cpp" "${libs[@]}"
    ;;
cmake)
    cmake -S "$here" -B "$work" -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$tree" \
        >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; exit 1; }
    cmake --build "$work" >"$work/build.log" 2>&1 || { cat "$work/build.log"; exit 1; }
    ;;
esac
skipped=
for program in consumer_c consumer_cpp; do
    status=0
    "$build/tests/programs/sandbox_run" --no-volume -- env LD_LIBRARY_PATH="$lib" "$work/$program" || status=$?
    case $status in
    0) ;;
    77) skipped=yes ;;
    *) printf '%s ended with %s\n' "$program" "$status"; exit 1 ;;
    esac
done

# What the tree must hold beside the libraries.
for path in bin/sharesnap libexec/sharesnap/btrfs include/sharesnap/sharesnap.h include/sharesnap/platform/szlist.h \
    lib/tmpfiles.d/sharesnap.conf; do
    [ -e "$tree/$path" ] || { printf 'not installed: %s\n' "$path"; exit 1; }
done
for name in qovasharesnapshot qovacore qovasdk qovastoragecore qovafileop qovaquota qovasysnotify qovanetsdk; do
    [ -e "$lib/lib$name.so.7" ] || { printf 'not installed: lib%s.so.7\n' "$name"; exit 1; }
done
# The installed command finds its libraries by itself.
env -u LD_LIBRARY_PATH "$tree/bin/sharesnap" --help >/dev/null
[ -z "$skipped" ] || exit 77
