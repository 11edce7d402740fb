#!/bin/bash
# Carries out random sequences, each in its own environment, for the given number of minutes: ./test
# --soak. SOAK_SEED is the first seed (default: from the time), SOAK_PRESET the build, SOAK_JOBS the
# number of sequences at a time, SOAK_LOG the directory for the reports of failures.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1

minutes=${1:-}
case $minutes in
'' | *[!0-9]*) echo "usage: ./test --soak MINUTES" >&2; exit 2 ;;
esac

preset=${SOAK_PRESET:-test}
jobs=${SOAK_JOBS:-$(($(nproc) * 8))} # they mostly wait
first=${SOAK_SEED:-$(date +%s)}

. tools/setup.sh
# shellcheck disable=SC2086
need_packages $build_packages $test_packages
configure "$preset"
build "$preset" model_tests
program=build/$preset/tests/model/model_tests

reports=${SOAK_LOG:-build/soak}
mkdir -p "$reports"
say "$jobs sequences at a time, from seed $first, for $minutes minutes; failures are kept in $reports"

# work NUMBER: runs every jobs-th seed, and prints a line for each. The report of a failure goes to a
# separate file.
work() {
    local seed=$((first + $1)) report
    while [ $SECONDS -lt $((minutes * 60)) ]; do
        report=$reports/$seed.txt
        timeout 600 "$program" --replay "$seed" >"$report" 2>&1
        if head -n 1 "$report" | grep '^passed'; then
            rm -f "$report"
        else
            echo "FAILED: seed $seed, see $report"
        fi
        seed=$((seed + jobs))
    done
}
work_all() {
    local job
    for ((job = 0; job < jobs; job++)); do work "$job" & done
    wait
}

lines=$scratch/lines
sequences=0
: >"$lines"
note_sequence() {
    printf '%s\n' "$1" >>"$lines"
    sequences=$((sequences + 1))
    case $1 in FAILED*) failures=$((failures + 1)); pass_on "$1" ;; esac
    state="$sequences sequences, $failures failed"
}
step sequence "Soaking for $minutes minutes" \
    bash -c "$(declare -p first jobs minutes program reports); $(declare -f work work_all); work_all"

failing=$(sed -n 's/^FAILED: seed \([0-9]*\),.*/\1/p' "$lines" | sort -n)
for seed in $(head -n 3 <<<"$failing"); do
    say "seed $seed, shortened:"
    step lines "Shortening $seed" "$program" --shrink "$seed"
done
awk -v failed="$(wc -w <<<"$failing")" -v seeds="$(tr '\n' ' ' <<<"$failing")" '
    /^passed/ { gsub(",", ""); operations += $5; items += $7; undetermined += $9; refused += $11 }
    END { printf "%d sequences, %d failed; %d operations, %d items compared, ", NR, failed,
              operations, items - undetermined
          printf "%d undetermined, %d refused by the kernel\n", undetermined, refused
          if (failed > 0) print "failing seeds: " seeds
          exit failed > 0 || NR == 0 }' "$lines"
