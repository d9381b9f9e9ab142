#!/bin/sh
# check-options.sh PROGRAM PAGE: every long option PROGRAM --help names is in PAGE.
program=$1 page=$2
text=$(sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' "$page") || exit 1
options=$("$program" --help | grep -o -e '--[a-z][a-z-]*' | sort -u)
[ -n "$options" ] || { echo "$program --help names no option"; exit 1; }
status=0
for o in $options; do
  printf '%s\n' "$text" | grep -q -E -e "$o([^a-z-]|\$)" || { echo "$page lacks $o"; status=1; }
done
exit $status
