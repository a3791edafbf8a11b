#!/usr/bin/env bash
# Load benchmark of the web API server (wrk on loopback, in the test sandbox).
# Needs root. Usage: bench/webapi_server.sh [seconds-per-run]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target webapi_server_bench >/dev/null
echo "# $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPUs: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(free -g | awk '/Mem:/ {print $2}') GiB, $(git rev-parse --short HEAD)"
./build/bench/webapi_server_bench "${1:-10}"
