#!/usr/bin/env bash
# build-and-test.sh PRESET [ctest argument...]: configures and builds the preset, and runs its tests.
source "$(dirname "$0")/common.sh"

preset=$1
shift
tree=$root/build-$preset
cd "$root"

# The thread sanitizer cannot place its shadow memory under some kernels' address randomisation.
without_randomisation=()
if [ "$preset" = tsan ] && setarch -R true 2>/dev/null; then without_randomisation=(setarch -R); fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_stack_use_after_return=1:strict_string_checks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
# No report of threads that outlive main(): some channels keep their worker for the life of the process.
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:report_thread_leaks=0}

note "building $preset in ${tree##*/} ..."
rm -f "$tree/test.log"
quietly "$tree/configure.log" cmake --preset "$preset"
quietly "$tree/build.log" "${without_randomisation[@]}" cmake --build "$tree" --parallel "$jobs" -- -k 0
run_tests() {
    "${without_randomisation[@]}" ctest --test-dir "$tree" --output-on-failure --no-tests=error "$@"
}
# One more than the number of cores: many tests mostly wait.
run_tests --parallel $((jobs + 1)) --output-log "$tree/test.log" "$@" && exit
# None that failed is known when no test has run: ctest would take those of an earlier run.
grep -q 'tests failed out of' "$tree/test.log" || exit 1
# A sanitizer report is a failure, even if it is not reproducible.
! grep -qE 'SUMMARY: [A-Za-z]+Sanitizer|: runtime error: ' "$tree/test.log" || exit 1
# Timing tests may have lacked processor time: tests that failed in parallel are retried once alone.
note "running what failed again, alone"
# With the same arguments: ctest goes by the numbers of the tests, which depend on them.
run_tests --rerun-failed --output-log "$tree/retest.log" "$@"
total=$(sed -n 's/.* tests failed out of \([0-9]*\)$/\1/p' "$tree/test.log" | tail -n 1)
# Named, as a race looks the same at first.
retried=$(sed -n '/The following tests FAILED:/,/^$/s/^[[:space:]]*[0-9]* - /  /p' "$tree/test.log")
say "passed only when run again, alone:" "$retried" | tee -a "$tree/test.log"
say "100% tests passed, 0 tests failed out of $total" | tee -a "$tree/test.log"
