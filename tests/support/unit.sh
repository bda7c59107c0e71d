#!/usr/bin/env bash
# unit.sh UNIT PROGRAM OPTIONS: lets systemd verify a unit, with the built program in the place of the installed one, which this
# machine need not have. With OPTIONS 1 the program has to know each option that the unit gives it.
set -euo pipefail
unit=$1
program=$2
command -v systemd-analyze >/dev/null || { echo "skipped: systemd-analyze is not installed" && exit 77; }
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
name=$(basename "$unit")
sed "s|^ExecStart=[^ ]*|ExecStart=$program|" "$unit" >"$folder/$name"
# Systemd only warns of a directive that it does not know or cannot read, and tells about the machine's other units too.
told=$(systemd-analyze verify --man=no "$folder/$name" 2>&1) || { echo "$told" && exit 1; }
if grep -F "$name" <<<"$told"; then
    exit 1
fi
if [ "$3" -eq 1 ]; then
    help=$("$program" --help)
    for option in $(grep '^ExecStart=' "$unit" | grep -oE -- ' --[a-z-]+'); do
        grep -qE -- "$option\b" <<<"$help" || { echo "$(basename "$program") does not know $option" && exit 1; }
    done
fi
