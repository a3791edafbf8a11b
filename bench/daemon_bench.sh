#!/usr/bin/env bash
# Builds the benchmark index (once) and measures kestelasticd against
# in-process Xapian on it. Figures go to bench/RESULTS.md by hand.
#
#   bench/daemon_bench.sh CORPUS_DIR WORK_DIR QUERIES_TSV
#
# CORPUS_DIR: the unpacked linux-source-6.1 tree (kept out of the repository).
# WORK_DIR: where the index and the daemon's socket go.
# Run as root: the daemon's permission filter switches file-system ids.
# Peers run in the same administrator run when present: quest (xapian-tools)
# on the same index, and recollq when WORK_DIR/recoll holds a recoll
# configuration whose index (xapiandb) covers the same tree: bench/index_peers.sh
# installs recollcmd and builds that index.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BUILD:-build}
corpus=$1
work=$2
queries=$3
rounds=${ROUNDS:-10}

mkdir -p "$work"
if [[ ! -d $work/linux-index ]]; then
  echo "== indexing $corpus"
  /usr/bin/time -v "$build/daemon/kest_index_loader" "$corpus" "$work/linux-index" \
    2> >(grep -E 'Elapsed|Maximum resident' >&2)
fi
du -sh "$work/linux-index"
# Warm cache: the figures are for an index already in memory.
cat "$work"/linux-index/* > /dev/null

sock=$work/kestelasticd.sock
"$build/daemon/kestelasticd" --socket "$sock" --index "fileindex_linux=$work/linux-index" &
pid=$!
trap 'kill $pid 2>/dev/null || true' EXIT
for _ in $(seq 100); do [[ -S $sock ]] && break; sleep 0.05; done

peers=()
command -v quest > /dev/null && peers+=(--quest)
if command -v recollq > /dev/null && [[ -d $work/recoll/xapiandb ]]; then
  peers+=(--recoll-conf "$work/recoll")
fi
echo "== as an administrator (no permission filter)"
"$build/bench/kest_daemon_bench" --db "$work/linux-index" --index-id fileindex_linux \
  --queries "$queries" --socket "$sock" --rounds "$rounds" "${peers[@]}"
echo "== for an ordinary user (permission filter, uid 65534)"
"$build/bench/kest_daemon_bench" --db "$work/linux-index" --index-id fileindex_linux \
  --queries "$queries" --socket "$sock" --rounds "$rounds" --filter-uid 65534
echo "== daemon memory"
grep -E 'VmHWM|VmRSS' "/proc/$pid/status"
