#!/usr/bin/env bash
# Usage: scripts/coverage.sh
#
# Runs every test on a build with coverage counters and prints, by file of thr/, how many lines and
# branches were executed, and each line that was not. Branches that only an exception takes are left
# out. Fails below 98% of all lines or branches; docs/testing.md has the reasons of what is left.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
take_no_arguments "$@"

build=$root/build/windows-coverage
listings=$build/coverage

# The counters of all copies of the library, the DLL's and that in internal tests, in one listing of
# each source.
make_listings()
{
    rm -rf "$listings"
    mkdir "$listings"
    ln -s "$root/thr" "$listings/thr" # sources are named relative to the tree
    (cd "$listings" && find "$build/thr" -name '*.gcda' -exec \
        x86_64-w64-mingw32-gcov-posix --branch-probabilities --relative-only {} +) \
        >"$build/gcov.log" 2>&1 || die "gcov failed: see build/windows-coverage/gcov.log"
    compgen -G "$listings/*.gcov" >/dev/null || die "there are no counters of thr/"
}

# A line of several functions, as a template's, is listed for each: it counts as executed when it is
# in one of them.
print_table()
{
    local program='
        function share(part, whole) {
            return sprintf("%5d of %5d %s", part, whole,
                           whole ? sprintf("%5.1f%%", 100 * part / whole) : "     -")
        }
        function row(name, l, L, b, B) { printf "%-30s %s %s\n", name, share(l, L), share(b, B) }
        function end_file(    line, done, all) {
            for (line in state) { all++; done += state[line] }
            if (file) row(file, done, all, taken, branches)
            lines_done += done; lines_all += all
            branches_taken += taken; branches_all += branches
            for (line = 1; line <= last; line++)
                if (line in state && !state[line]) left[++lefts] = file ":" line ":" text[line]
            split("", state); taken = branches = last = 0
        }
        FNR == 1 { end_file(); file = FILENAME; sub(/.*\//, "", file); sub(/\.gcov$/, "", file) }
        /^ *[^ :]+: *[0-9]+:/ {
            split($0, field, ":"); count = field[1]; number = field[2] + 0
            gsub(/ /, "", count)
            if (number == 0 || count == "-") next
            state[number] = state[number] || count ~ /^[0-9]/
            text[number] = $0; sub(/^[^:]*:[^:]*:/, "", text[number])
            if (number > last) last = number
        }
        /^branch/ && !/\(throw\)/ { branches++; taken += $0 !~ /never executed/ && $4 != 0 }
        END {
            end_file()
            row("thr/", lines_done, lines_all, branches_taken, branches_all)
            print "\nlines not executed:"
            for (i = 1; i <= lefts; i++) print left[i]
            exit lines_done < 0.98 * lines_all || branches_taken < 0.98 * branches_all
        }'
    printf '%-30s %21s %21s\n' file lines branches
    awk "$program" "$listings"/*.gcov || die "less than 98% of thr/ was executed"
}

"$root/scripts/setup.sh"
build_preset windows-coverage
find "$build" -name '*.gcda' -delete # of earlier runs
"$root/scripts/test.sh" --preset windows-coverage
make_listings
print_table
