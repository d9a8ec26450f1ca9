#!/usr/bin/env bash
# Checks the systemd units in deploy/ with systemd-analyze verify, their programs being the
# built ones. Any complaint fails, warnings included. Exit status 77 (skipped) without
# systemd-analyze.
# Usage: verify_units_test.sh DEPLOY_DIR PREFERENCESD PREFS_APPINFO
set -euo pipefail
command -v systemd-analyze >/dev/null || { echo "systemd-analyze is not installed"; exit 77; }
deploy=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/bin" "$work/units"
ln -s "$2" "$work/bin/preferencesd"
ln -s "$3" "$work/bin/prefs-appinfo"
for unit in preferencesd.service prefs-appinfo.service; do
    sed -e "s|@PREFS_FULL_BINDIR@|$work/bin|g" -e "s|@PREFS_FULL_SYSCONFDIR@|/etc|g" \
        "$deploy/$unit.in" >"$work/units/$unit"
done
cd "$work/units"
if ! output=$(systemd-analyze verify --man=no preferencesd.service prefs-appinfo.service 2>&1) \
        || [ -n "$output" ]; then
    echo "$output"
    exit 1
fi
