#!/usr/bin/env bash
# Indexes the tree of Debian's linux-source-6.1 package with kest-indexer and
# prints throughput, index size, peak memory and change-to-search delay.
#   bash bench/indexer_bench.sh WORK_DIR   (as root; WORK_DIR on disk, ~6 GB free)
set -euo pipefail
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
WORK="${1:?usage: indexer_bench.sh WORK_DIR}"
mkdir -p "$WORK"
if [[ ! -d "$WORK/src" ]]; then
  [[ -f /usr/src/linux-source-6.1.tar.xz ]] || apt-get install -y linux-source-6.1
  mkdir -p "$WORK/src"
  tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$WORK/src" --strip-components=1
fi
cmake -S "$ROOT" -B "$ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$ROOT/build" -j"$(nproc)" --target indexer_bench kest-indexer kest-extract-worker
sync
echo 3 >/proc/sys/vm/drop_caches || true
"$ROOT/build/bench/indexer_bench" "$WORK"
cmake --build "$ROOT/build" -j"$(nproc)" --target http_search_bench
"$ROOT/build/bench/http_search_bench" "$WORK" "${QUERIES:-/work/shared/bench/queries.tsv}"
