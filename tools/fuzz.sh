#!/bin/bash
# ./test --fuzz SECONDS [TARGET...]: runs the fuzz targets one after the other, for that many
# seconds each. tools/fuzz.sh --merge [TARGET...]: keeps as few of the found inputs as possible that
# together reach all code that no seed reaches. tools/fuzz.sh --line NAME FILE: prints one that is
# worth keeping as a line of the target's seeds, under a name that says what it shows.
#
# Everything that a run finds goes to build/fuzz: inputs that reach something new to found/TARGET,
# the inputs of failures to findings. The seeds, including past failures, are only read. To repeat a
# failure: fuzz_TARGET FILE, with the program in build/fuzz/tests/fuzz or
# build/fuzz/platform/tav/tests/fuzz.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1

seconds=${1-}
case $seconds in
--merge) ;;
--line) printf '%s %s\n' "$2" "$(od -An -v -tx1 "$3" | tr -d '\n' | sed 's/ /\\x/g')"; exit ;;
*[!0-9]* | '' | 0) printf 'Usage: ./test --fuzz SECONDS [TARGET...]\n' >&2; exit 2 ;;
esac
shift

. tools/setup.sh
# shellcheck disable=SC2086
need_packages $build_packages $test_packages $fuzz_packages
configure fuzz
build fuzz fuzz_targets

targets=("$@")
[ ${#targets[@]} -gt 0 ] || for program in build/fuzz/{tests,platform/tav/tests}/fuzz/fuzz_*; do
    targets+=("${program##*/fuzz_}")
done

# For speed: no record of where memory was allocated, and little freed memory kept. A failure is
# repeated without these.
export ASAN_OPTIONS=malloc_context_size=0:quarantine_size_mb=1:thread_local_quarantine_size_kb=16
ASAN_OPTIONS+=:max_redzone=64:allocator_release_to_os_interval_ms=-1

passed=0
failed=0

# prepare TARGET: sets program, seeds, found and the options of a run.
prepare() {
    local folder=tests/fuzz
    [ -e "$folder/$1.cpp" ] || folder=platform/tav/tests/fuzz
    program=build/fuzz/$folder/fuzz_$1
    kept=$folder/$1.seeds
    seeds=$scratch/seeds/$1
    found=build/fuzz/found/$1
    [ -x "$program" ] || die "no such target: $1"
    mkdir -p "$seeds" "$found" build/fuzz/findings
    while read -r name bytes; do printf %b "$bytes" >"$seeds/$name"; done <"$kept"
    options=(-max_len=512 -timeout=20 "-artifact_prefix=build/fuzz/findings/$1-")
    [ ! -f "$folder/$1.dict" ] || options+=("-dict=$folder/$1.dict")
}

# search TARGET: adds to the counts.
search() {
    prepare "$1"
    if step fuzz "Fuzzing $1 for $(clock "$seconds") ($2 of ${#targets[@]})" "$program" "${options[@]}" \
        "-max_total_time=$seconds" -print_final_stats=1 "$found" "$seeds"; then
        passed=$((passed + 1))
        say "$1: $(awk '/number_of_executed_units/ { print $2 }' "$step_log") inputs, nothing found"
    else
        failed=$((failed + 1))
        grep -vE '^(#|INFO|NEW_FUNC)' "$step_log" | tail -n 60
        say "$1: found an input, see above; once it is understood, add it to $kept (tools/fuzz.sh --line)"
    fi
    cp "$step_log" "build/fuzz/findings/$1.log"
}
note_fuzz() {
    note_log "$1"
    [[ ! $1 =~ ^#([0-9]+) ]] || state="${BASH_REMATCH[1]} inputs"
}

# merge TARGET: merges the found inputs with the seeds, and then removes the seeds from the result.
merge() {
    local merged=$scratch/$1
    prepare "$1"
    cp -r "$seeds" "$merged"
    step log "Merging $1" "$program" -set_cover_merge=1 -timeout=20 -max_len=4096 "$merged" "$found" ||
        { tail -n 20 "$step_log" >&2; die "could not merge: $1"; }
    (cd "$seeds" && printf '%s\0' *) | (cd "$merged" && xargs -0 rm -f --)
    rm -rf "$found"
    cp -r "$merged" "$found"
    say "$1: $(find "$found" -type f | wc -l) inputs in $found reach what no seed reaches"
}

number=0
for target in "${targets[@]}"; do
    number=$((number + 1))
    if [ "$seconds" = --merge ]; then merge "$target"; else search "$target" "$number"; fi
done
[ "$seconds" = --merge ] && exit 0
say "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
