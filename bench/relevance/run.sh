#!/usr/bin/env bash
# Relevance against Recoll: generates the multilingual corpus (make_corpus.py),
# indexes it with kest-indexer (served by kestelasticd) and with recollindex
# (Debian's recoll, default settings, its own configuration folder), runs
# every query of queries.tsv against both in the same run and prints, per
# case, the share of queries each answered right (score.py says how a query
# is judged). Figures go to bench/RESULTS.md by hand.
#
#   bash bench/relevance/run.sh BUILD_DIR   (as root; about a minute)
#
# BUILD_DIR holds kestelasticd, kest-indexer, its extraction worker and the
# indexing library (any build type; tests need not be built). SEED=N picks
# another corpus; KEEP=1 keeps the work folder (corpus, indexes, logs and
# details.txt, every query's hits), which is otherwise removed after a run
# that worked.
#
# The product runs as installed, but in a private mount namespace: tmpfs over
# /etc/kest and /var/packages, the corpus bound on /volume1 (one share per
# top folder: main, francais, deutsch), so the machine's own configuration,
# folders and an installed KestOndri are untouched; mount points that do not
# exist yet are made for the run and removed after it. The services' log
# lines still reach the machine's syslog, if it has one, and the work folder.
set -euo pipefail
HERE="$(cd "$(dirname "$0")" && pwd)"
ROOT="$(cd "$HERE/../.." && pwd)"
PY=/usr/bin/python3
SHARES=(main francais deutsch)

die() {
  echo "run.sh: $*" >&2
  exit 1
}

if [[ "${1:-}" != --inside ]]; then
  BUILD="$(realpath "${1:?usage: run.sh BUILD_DIR}")"
  [[ $EUID -eq 0 ]] || die "run as root (it mounts in a namespace of its own)"
  for f in daemon/kestelasticd indexer/kest-indexer indexer/kest-extract-worker \
    platform/libkestondri_fileindex.so; do
    [[ -e $BUILD/$f ]] || die "$BUILD/$f is missing: build the product first"
  done
  # Bench-only tools, not product dependencies: recoll, and the helpers its
  # filters use for PDF and office files (which a user of it installs).
  need=()
  command -v recollindex >/dev/null || need+=(recollcmd)
  command -v pdftotext >/dev/null || need+=(poppler-utils)
  $PY -c 'import lxml' 2>/dev/null || need+=(python3-lxml)
  if ((${#need[@]})); then
    apt-get install -y "${need[@]}" >/dev/null
  fi

  WORK="$(mktemp -d /tmp/kest-relevance.XXXXXX)"
  $PY "$HERE/make_corpus.py" --seed "${SEED:-1}" --queries "$HERE/queries.tsv" "$WORK/corpus"
  # shellcheck disable=SC2046
  g++ -std=c++17 -O1 -I"$ROOT/platform/include" $(pkg-config --cflags jsoncpp) \
    "$HERE/add_folders.cc" -o "$WORK/add_folders" -L"$BUILD/platform" -lkestondri_fileindex \
    $(pkg-config --libs jsoncpp) -Wl,-rpath,"$BUILD/platform"

  created=()
  for d in /volume1 /var/packages /etc/kest; do
    if [[ ! -d $d ]]; then
      mkdir -p "$d"
      created+=("$d")
    fi
  done
  rc=0
  unshare --mount --propagation private -- bash "$0" --inside "$BUILD" "$WORK" || rc=$?
  for d in "${created[@]}"; do rmdir "$d" 2>/dev/null || true; done
  if [[ $rc -eq 0 && -z ${KEEP:-} ]]; then
    rm -rf "$WORK"
  else
    echo "work folder kept: $WORK"
  fi
  exit "$rc"
fi

# ---------------------------------------------------------------------------
# Inside the private mount namespace.
BUILD=$2
WORK=$3
mount -t tmpfs -o mode=0755 kestrel /etc/kest
mount -t tmpfs -o mode=0755 kestrel /var/packages
mount --bind "$WORK/corpus" /volume1

pids=()
stop() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait
}
trap stop EXIT

seconds() { date +%s.%N; }
since() { awk -v a="$1" -v b="$(seconds)" 'BEGIN { printf "%.1f", b - a }'; }

# Recoll: the shares' folders as its top folders, everything else default.
mkdir -p "$WORK/recoll"
printf 'topdirs = %s\ndbdir = %s\n' "${SHARES[*]/#//volume1/}" "$WORK/recoll/xapiandb" \
  >"$WORK/recoll/recoll.conf"
t0=$(seconds)
RECOLL_CONFDIR="$WORK/recoll" recollindex -z >"$WORK/recollindex.log" 2>&1 ||
  die "recollindex failed; see $WORK/recollindex.log"
echo "recollindex: $(since "$t0") s"

# KestOndri: the shares, the French and German ones with their language as
# an operator would set it, their folders added as the web API does, then the
# indexer until every queue is worked off and its term suggestions are made.
declare -A LANGUAGE=([francais]=french [deutsch]=german)
for s in "${SHARES[@]}"; do
  printf '[%s]\npath = /volume1/%s\n' "$s" "$s"
  if [[ -n ${LANGUAGE[$s]:-} ]]; then printf 'index language = %s\n' "${LANGUAGE[$s]}"; fi
done >/etc/kest/shares.conf
"$WORK/add_folders" "${SHARES[@]/#//volume1/}"
t0=$(seconds)
"$BUILD/indexer/kest-indexer" --stderr --suggest-delay=1 >"$WORK/kest-indexer.log" 2>&1 &
pids+=($!)
for _ in $(seq 3000); do
  compgen -G '/volume1/@kestondri/queue/*.queue' >/dev/null || break
  kill -0 "${pids[0]}" 2>/dev/null || die "kest-indexer stopped; see $WORK/kest-indexer.log"
  sleep 0.1
done
compgen -G '/volume1/@kestondri/queue/*.queue' >/dev/null && die "indexing took over 300 s"
echo "kest-indexer: $(since "$t0") s"
sleep 2
pidfile=/var/packages/KestOndri/etc/updater.term.sugg.pid
for _ in $(seq 300); do
  [[ -e $pidfile ]] || break
  sleep 0.1
done

sock=$WORK/kestelasticd.sock
"$BUILD/daemon/kestelasticd" --socket "$sock" >"$WORK/kestelasticd.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do
  [[ -S $sock ]] && break
  sleep 0.05
done
[[ -S $sock ]] || die "kestelasticd did not start; see $WORK/kestelasticd.log"

echo
$PY "$HERE/score.py" --queries "$HERE/queries.tsv" --root /volume1 --socket "$sock" \
  --indices "$(printf 'fileindex_%s,' "${SHARES[@]}" | sed 's/,$//')" \
  --recoll-conf "$WORK/recoll" --details "$WORK/details.txt"
