#!/usr/bin/env bash
# User-space instructions per call of each kind, in each process of the round trip: the
# calling process, the server (tovarind, or the bare ping server) and the runtime (hostbinderd),
# counted by callgrind. Unlike times, these counts do not move with the load on the machine.
#
#   bench/tovarin/callgrind.sh [KIND...]   (ping getEnabled getHeadTrackingState sample
#                                           setEnabledState; all by default)
#
# The caller is counted inside the timed loop only; the server and the runtime are counted
# whole, once with 1000 calls and once with 3000, and the difference divided by 2000.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${BUILD_DIR:-build}
bench=$build/bench/tovarin/tovarin_bench
valgrind=$(command -v valgrind) || { echo "valgrind is not installed" >&2; exit 1; }
[ -x "$bench" ] || { echo "build $bench first" >&2; exit 1; }

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
cat >"$out/hostbinderd" <<EOF
#!/bin/sh
exec $valgrind --tool=callgrind --callgrind-out-file="\$TOVARIN_CG_RUNTIME" \
    $(realpath "$build/host/tools/hostbinderd/hostbinderd") "\$@"
EOF
chmod +x "$out/hostbinderd"

total() {
    callgrind_annotate "$1" 2>/dev/null | awk '/PROGRAM TOTALS/ { gsub(",", "", $1); print $1 }'
}

profile() {
    local kind=$1 calls=$2
    TOVARIN_CG_RUNTIME=$out/runtime.$kind.$calls HOSTBINDERD=$out/hostbinderd \
    TOVARIN_BENCH_SERVER_WRAP="$valgrind --tool=callgrind --callgrind-out-file=$out/server.$kind.$calls" \
        "$valgrind" -q --tool=callgrind --toggle-collect='*profileCalls*' \
        --callgrind-out-file="$out/client.$kind.$calls" "$bench" --profile "$kind" "$calls" \
        >"$out/log.$kind.$calls" 2>&1 || { cat "$out/log.$kind.$calls" >&2; exit 1; }
}

printf '%-22s %10s %10s %10s %10s\n' "instructions per call" client server runtime total
kinds=("$@")
[ ${#kinds[@]} -gt 0 ] || kinds=(ping getEnabled getHeadTrackingState sample setEnabledState)
for k in "${kinds[@]}"; do
    profile "$k" 1000
    profile "$k" 3000
    client=$(( $(total "$out/client.$k.3000") / 3000 ))
    server=$(( ($(total "$out/server.$k.3000") - $(total "$out/server.$k.1000")) / 2000 ))
    runtime=$(( ($(total "$out/runtime.$k.3000") - $(total "$out/runtime.$k.1000")) / 2000 ))
    printf '%-22s %10d %10d %10d %10d\n' "$k" "$client" "$server" "$runtime" \
        $((client + server + runtime))
done
