#!/usr/bin/env bash
# Indexes one tree with kest-indexer, then with recollindex, then with
# omindex, each from a dropped page cache, and prints one table of wall time,
# files/s, MB/s, peak RSS and index size.
#   bash bench/index_peers.sh WORK_DIR [OUT_DIR]   (as root)
# WORK_DIR is indexer_bench's volume: WORK_DIR/src is the tree (prepared by
# bench/indexer_bench.sh when missing). The peers' indexes go to
# OUT_DIR/recoll (RECOLL_CONFDIR, database in OUT_DIR/recoll/xapiandb) and
# OUT_DIR/omindex; OUT_DIR defaults to WORK_DIR's parent. Every index is
# rebuilt from empty. STEPS picks runs (default: all, in this order):
#   kest recollindex omindex omindex-text
# omindex with its defaults has no handler for C sources, shell, JSON,
# Python or reStructuredText and skips them (most of a source tree);
# "omindex-text" runs it again with those extensions read as plain text, into
# OUT_DIR/omindex-text, which makes its figures comparable per file.
set -euo pipefail
ROOT="$(cd "$(dirname "$0")/.." && pwd)"
WORK="$(realpath "${1:?usage: index_peers.sh WORK_DIR [OUT_DIR]}")"
OUT="$(realpath "${2:-$WORK/..}")"
TREE="$WORK/src"

# Bench-only tools, not product dependencies.
need=()
command -v recollindex >/dev/null || need+=(recollcmd)
command -v omindex >/dev/null || need+=(xapian-omega)
command -v xapian-delve >/dev/null || need+=(xapian-tools)
[[ -x /usr/bin/time ]] || need+=(time)
if ((${#need[@]})); then
  apt-get install -y "${need[@]}" >/dev/null
fi

if [[ ! -d "$TREE" ]]; then
  [[ -f /usr/src/linux-source-6.1.tar.xz ]] || apt-get install -y linux-source-6.1
  mkdir -p "$TREE"
  tar -xJf /usr/src/linux-source-6.1.tar.xz -C "$TREE" --strip-components=1
fi
cmake -S "$ROOT" -B "$ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$ROOT/build" -j"$(nproc)" --target indexer_bench kest-indexer kest-extract-worker \
  >/dev/null

files=$(find "$TREE" -type f | wc -l)
bytes=$(du -sb "$TREE" | cut -f1)
LOG="$OUT/index_peers"
mkdir -p "$LOG"

# One-minute load average every 10 s while a run lasts, into $1.
sample_load() {
  while :; do
    cut -d' ' -f1 /proc/loadavg >>"$1"
    sleep 10
  done
}
mean_load() { awk '{ s += $1; n++ } END { if (n) printf "%.2f", s / n; else print "-" }' "$1"; }

drop_caches() {
  sync
  echo 3 >/proc/sys/vm/drop_caches
}

STEPS="${STEPS:-kest recollindex omindex omindex-text}"
step() { [[ " $STEPS " == *" $1 "* ]]; }
declare -A T RSS SIZE DOCS LOAD

# $1 name, $2 index dir, rest: command. Wall time and peak RSS from GNU time.
run_peer() {
  local name=$1 db=$2
  shift 2
  drop_caches
  : >"$LOG/$name.load"
  sample_load "$LOG/$name.load" &
  local sampler=$!
  /usr/bin/time -v -o "$LOG/$name.time" "$@" >"$LOG/$name.out" 2>&1 || {
    kill "$sampler"
    echo "$name failed; see $LOG/$name.out" >&2
    exit 1
  }
  kill "$sampler"
  wait "$sampler" 2>/dev/null || true
  local wall
  wall=$(awk -F': ' '/Elapsed \(wall clock\)/ { print $2 }' "$LOG/$name.time")
  T[$name]=$(awk -v w="$wall" 'BEGIN { n = split(w, p, ":"); s = 0;
    for (i = 1; i <= n; i++) s = s * 60 + p[i]; print s }')
  RSS[$name]=$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$LOG/$name.time")
  SIZE[$name]=$(du -sb "$db" | cut -f1)
  DOCS[$name]=$(xapian-delve "$db" | awk '/number of documents/ { print $NF }')
  LOAD[$name]=$(mean_load "$LOG/$name.load")
}

echo "tree: $TREE ($files files, $bytes bytes)"
echo "log: $LOG"

# kest-indexer: indexer_bench drops nothing itself, and measures the indexer
# and its extraction worker from /proc (two processes, reported apart).
if step kest; then
  drop_caches
  : >"$LOG/kest.load"
  sample_load "$LOG/kest.load" &
  sampler=$!
  "$ROOT/build/bench/indexer_bench" "$WORK" | tee "$LOG/kest.out"
  kill "$sampler"
  wait "$sampler" 2>/dev/null || true
  T[kest]=$(awk '/^time / { print $2 }' "$LOG/kest.out")
  RSS[kest]=$(awk '/^peak RSS indexer  / { print $4 * 1024; exit }' "$LOG/kest.out")
  # The index as the crawl left it (indexer_bench goes on with a reindex).
  SIZE[kest]=$(awk '/^index size/ { print $3 * 1e9; exit }' "$LOG/kest.out")
  DOCS[kest]=$(awk '/^documents indexed/ { print $3 }' "$LOG/kest.out")
  LOAD[kest]=$(mean_load "$LOG/kest.load")
fi

# recollindex: a private configuration; everything else its defaults.
if step recollindex; then
  rm -rf "$OUT/recoll"
  mkdir -p "$OUT/recoll"
  printf 'topdirs = %s\ndbdir = %s\n' "$TREE" "$OUT/recoll/xapiandb" >"$OUT/recoll/recoll.conf"
  run_peer recollindex "$OUT/recoll/xapiandb" env RECOLL_CONFDIR="$OUT/recoll" recollindex -z
fi

# omindex: default options (one process; stores a sample of each file).
if step omindex; then
  rm -rf "$OUT/omindex"
  run_peer omindex "$OUT/omindex" omindex --db "$OUT/omindex" --url / "$TREE"
fi
if step omindex-text; then
  rm -rf "$OUT/omindex-text"
  as_text=()
  for ext in c h S sh py json rst dts dtsi; do as_text+=("--mime-type=$ext:text/plain"); done
  run_peer omindex-text "$OUT/omindex-text" \
    omindex "${as_text[@]}" --db "$OUT/omindex-text" --url / "$TREE"
fi

echo
printf '%-12s %9s %8s %7s %10s %10s %9s %6s\n' indexer "time s" files/s MB/s "peak MiB" "index GB" documents load
for name in kest recollindex omindex omindex-text; do
  step "$name" || continue
  awk -v n="$name" -v t="${T[$name]}" -v f="$files" -v b="$bytes" -v r="${RSS[$name]}" \
    -v s="${SIZE[$name]}" -v d="${DOCS[$name]}" -v l="${LOAD[$name]}" 'BEGIN {
    printf "%-12s %9.1f %8.0f %7.2f %10.0f %10.2f %9s %6s\n",
           n, t, f / t, b / 1e6 / t, r / 1024, s / 1e9, d, l }'
done
step kest && step recollindex || exit 0
awk -v k="${T[kest]}" -v r="${T[recollindex]}" -v kr="${RSS[kest]}" -v ks="${SIZE[kest]}" \
  -v rs="${SIZE[recollindex]}" 'BEGIN {
  printf "\nfiles/s against recollindex: %.1fx (target 2x)\n", r / k
  printf "peak RSS: %.0f MiB (target under 500 MiB)\n", kr / 1024
  printf "index against recollindex: %.2f (target at most 0.5)\n", ks / rs }'
