#!/usr/bin/env bash
# The head-tracking service and its clients as separate Linux processes over hostbinder:
#   1. starts a private runtime (hostbinderd) with a permission policy,
#   2. starts the tracking service (tovarind),
#   3. a client (tovarinctl) takes a head tracker, starts it and prints samples, while a second
#      client listens for state changes,
#   4. a client records eight seconds of motion as CSV and plots it with gnuplot,
#   5. the service is killed with SIGKILL and started again, replaying the recording: the
#      listening client reconnects and re-registers its listener by itself, and a client samples
#      the recorded motion,
#   6. a fault is injected through the debug interface (sim.refuseStart) and cleared again,
#   7. dumpsys prints the service's report.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
tovarin_install_deps

echo "== building =="
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target hostbinderd tovarind tovarinctl dumpsys service

bin=build/host/tools
out=build/demo
mkdir -p "$out"
work=$(mktemp -d)
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

export HOSTBINDER_SOCKET=$work/hostbinder.sock
export TOVARIN_LOG='*:I'
cat >"$work/permissions" <<EOF
# uid permission
$(id -u) com.morvel.permission.TOVARIN_CONTROL
$(id -u) android.permission.DUMP
EOF

step() { printf '\n\033[1m== %s ==\033[0m\n' "$*"; }

step "runtime"
"$bin/hostbinderd/hostbinderd" --socket "$HOSTBINDER_SOCKET" --permissions "$work/permissions" &
pids+=($!)
for _ in $(seq 50); do [ -S "$HOSTBINDER_SOCKET" ] && break; sleep 0.1; done

step "tracking service"
"$bin/tovarind/tovarind" &
svc=$!
pids+=($svc)
sleep 1
"$bin/service/service" list

step "a client listens for state changes (in the background)"
"$bin/tovarinctl/tovarinctl" listen 30 &
pids+=($!)
sleep 1

step "another client takes a head tracker and samples it"
"$bin/tovarinctl/tovarinctl" enable 1
"$bin/tovarinctl/tovarinctl" track 2

step "record eight seconds of motion as CSV"
"$bin/tovarinctl/tovarinctl" track 8 --rate 20 --csv "$out/take.csv"
head -n 4 "$out/take.csv"

step "plot the recording (gnuplot)"
"$bin/tovarinctl/tovarinctl" plot --csv "$out/take.csv" --out "$out/simulated-motion.svg"

step "the service is killed (SIGKILL) and restarted, replaying the recording"
kill -9 "$svc"
sleep 1
"$bin/tovarind/tovarind" --replay "$out/take.csv" --loop &
svc=$!
pids+=($svc)
sleep 2
"$bin/tovarinctl/tovarinctl" enable 0
"$bin/tovarinctl/tovarinctl" enable 1
sleep 1
echo "-- the replayed motion (the recording's first rows again, on a new clock):"
"$bin/tovarinctl/tovarinctl" track 0.3 --rate 10

step "inject a fault: the tracker refuses to start"
"$bin/tovarinctl/tovarinctl" override set sim.refuseStart 1
if ! "$bin/tovarinctl/tovarinctl" track 1; then
    echo "-- track failed, as injected (-38 is INVALID_OPERATION)"
fi
"$bin/tovarinctl/tovarinctl" override clear sim.refuseStart
"$bin/tovarinctl/tovarinctl" status --json

step "dumpsys morvel.tovarin.service"
"$bin/tovarinctl/tovarinctl" override set demo.mode on
"$bin/dumpsys/dumpsys" morvel.tovarin.service

step "done"
echo "The plot of the recorded motion: $out/simulated-motion.svg (data: $out/take.csv)"
