#!/usr/bin/env bash
# Keystroke to paint of the web page in headless Chromium on the
# linux-source-6.1 index. Builds the index first with bench/indexer_bench.sh
# when WORK_DIR holds none.
#   bash bench/web_keystroke_bench.sh WORK_DIR   (as root)
set -euo pipefail
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
WORK="${1:?usage: web_keystroke_bench.sh WORK_DIR}"
[[ -d "$WORK/@kestondri/index/src" ]] || bash "$ROOT/bench/indexer_bench.sh" "$WORK"
bash "$ROOT/scripts/install-deps.sh"
cmake -S "$ROOT" -B "$ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$ROOT/build" -j"$(nproc)" --target web_keystroke_bench >/dev/null
echo "# $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) CPUs, load $(cut -d' ' -f1-3 /proc/loadavg), $(git -C "$ROOT" rev-parse --short HEAD)"
"$ROOT/build/bench/web_keystroke_bench" "$WORK" "${QUERIES:-/work/shared/bench/queries.tsv}"
