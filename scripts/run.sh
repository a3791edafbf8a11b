#!/usr/bin/env bash
# Builds KestOndri and shows what the web API module serves.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
./build/host/kest-module-info build/src/libkestondri_webapi.so
