#!/bin/sh
# check-unit.sh UNIT PROGRAM PAGE: systemd-analyze verifies the service unit as the
# instance line1, starting PROGRAM, with PAGE as the manual page its Documentation=
# names; and its sandbox scores no worse than it does now. Exit 77 (skipped) without
# systemd-analyze.
unit=$1 program=$2 page=$3
# systemd-analyze security rates exposure 0.0 (tight) to 10.0 (none); the unit is at 1.6,
# 0.1 of it the one capability it keeps (binding the Modbus ports 502 and 802).
max_exposure=1.6
command -v systemd-analyze > /dev/null || { echo "systemd-analyze not found: skipped"; exit 77; }
[ -x "$program" ] || { echo "$program is not an executable"; exit 1; }
program=$(realpath "$program")   # ExecStart= takes an absolute path only
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT
# A template cannot be verified; an instance of it can, under the name it will run as.
instance=$work/rtuplc-gateway@line1.service
sed "s#/usr/bin/rtuplc-gateway#$program#" "$unit" > "$instance"
grep -q "^ExecStart=$program " "$instance" || { echo "$unit: no ExecStart=/usr/bin/rtuplc-gateway"; exit 1; }
mkdir "$work/man1" && cp "$page" "$work/man1/"
out=$(MANPATH=$work systemd-analyze verify "$instance" 2>&1); status=$?
[ $status -eq 0 ] && [ -z "$out" ] || { echo "systemd-analyze verify: status $status"; echo "$out"; exit 1; }
echo "systemd-analyze verify: clean"
out=$(systemd-analyze security --offline=yes --threshold="$(echo "$max_exposure" | tr -d .)" "$instance" 2>&1)
status=$?
printf '%s\n' "$out" | grep 'Overall exposure'
[ $status -eq 0 ] || { echo "exposure above $max_exposure: a sandbox option was lost"; printf '%s\n' "$out" | grep '✗'; exit 1; }
