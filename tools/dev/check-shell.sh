#!/usr/bin/env bash
# check-shell.sh: shellcheck over every script in the tree.
source "$(dirname "$0")/common.sh"

cd "$root"
mapfile -t scripts < <(git grep -lI -E '^#!.*(bash|/sh)$|^# shellcheck shell=')
shellcheck --external-sources --source-path=SCRIPTDIR "${scripts[@]}"
say "${#scripts[@]} scripts"
