# Read by the scripts beside this folder: where the tree is, and a known environment.
# shellcheck shell=bash

exec </dev/null
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
export LC_ALL=C.UTF-8 TZ=UTC
: "${HOME:=$(getent passwd "$(id -u)" | cut -d: -f6)}"
export HOME
cd "$top"

say() { printf '%s\n' "$*"; }
die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 2; }

# build_preset NAME [TARGET...]: configures and builds build/NAME.
build_preset() {
    local preset=$1
    shift
    cmake --preset "$preset" >"$top/build/configure-$preset.log" 2>&1 || {
        cat "$top/build/configure-$preset.log"
        die "cmake --preset $preset failed"
    }
    cmake --build --preset "$preset" --parallel "${JOBS:-2}" ${1:+--target "$@"}
}

mkdir -p "$top/build"
