#!/usr/bin/env bash
# Installs what the build and the tests need where that can be done here: as root on a machine with apt-get.
# Elsewhere it names what is missing and leaves it at that, as long as the compiler and CMake are there.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd -P)
exec </dev/null

# Each line of the list is one package, or alternatives parted by |.
missing=()
while IFS= read -r line; do
    line=${line%%#*}
    read -r -a words <<<"${line//|/ }"
    [ ${#words[@]} -gt 0 ] || continue
    found=
    for name in "${words[@]}"; do
        # shellcheck disable=SC2016 # the format is dpkg-query's
        if [ "$(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null || true)" = installed ]; then
            found=yes
        fi
    done
    [ -n "$found" ] || missing+=("${words[*]}")
done <"$here/packages"
[ ${#missing[@]} -gt 0 ] || exit 0

say_missing() {
    printf 'setup: not installed here, by their Debian names:\n' >&2
    printf '    %s\n' "${missing[@]// / or }" >&2
}

if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null; then
    export DEBIAN_FRONTEND=noninteractive
    printf 'setup: installing %s\n' "${missing[*]}"
    apt-get -q -o DPkg::Lock::Timeout=300 update || printf 'setup: apt-get update failed, going on with the lists at hand\n' >&2
    wanted=()
    for alternatives in "${missing[@]}"; do
        choice=
        for name in $alternatives; do
            if [ -z "$choice" ] && apt-cache show "$name" >/dev/null 2>&1; then
                choice=$name
            fi
        done
        wanted+=("${choice:-${alternatives%% *}}")
    done
    if apt-get -q -y -o DPkg::Lock::Timeout=300 install --no-install-recommends "${wanted[@]}"; then
        exit 0
    fi
    printf 'setup: apt-get could not install them all\n' >&2
fi
say_missing
for tool in cmake ninja pkg-config c++; do
    command -v "$tool" >/dev/null || { printf 'setup: no %s, so nothing can be built\n' "$tool" >&2; exit 1; }
done
