#!/usr/bin/env bash
# install-packages.sh GROUP...: installs what is missing of the Debian packages of each group.
# Groups: build (to build and test everything but the following), checks (the rest of ./test --all), rdp (a real
# RDP client, and what its add-in is built with), xrdp (a desktop for it).
source "$(dirname "$0")/common.sh"

packages_of() {
    case $1 in
        build)
            say g++ cmake ninja-build ccache libgtest-dev libgmock-dev libbenchmark-dev \
                libcli11-dev libfmt-dev nlohmann-json3-dev libxxhash-dev \
                libboost-dev libprotobuf-dev protobuf-compiler libzmq3-dev \
                pkg-config socat procps util-linux dpkg-dev file
            ;;
        checks)
            say clang libclang-rt-14-dev clang-format clang-tidy llvm shellcheck git python3 \
                lld-19 llvm-19 g++-aarch64-linux-gnu qemu-user-static googletest
            # Any npm will do; one from another source conflicts with Debian's.
            command -v npm >/dev/null || say npm
            ;;
        rdp) say freerdp2-x11 freerdp2-dev libwinpr2-dev xvfb openssl ;;
        xrdp) say xrdp tigervnc-standalone-server ;;
        *) fail "install-packages.sh: no group '$1'" ;;
    esac
}

is_installed() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

missing_of() {
    local package
    for package in "$@"; do
        is_installed "$package" || say "$package"
    done
}

as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    else
        sudo -n "$@"
    fi
}

install_all() {
    export DEBIAN_FRONTEND=noninteractive
    as_root apt-get update -q
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends -o DPkg::Lock::Timeout=300 "$@"
}

command -v dpkg-query >/dev/null || {
    say "not a Debian system: taking the tools that are there"
    exit 0
}

wanted=()
for group in "$@"; do
    read -r -a names <<<"$(packages_of "$group" | tr '\n' ' ')"
    wanted+=("${names[@]}")
done
mapfile -t missing < <(missing_of "${wanted[@]}" | sort -u)
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" != 0 ] && ! sudo -n true 2>/dev/null; then
    fail "These packages are missing, and installing them needs root (or sudo without a password):
    apt-get install --no-install-recommends ${missing[*]}"
fi
say "installing ${#missing[@]} packages: ${missing[*]}"
quietly "$cache/log/apt.$(id -u).log" install_all "${missing[@]}"
