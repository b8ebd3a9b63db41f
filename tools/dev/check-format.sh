#!/usr/bin/env bash
# check-format.sh [--fix]: compares every C and C++ file with .clang-format, or rewrites it.
source "$(dirname "$0")/common.sh"

cd "$root"
mapfile -t files < <(git ls-files '*.h' '*.hpp' '*.c' '*.cpp')
if [ "${1:-}" = --fix ]; then
    clang-format-14 -i "${files[@]}"
else
    printf '%s\0' "${files[@]}" | xargs -0 -n 20 -P "$jobs" clang-format-14 --dry-run --Werror
    say "${#files[@]} files"
fi
