#!/bin/bash
# Prints a table of the lines of the daemon that its tests run, and of those that they do not. Called
# as ./test --coverage.
set -u
cd "$(dirname "$(readlink -f "$0")")/.." || exit 1

. tools/setup.sh
# shellcheck disable=SC2086
need_packages $build_packages $test_packages gcovr
configure coverage
build coverage unit_tests kernel_tests
find build/coverage -name '*.gcda' -delete

step ctest "Testing build/coverage" "${in_memory[@]}" ctest --test-dir build/coverage --parallel $(($(nproc) * 4)) \
    --label-regex '^(unit|kernel)$' --exclude-regex '^kernel\.ctl\.'
status=$?
gcovr --root . --filter '(shell|netlink|store|sync)/' --txt - \
    build/coverage || die "no coverage"
exit "$status"
