# shellcheck shell=bash
# Sourced by the scripts in this folder: paths, and the compiler cache's settings.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
jobs=${NORVO_JOBS:-$(nproc 2>/dev/null || echo 2)}
# Downloads and results that outlive a build tree.
cache=${NORVO_BUILD_CACHE:-${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}/norvo-build}
export root jobs cache

# Precompiled headers need the sloppiness; the rest lets clones in other folders share results.
export CCACHE_BASEDIR=$root
export CCACHE_NOHASHDIR=1
export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime
if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

# Prints one line for each argument.
say() { printf '%s\n' "$@"; }
# Progress notes, only at a terminal.
note() { [ ! -t 2 ] || say "$@" >&2; }
fail() {
    printf '%s\n' "$*" >&2
    exit 1
}

# quietly LOG COMMAND...: the output goes to LOG; if the command fails, its last lines are shown.
quietly() {
    local log=$1
    shift
    mkdir -p "$(dirname "$log")"
    "$@" >"$log" 2>&1 </dev/null && return
    local status=$?
    say "failed: $*"
    tail -n 60 "$log" | cut -c 1-300
    say "(all of it: $log)"
    return "$status"
}
