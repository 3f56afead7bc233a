#!/bin/sh
# Who includes whom: each folder may include itself and those named here. What crosses a layer is
# printed; then the exit status is 1.
cd "$(dirname "$0")/.." || exit 2

allowed() {
    case $1 in
        platform) echo platform ;;
        registry | rpc) echo "$1 platform" ;;
        broker) echo "broker platform registry rpc" ;;
        # These two meet in CBroker.h, never each other.
        open | supervision) echo "$1 platform registry rpc broker" ;;
        # vokctl is no part of the broker. Of platform, see below.
        ctl) echo "ctl platform" ;;
    esac
}

for folder in platform registry rpc broker open supervision ctl; do
    grep -rnoE '^[[:space:]]*#[[:space:]]*include[[:space:]]+"[a-z]+/' "$folder" --include='*.h' --include='*.cpp' |
        awk -v allowed="$(allowed "$folder")" -F'"' '
            BEGIN { n = split(allowed, names, " "); for (i = 1; i <= n; i++) ok[names[i] "/"] = 1 }
            !($2 in ok) { print; bad = 1 }
            END { exit bad }' || crossed=1
done

# vokctl runs on any machine: what it knows of the broker are paths and limits, and a guard for
# descriptors.
if grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]+"platform/' ctl |
    grep -vE '"platform/(EmpPaths|Limits|CUniqueFd)\.h"'; then
    crossed=1
fi
exit "${crossed:-0}"
