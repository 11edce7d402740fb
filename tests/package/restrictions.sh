#!/bin/bash
# Runs the kernel tests with daemon and store service under the restrictions of their units.
set -u
. tests/package/expect.sh
build=$(readlink -f "$1")
wrappers=$(mktemp -d)
trap 'rm -rf "$wrappers"' EXIT

# wrapper UNIT PROGRAM: prints the path of a program that starts it confined.
wrapper() {
    local path
    path=$(mktemp -p "$wrappers")
    printf '#!/bin/sh\nexec %s %s %s "$@"\n' "$build/tests/package/confine" "$1" "$2" >"$path"
    chmod +x "$path"
    printf '%s\n' "$path"
}
units=$PWD/packaging/systemd
KT_TANDREL=$(wrapper "$units/tandrel.service" "$build/tandrel")
KT_TAVD=$(wrapper "$units/tavd.service" "$build/platform/tav/tavd")
export KT_TANDREL KT_TAVD

expect "a socket of another family is refused" not "$build/tests/package/confine" \
    packaging/systemd/tandrel.service /usr/bin/env bash -c ': </dev/tcp/127.0.0.1/1'
# Tests that cannot pass under the restrictions, and why. Each is run anyway and must fail, so that
# the list is no longer than necessary.
scheduling='-n and -r need privileges that scheduling.conf grants'
user_right='-u needs CAP_SETUID, which the unit never gives: it has its own user'
declare -A left_out=(
    [TheUsageTextIsPrintedToTheLetter]='the text contains the path by which the test starts the program'
    [APriorityIsAppliedToTheProcess]=$scheduling
    [TheLastSchedulingPolicyWins]=$scheduling
    [PriorityAndPolicyAreSetBeforeThePrivilegesAreGivenUp]="$scheduling; $user_right"
    [AUserIsFoundByName]=$user_right
)
# Setting priority 0 needs the privilege only if the priority is another one.
[ "$(nice)" -eq 0 ] || left_out[APriorityThatIsNotANumberIsZero]=$scheduling
one_test() { (cd "$build" && ctest --output-on-failure --no-tests=error -R "^kernel\.CommandLineTest\.$1\$"); }
fails() { one_test "$1" | grep '^0% tests passed, 1 tests failed'; }
for name in "${!left_out[@]}"; do
    expect "omitted: $name (${left_out[$name]})" fails "$name"
done
# With the drop-in they are in force. A drop-in is read after its unit.
cat "$units/tandrel.service" "$units/scheduling.conf" >"$wrappers/granted.unit"
confined=$KT_TANDREL
KT_TANDREL=$(wrapper "$wrappers/granted.unit" "$build/tandrel")
for name in APriorityIsAppliedToTheProcess TheLastSchedulingPolicyWins; do
    expect "with scheduling.conf: $name" one_test "$name"
done
KT_TANDREL=$confined

names=$(printf '|%s' "${!left_out[@]}")
results=$wrappers/results.xml
(cd "$build" && ctest --label-regex '^kernel$' -E "\.(${names#|})\$" --parallel "$(($(nproc) * 4))" --output-junit "$results" </dev/null |
    grep -vE ' Passed |Start +[0-9]+:')
total=$(grep -c '<testcase ' "$results")
bad=$(grep '<testcase ' "$results" | grep -vc 'status="run"')
passed=$((passed + total - bad))
failed=$((failed + bad))
finish
