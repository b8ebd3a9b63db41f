#!/usr/bin/env bash
# run-fuzzers.sh [SECONDS]: builds every fuzz target and runs each for SECONDS (default 15), one per
# core at a time. Findings stay in build-fuzz/found, the grown corpus in the cache.
source "$(dirname "$0")/common.sh"

seconds=${1:-15}
tree=$root/build-fuzz
"$root/tools/dev/build.sh" fuzz --target norvo_fuzzers
mapfile -t targets < <(find "$tree/fuzz" -maxdepth 1 -type f -executable -name 'fuzz_*' | sort)
[ ${#targets[@]} -gt 0 ] || fail "no fuzz target was built"

run_one() {
    local target=$1 name corpus found
    name=${target##*/fuzz_}
    corpus=$cache/corpus/$name
    found=$tree/found/$name-
    mkdir -p "$corpus" "$tree/found"
    local seeds=()
    [ -d "$root/fuzz/corpus/$name" ] && seeds=("$root/fuzz/corpus/$name")
    # Its own namespace: a target may create shared-memory objects.
    NORVO_VDI_NAMESPACE=nvt$BASHPID "$target" -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$found" \
        "$corpus" "${seeds[@]}" >"$tree/$name.log" 2>&1 </dev/null || {
        tail -n 60 "$tree/$name.log"
        printf 'FAILED %s\n' "$name"
        return 1
    }
    printf '%-28s %s runs\n' "$name" \
        "$(sed -n 's/^stat::number_of_executed_units: *//p' "$tree/$name.log")"
}
export -f run_one
export seconds tree
# shellcheck disable=SC2016  # the inner shell expands it
printf '%s\0' "${targets[@]}" | xargs -0 -n 1 -P "$jobs" bash -c 'run_one "$1"' run_one
