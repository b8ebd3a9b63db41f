#!/usr/bin/env bash
# check-macos.sh: cross-compiles and links the whole tree for macOS on Arm and Intel, and inspects
# the results; merges the two builds of the shared library into build-macos.
source "$(dirname "$0")/common.sh"

dev=$root/tools/dev
library=libNorvoCrewsVirtualChannel
exports=$root/src/virtualchannel/src/tc/SharedLib/exports.txt
minimum=11.0
architectures=(arm64 x86_64)
failures=0

expect() { # WHAT ACTUAL EXPECTED
    if [ "$2" = "$3" ]; then
        say "ok: $1"
    else
        say "wrong: $1 is" "$2" "instead of" "$3"
        failures=$((failures + 1))
    fi
}

# One image of one architecture: everything loaded into a process on macOS must pass this.
check_image() { # FILE ARCHITECTURE
    local name=${1##*/} loaded
    expect "$name ($2): architecture" "$(llvm-lipo-19 -archs "$1" | xargs)" "$2"
    expect "$name ($2): minimum system" \
        "$(llvm-objdump-19 --macho --private-headers "$1" | awk '$1 == "minos" { print $2 }')" $minimum
    # The first line is the file's name; a library lists itself. Our own libraries are beside the program.
    loaded=$(llvm-otool-19 -L "$1" | awk 'NR > 1 && $1 !~ "^@rpath/libNorvo" { print $1 }')
    expect "$name ($2): libraries it loads" "$loaded" /usr/lib/libSystem.B.dylib
    "$dev/check-macho-signature.py" "$1" || failures=$((failures + 1))
}

check_library() { # FILE, one architecture or both
    local architecture
    for architecture in $(llvm-lipo-19 -archs "$1"); do
        expect "install name ($architecture)" \
            "$(llvm-otool-19 -arch "$architecture" -D "$1" | tail -1)" "@rpath/$library.1.dylib"
        expect "exported symbols ($architecture)" \
            "$(llvm-objdump-19 --macho --arch="$architecture" --exports-trie "$1" |
                awk '$2 ~ /^_/ { print substr($2, 2) }' | sort)" \
            "$(sort "$exports")"
    done
}

find_library() { find "$root/build-macos-$1" -type f -name "$library*.dylib" | head -1; }
find_images() { # TREE: programs and libraries
    find "$1" -type f -not -path '*/CMakeFiles/*' \( -name '*.dylib' -o -perm -u+x -not -name '*.*' \)
}

"$root/cmake/macos/install-compiler.sh" >/dev/null
for architecture in "${architectures[@]}"; do
    tree=$root/build-macos-$architecture
    "$dev/build.sh" "macos-$architecture"
    mapfile -t images < <(find_images "$tree")
    for image in "${images[@]}"; do
        check_image "$image" "$architecture"
    done
done

mkdir -p "$root/build-macos"
merged=$root/build-macos/$library.dylib
llvm-lipo-19 -create "$(find_library arm64)" "$(find_library x86_64)" -output "$merged"
expect "merged library" "$(llvm-lipo-19 -archs "$merged" | xargs -n 1 | sort | xargs)" \
    "arm64 x86_64"
check_library "$merged"
"$dev/check-macho-signature.py" "$merged" || failures=$((failures + 1))
[ $failures = 0 ] || fail "$failures checks of the macOS build failed"
