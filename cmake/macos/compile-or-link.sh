#!/usr/bin/env bash
# compile-or-link.sh cc|c++ ARGUMENT...: a compiler driver for macOS targets on Linux.
#
# zig's Clang compiles; LLVM's ld64.lld links, because zig's own linker exports hidden symbols and
# does not support export lists. libc++ and the compiler's runtime are linked statically, from the
# archives that zig builds for itself. --target=ARCH-macos.VERSION selects the system (default
# aarch64-macos.11.0).
set -euo pipefail

lang=$1
shift
cache=${NORVO_BUILD_CACHE:-${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}/norvo-build}
home=$cache/zig-0.11.0
export ZIG_GLOBAL_CACHE_DIR=${ZIG_GLOBAL_CACHE_DIR:-$cache/zig-cache}
export ZIG_LOCAL_CACHE_DIR=$ZIG_GLOBAL_CACHE_DIR
[ -x "$home/zig" ] || {
    echo "no compiler in $home: run cmake/macos/install-compiler.sh first" >&2
    exit 1
}

target=aarch64-macos.11.0
links=yes
arguments=()
for argument in "$@"; do
    case $argument in
        --target=*) target=${argument#--target=} ;;
        -v | -Wl,-v) ;;
        -c | -E | -S | -M | -MM | -fsyntax-only | --version | -dumpversion | -print-*) links= ;;&
        *) arguments+=("$argument") ;;
    esac
done
arch=${target%%-*}
minimum=${target##*macos.}

compile() { "$home/zig" "$lang" -target "$target" "$@"; }

if [ -z "$links" ]; then
    compile "${arguments[@]}"
    exit
fi

# The static runtime of one target, copied once from the path in zig's link line.
runtime=$cache/macos-runtime/$target
make_runtime() {
    local work path
    work=$(mktemp -d "$cache/runtime.XXXXXX")
    echo 'int probe() { return 0; }' >"$work/probe.cpp"
    mkdir "$work/lib"
    ZIG_VERBOSE_LINK=1 "$home/zig" c++ -target "$target" -O2 -shared -o "$work/probe.dylib" \
        "$work/probe.cpp" 2>&1 | grep '^zig ld' | tr ' ' '\n' |
        grep -E '/lib(c\+\+|c\+\+abi|compiler_rt)\.a$' | while read -r path; do
        cp "$path" "$work/lib/"
    done
    mkdir -p "$cache/macos-runtime"
    mv -T "$work/lib" "$runtime" 2>/dev/null || [ -d "$runtime" ]
    rm -rf "$work"
}
[ -d "$runtime" ] || make_runtime

# Turns the driver's arguments into the linker's; sources among them are compiled first.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
flags=()
sources=()
linker=()
set -- "${arguments[@]}"
while [ $# -gt 0 ]; do
    case $1 in
        -dynamiclib | -shared) linker+=(-dylib) ;;
        -bundle) linker+=(-bundle) ;;
        -Wl,-search_paths_first | -Wl,-headerpad_max_install_names) ;;
        -Wl,*)
            IFS=, read -r -a words <<<"${1#-Wl,}"
            linker+=("${words[@]}")
            ;;
        -Xlinker)
            linker+=("$2")
            shift
            ;;
        -o | -install_name | -compatibility_version | -current_version | -framework | -rpath | -undefined)
            linker+=("$1" "$2")
            shift
            ;;
        -arch | -isysroot | -MF | -MT | -MQ) shift ;;
        -isystem | -I | -D)
            flags+=("$1" "$2")
            shift
            ;;
        -L* | -l* | -dead_strip*) linker+=("$1") ;;
        *.c | *.cc | *.cpp | *.cxx) sources+=("$1") ;;
        -*) flags+=("$1") ;;
        *) linker+=("$1") ;;
    esac
    shift
done
for index in "${!sources[@]}"; do
    compile "${flags[@]}" -c "${sources[$index]}" -o "$work/$index.o"
    linker+=("$work/$index.o")
done
[ "$arch" = aarch64 ] && arch=arm64
ld64.lld-19 -arch "$arch" -platform_version macos "$minimum" 13.0 -adhoc_codesign "${linker[@]}" \
    "$runtime"/*.a "$home/lib/libc/darwin/libSystem.13.tbd"
