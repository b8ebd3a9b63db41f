#!/usr/bin/env bash
# check-tidy.sh [FILE...]: clang-tidy over what the preset clang builds (or only the given files).
source "$(dirname "$0")/common.sh"

"$root/tools/dev/build.sh" clang
"$root/tools/dev/check-tidy.py" "$root/build-clang" "$cache/tidy" "$jobs" "$@"
