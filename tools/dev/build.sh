#!/usr/bin/env bash
# build.sh PRESET [cmake --build argument...]: configures and builds the preset.
source "$(dirname "$0")/common.sh"

tree=$root/build-$1
cd "$root"
note "building $1 in ${tree##*/} ..."
quietly "$tree/configure.log" cmake --preset "$1"
quietly "$tree/build.log" cmake --build "$tree" --parallel "$jobs" "${@:2}" -- -k 0
