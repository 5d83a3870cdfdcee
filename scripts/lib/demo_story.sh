#!/usr/bin/env bash
# What the command can do, told on an empty volume at /vol1 that may be thrown away: run by scripts/demo in a sandbox.
# SHARESNAP is the path of the command. Every step is checked; the first that goes wrong ends the story.
set -euo pipefail
exec </dev/null
export LC_ALL=C.UTF-8 TZ=UTC
: "${SHARESNAP:?the path of the command}"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
last=$work/last

wrong() {
    printf 'demo: %s\n' "$*" >&2
    exit 1
}
tell() { printf '\n# %s\n' "$*"; }

# attempt PROGRAM ARGUMENT...: shows a command as it is typed, runs it, and keeps what it said and its exit status.
attempt() {
    local program=$1
    shift
    printf '$ %s' "${program##*/}"
    local argument
    for argument in "$@"; do
        if [[ $argument =~ ^[A-Za-z0-9_./:@=+-]+$ ]]; then
            printf ' %s' "$argument"
        else
            printf " '%s'" "$argument"
        fi
    done
    printf '\n'
    status=0
    "$program" "$@" >"$last" 2>&1 || status=$?
    cat "$last"
}

# run PROGRAM ARGUMENT...: the same, and it has to succeed.
run() {
    attempt "$@"
    [ "$status" -eq 0 ] || wrong "\"$*\" ended with $status"
}
snap() { run "$SHARESNAP" "$@"; }

# refused STATUS ARGUMENT...: sharesnap has to end with that status, and to say why.
refused() {
    local wanted=$1
    shift
    attempt "$SHARESNAP" "$@"
    printf '(exit status %s)\n' "$status"
    [ "$status" -eq "$wanted" ] || wrong "\"$*\" ended with $status instead of $wanted"
}

shows() { grep -qF -- "$1" "$last" || wrong "\"$1\" doesn't show"; }
hides() { ! grep -qF -- "$1" "$last" || wrong "\"$1\" shows"; }
# The one line that a create prints is the snapshot's name.
taken() {
    name=$(cat "$last")
    [ -n "$name" ] || wrong "no name was printed"
    [ -d "/vol1/@sharesnap/$1/$name" ] || wrong "no snapshot $name of $1"
}

case $(stat -f -c %T /vol1) in
btrfs) real=yes ;;
*) real= ;;
esac
if [ -n "$real" ]; then
    tell "A Btrfs volume is mounted at /vol1. It is a file of this machine and goes away with this demo."
else
    tell "No Btrfs here, so this is the simulated storage core: /vol1 is a directory in memory, snapshots are copies."
fi

tell "A share is a folder with a subvolume of its own. Here are two:"
snap share add docs /vol1/docs --desc 'Papers and plans'
snap share add music /vol1/music
snap share list
shows 'Papers and plans'

tell "Somebody works in docs, and a snapshot keeps what there was:"
printf 'Budget: 1000\n' >/vol1/docs/plan.txt
run cat /vol1/docs/plan.txt
snap create docs --desc 'before the meeting' --attr ticket=17
taken docs
first=$name
printf 'Budget: 20\n' >/vol1/docs/plan.txt
run cat /vol1/docs/plan.txt
snap create docs --desc 'after the meeting'
taken docs
second=$name
[ "$first" != "$second" ] || wrong "two snapshots have one name"

tell "What there is, with what is known of each:"
snap list docs
shows 'before the meeting'
shows 'after the meeting'
snap attr list docs "$first"
shows ticket
snap list docs --attr ticket==17
shows "$first"
hides "$second"
snap list docs --attr ticket==17 --json
shows '"schema": 1'

tell "The old version of the file is still there to be read:"
run cat "/vol1/@sharesnap/docs/$first/plan.txt"
shows 'Budget: 1000'
run cat /vol1/docs/plan.txt
shows 'Budget: 20'

tell "How many snapshots a share may have is a setting. At the limit the next one is refused:"
printf 'max_snapshots_per_share="2"\n' >/etc.defaults/qovainfo.conf
run cat /etc.defaults/qovainfo.conf
refused 4 create docs
shows SNAP_ERR_SNAPSHOT_LIMIT
shows 'share "docs"'
snap count docs
rm /etc.defaults/qovainfo.conf

tell "A backup reads a snapshot and holds it meanwhile. Nobody can delete it under its hands:"
snap hold add docs "$first" backup
refused 4 delete docs "$first"
shows 'held by backup (once)'
snap hold release docs "$first" backup
snap delete docs "$first"
shows deleted
snap list docs
hides "$first"

tell "A snapshot becomes a share of its own, which can be written:"
snap clone docs plans --snapshot "$second"
run cat /vol1/plans/plan.txt
shows 'Budget: 20'
printf 'Budget: 3\n' >/vol1/plans/plan.txt
run cat /vol1/docs/plan.txt
shows 'Budget: 20'

if [ -n "$real" ]; then
    tell "Somebody goes behind the command's back: takes a snapshot by hand, and deletes one."
    run btrfs subvolume snapshot -r /vol1/docs /vol1/@sharesnap/docs/GMT-2015.01.01-00.00.00
    run btrfs property set -f "/vol1/@sharesnap/docs/$second" ro false
    run btrfs subvolume delete "/vol1/@sharesnap/docs/$second"
    tell "The list no longer tells the truth. sync mends it:"
    snap sync docs --dry-run
    snap sync docs
    shows 'taken from the list'
    shows 'added to the list'
    snap list docs
    shows GMT-2015.01.01-00.00.00
    hides "$second"
fi

tell "A share gets another name, and all that belongs to it goes along:"
snap share rename music songs
snap share list
shows /vol1/songs

tell "A bad day in plans. Its files go back to a snapshot; what was there before is kept as one, too:"
snap create plans --desc 'all is well'
taken plans
well=$name
printf 'Budget: nothing\n' >/vol1/plans/plan.txt
snap restore plans "$well"
shows 'what was there is kept as'
run cat /vol1/plans/plan.txt
shows 'Budget: 3'

tell "Mistakes are told by name, with a status for scripts:"
refused 3 list papers
shows 'no share "papers"'
refused 2 create docs --attr 'ticket'
shows 'has no value'

tell "From what does each share and snapshot descend? That is the volume's tree:"
snap tree /vol1
shows object/docs
shows object/plans
shows object/songs
snap tree --sources plans

tell "That was the demo. To use it on a server with a Btrfs volume at /vol1, as root:"
cat <<'END'
    cmake --preset package && cmake --build --preset package && cmake --install build/package
    sharesnap share add docs /vol1/docs          # or with --existing for a subvolume that stands
    sharesnap create docs --desc 'first one'
    sharesnap list docs
    sharesnap --help
END
