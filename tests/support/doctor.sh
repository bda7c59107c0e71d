#!/usr/bin/env bash
# doctor.sh ROOT LIBRARY: whether ./dev doctor tells the truth about memory and real-time priority, here and where both are
# forbidden. The truth is whether a process lives that loads the library, and whether the system call is allowed.
set -euo pipefail
root=$1
library=$2
forbidden=(prlimit --memlock=65536:65536 --rtprio=0:0)
if [ "$(id -u)" -eq 0 ]; then
    command -v setpriv >/dev/null || { echo "skipped: setpriv is not installed" && exit 77; }
    forbidden=(setpriv "--bounding-set=-ipc_lock,-sys_nice,-sys_resource" "${forbidden[@]}")
fi

failures=0
# compare NAME LINE TRUTH [PREFIX...]: the doctor's word on LINE against the exit code of the shell text TRUTH.
compare() {
    local name=$1 line=$2 truth=$3 expected=missing told word
    shift 3
    told=$("$@" bash -c "ulimit -S -l \"\$(ulimit -H -l)\"; ulimit -S -r \"\$(ulimit -H -r)\"; $truth" 2>&1) && expected=ok
    word=$({ "$@" "$root/dev" doctor || true; } | sed -n "s/^\([a-z]*\) *$line .*/\1/p")
    if [ "$word" != "$expected" ]; then
        echo "$name: '$line' is '$word', and in truth '$expected' ($told)"
        failures=1
    fi
}
for name in here forbidden; do
    prefix=(env)
    [ "$name" = here ] || prefix=("${forbidden[@]}")
    compare "$name" "memory lock" "LD_PRELOAD='$library' env true" "${prefix[@]}"
    compare "$name" "real-time priority" "python3 -c 'import os; os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(98))'" "${prefix[@]}"
done
if "${forbidden[@]}" "$root/dev" doctor >/dev/null; then
    echo "forbidden: the doctor ends with 0"
    failures=1
fi
exit $failures
