#!/usr/bin/env bash
# Prints lines and branches that the tests took, a line a source of lib/ and platform/, from the counts in a build folder.
set -euo pipefail
folder=$1
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
work=$folder/coverage
rm -rf "$work"
mkdir -p "$work"
cd "$work"
find "$folder/CMakeFiles" \( -path '*/sharesnap_*.dir/lib/*' -o -path '*/qova*.dir/platform/*' \) -name '*.gcda' -print0 |
    xargs -0 -r gcov --branch-probabilities --preserve-paths --no-output >gcov.txt 2>/dev/null
awk -v top="$top/" '
    /^File / {
        file = substr($0, 7, length($0) - 7)
        sub("^.*/(build/[^/]*/)?\\.\\./\\.\\./", "", file)
        if (index(file, top) == 1)
            file = substr(file, length(top) + 1)
        ours = file ~ /^(lib|platform)\/.*\.cpp$/
    }
    ours && /^Lines executed:/ { split($0, p, /[:% ]+/); lines[file] = p[3]; of[file] = p[5] }
    ours && /^Taken at least once:/ { split($0, p, /[:% ]+/); taken[file] = p[5]; branches[file] = p[7] }
    END {
        printf "%-48s %18s %18s\n", "source", "lines", "branches"
        for (f in lines) {
            printf "%-48s %8.1f%% of %5d %8.1f%% of %5d\n", f, lines[f], of[f], taken[f], branches[f] | "sort"
            l += lines[f] * of[f]; lo += of[f]; b += taken[f] * branches[f]; bo += branches[f]
        }
        close("sort")
        if (lo && bo)
            printf "%-48s %8.1f%% of %5d %8.1f%% of %5d\n", "all", l / lo, lo, b / bo, bo
    }' gcov.txt
