#!/usr/bin/env bash
# The Debian package on a booted Debian 12: builds the package, boots a
# Debian 12 tree with systemd-nspawn, installs the package with apt-get,
# logs in over HTTP as a real user, indexes a share, searches (and so writes
# the search history as the service user), reads the units' exposure from
# systemd-analyze security, upgrades with an edited configuration file,
# removes and purges. Needs root, systemd-container, debootstrap and sqlite3
# (scripts/install-deps.sh).
#
#   bash tests/package/deb12.sh
#
# KEST_PACKAGE_BUILD: the build folder of the package (build-release).
# KEST_PACKAGE_PAUSE=1: waits after the search, to look into the container.
# KEST_DEB12_ROOT: a Debian 12 tree made by debootstrap (/var/tmp/kest-deb12);
# made here when missing, which needs the network, as does the first run
# (the package's dependencies are installed once into a layer kept beside
# it). Every run starts from that tree and leaves it as it was.
# The commands in single quotes run inside the container, expanded there.
# shellcheck disable=SC2016
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/../.." && pwd)"
BUILD="${KEST_PACKAGE_BUILD:-$ROOT/build-release}"
BASE="${KEST_DEB12_ROOT:-/var/tmp/kest-deb12}"
LAYER="$BASE.kest-deps"
WORK=$(mktemp -d /var/tmp/kest-package.XXXXXX)
NSPAWN=
LEADER=
failures=0

cleanup() {
  if [[ -n $NSPAWN ]] && kill -0 "$NSPAWN" 2>/dev/null; then
    kill -KILL "$NSPAWN" 2>/dev/null || true
    wait "$NSPAWN" 2>/dev/null || true
  fi
  for m in "$WORK/root" "$WORK/prep"; do mountpoint -q "$m" && umount -l "$m"; done
  rm -rf "$WORK"
}
trap cleanup EXIT

check() {  # check DESCRIPTION COMMAND...: runs the command, counts a failure
  local what=$1
  shift
  if "$@" >"$WORK/check.out" 2>&1; then
    echo "ok    $what"
  else
    echo "FAIL  $what"
    sed 's/^/      /' "$WORK/check.out" | tail -20
    failures=$((failures + 1))
  fi
}

echo "== the package"
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DKEST_BUILD_TESTS=OFF \
  -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
cmake --build "$BUILD" -j"$(nproc)" --target package >"$WORK/package.log" 2>&1 ||
  { tail -30 "$WORK/package.log"; exit 1; }
DEB="$BUILD/kestondri_$(sed -n 's/^KEST_VERSION:STRING=//p' "$BUILD/CMakeCache.txt")_$(dpkg --print-architecture).deb"
echo "$DEB"
# The upgrade: the same files under a later version.
dpkg-deb -R "$DEB" "$WORK/next"
sed -i 's/^Version: .*/&+next/' "$WORK/next/DEBIAN/control"
dpkg-deb -b "$WORK/next" "$WORK/kestondri-next.deb" >/dev/null

echo "== Debian 12 with the package's dependencies"
if [[ ! -x $BASE/usr/lib/systemd/systemd ]]; then
  debootstrap --variant=minbase --include=systemd,systemd-sysv,dbus,libpam-runtime \
    bookworm "$BASE" >"$WORK/debootstrap.log" 2>&1 || { tail -20 "$WORK/debootstrap.log"; exit 1; }
fi
deps="$(dpkg-deb -f "$DEB" Depends | sed 's/([^)]*)//g; s/|[^,]*//g; s/,/ /g') logrotate"
deps=$(xargs <<<"$deps")
if [[ "$(cat "$LAYER.stamp" 2>/dev/null)" != "$deps" ]]; then
  rm -rf "$LAYER" "$LAYER.work"
  mkdir -p "$LAYER" "$LAYER.work" "$WORK/prep"
  mount -t overlay overlay -o "lowerdir=$BASE,upperdir=$LAYER,workdir=$LAYER.work" "$WORK/prep"
  systemd-nspawn -q -D "$WORK/prep" --register=no --keep-unit --pipe -E DEBIAN_FRONTEND=noninteractive \
    sh -c "apt-get update -qq && apt-get install -y -qq --no-install-recommends $deps" \
    >"$WORK/deps.log" 2>&1 || { tail -20 "$WORK/deps.log"; exit 1; }
  umount "$WORK/prep"
  echo "$deps" >"$LAYER.stamp"
fi

echo "== boot"
mkdir -p "$WORK/upper" "$WORK/work" "$WORK/root"
mount -t overlay overlay -o "lowerdir=$LAYER:$BASE,upperdir=$WORK/upper,workdir=$WORK/work" "$WORK/root"
cp "$DEB" "$WORK/root/root/kestondri.deb"
cp "$WORK/kestondri-next.deb" "$WORK/root/root/kestondri-next.deb"
# Without registration and with the caller's own cgroup: the machine running
# this need not run systemd. The container's network is its own, so its
# port 5000 is reached through its network namespace.
systemd-nspawn -D "$WORK/root" -b --register=no --keep-unit --console=pipe --private-network \
  -M "kestpkg$$" >"$WORK/console.log" 2>&1 &
NSPAWN=$!
for _ in $(seq 100); do
  LEADER=$(pgrep -P "$NSPAWN" -x systemd || true)
  [[ -n $LEADER ]] && break
  sleep 0.1
done
[[ -n $LEADER ]] || { cat "$WORK/console.log"; exit 1; }
inside() {  # inside COMMAND...: runs a command inside the booted container
  nsenter -t "$LEADER" -m -u -i -n -p -C -r -w \
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
net() { nsenter -t "$LEADER" -n "$@"; }  # the host's program in the container's network
for _ in $(seq 300); do
  state=$(inside systemctl is-system-running 2>/dev/null || true)
  [[ $state == running || $state == degraded ]] && break
  sleep 0.2
done
echo "system: $state"

echo "== install"
UNITS=(kestelasticd kest-indexer kest-webapi-server)
check "apt-get install ./kestondri.deb" \
  inside sh -c 'cd /root && apt-get install -y -q --no-install-recommends ./kestondri.deb'
check "service user KestOndri and group administrators" \
  inside sh -c 'getent passwd KestOndri && getent group administrators'
check "package folders as the libraries expect them" \
  inside sh -c 'test "$(stat -c "%U %a" /var/packages/KestOndri/var)" = "KestOndri 700" &&
            test "$(stat -c "%U %a" /var/packages/KestOndri/var/fileindex)" = "root 700" &&
            test "$(stat -c "%U %a" /var/packages/KestOndri/etc)" = "root 755"'
check "configuration files are conffiles" \
  inside sh -c 'test "$(dpkg-query -W -f="\${Conffiles}\n" kestondri | grep -c "^ /etc/")" -eq 3'
check "logrotate accepts the access log's rotation" inside logrotate -d /etc/logrotate.d/kestondri

# A user with a password, a share with a file of theirs.
inside sh -c 'useradd -m -u 1000 -s /bin/bash tester && echo tester:Kest-pass-1 | chpasswd &&
          useradd -m -u 1001 -s /bin/bash other && echo other:Kest-pass-2 | chpasswd &&
          mkdir -p /volume1/docs/reports &&
          echo "the zebra migration report" > /volume1/docs/reports/zebra.txt &&
          chown -R tester:tester /volume1/docs/reports && chmod 0700 /volume1/docs/reports &&
          printf "[global]\nadmin group = administrators\n\n[docs]\npath = /volume1/docs\n" \
            > /etc/kest/shares.conf'
# A PDF: text extraction runs in the indexer's worker under the unit's limits.
cp "$ROOT/tests/indexer/samples/documents/annual-report.pdf" "$WORK/root/volume1/docs/reports/sighting.pdf"
inside chown tester:tester /volume1/docs/reports/sighting.pdf
inside systemctl restart "${UNITS[@]}"
check "all three services active" inside systemctl is-active "${UNITS[@]}"

echo "== log in, index, search"
URL=http://127.0.0.1:5000/webapi/entry.cgi
call() { net curl -s -m 20 -H 'Content-Type: application/json' -d "$1" "$URL"; }
for _ in $(seq 100); do net curl -s -o /dev/null "$URL" && break; sleep 0.1; done
answer=$(call '{"api":"KEST.API.Auth","method":"login","version":1,"account":"tester","passwd":"Kest-pass-1"}')
SID=$(sed -n 's/.*"sid":"\([0-9a-f]*\)".*/\1/p' <<<"$answer")
check "login over HTTP as tester" test -n "$SID"
answer=$(call '{"api":"KEST.Ondri.FileIndexing.Folder","method":"add","version":1,"_sid":"'"$SID"'",
  "folder":[{"path":"/volume1/docs/reports","name":"Reports"}]}')
check "add a folder to the index ($answer)" grep -q '"success":true' <<<"$answer"
for _ in $(seq 300); do
  status=$(call '{"api":"KEST.Ondri.FileIndexing.Status","method":"get","version":1,"_sid":"'"$SID"'"}')
  [[ $status == *'"index":"finished"'* ]] && break
  sleep 0.2
done
check "indexing finished ($status)" grep -q '"index":"finished"' <<<"$status"
login() {  # login USER PASSWORD: prints the session id
  call '{"api":"KEST.API.Auth","method":"login","version":1,"account":"'"$1"'","passwd":"'"$2"'"}' |
    sed -n 's/.*"sid":"\([0-9a-f]*\)".*/\1/p'
}
search() {  # search SID [WORD]: looks for the word, "zebra" by default
  local word=${2:-zebra}
  call '{"api":"KEST.Ondri.FileIndexing.Search","method":"search","version":1,"_sid":"'"$1"'",
    "indice":["docs"],"keyword":"'"$word"'","orig_keyword":"'"$word"'","from":0,"size":10,"query_serial":1,
    "fields":["KESTMDPath"],"file_type":"","search_weight_list":[]}'
}
answer=$(search "$SID")
check "search finds the file ($answer)" grep -q '/volume1/docs/reports/zebra.txt' <<<"$answer"
answer=$(search "$SID" okapi)
check "search finds the PDF by its text ($answer)" grep -q '/volume1/docs/reports/sighting.pdf' <<<"$answer"
# The daemon checks each hit as the asking user under its narrowed
# capabilities: a user who may not read the folder sees nothing of it.
answer=$(search "$(login other Kest-pass-2)")
check "another user does not see it ($answer)" \
  bash -c 'grep -q "\"total\":0" <<<"$1" && ! grep -q zebra <<<"$1"' _ "$answer"
if [[ -n ${KEST_PACKAGE_PAUSE:-} ]]; then  # to look around: nsenter -t LEADER -a
  echo "paused: container leader $LEADER; touch $WORK/continue to go on"
  until [[ -e $WORK/continue ]]; do sleep 1; done
fi
history_rows() {
  sqlite3 -readonly "$WORK/root/var/packages/KestOndri/var/kestondri.db" \
    "SELECT group_concat(uid || ':' || keyword, ' ') FROM (SELECT * FROM search_history ORDER BY uid, keyword)"
}
for _ in $(seq 50); do [[ "$(history_rows 2>/dev/null)" == "1000:okapi 1000:zebra 1001:zebra" ]] && break; sleep 0.1; done
check "each user's search is in the history, database owned by KestOndri" \
  sh -c 'echo "database: $1, history rows: $2"; test "$1" = "KestOndri 600" -a "$2" = "1000:okapi 1000:zebra 1001:zebra"' _ \
  "$(inside stat -c '%U %a' /var/packages/KestOndri/var/kestondri.db 2>&1)" "$(history_rows 2>&1)"
check "access log written" inside test -s /var/log/kestondri/webapi-access.log
inside logrotate -f /etc/logrotate.d/kestondri
# The reload that makes the server reopen its log is a signal: no waiting.
for _ in $(seq 50); do
  login other Kest-pass-2 >/dev/null
  inside grep -q KEST.API.Auth /var/log/kestondri/webapi-access.log 2>/dev/null && break
  sleep 0.1
done
check "after rotation the server writes to the new access log" \
  inside sh -c 'test -s /var/log/kestondri/webapi-access.log.1 &&
                grep -q KEST.API.Auth /var/log/kestondri/webapi-access.log'

echo "== exposure (systemd-analyze security)"
for unit in "${UNITS[@]}"; do
  figure=$(inside systemd-analyze security --no-pager "$unit.service" | sed -n 's/.*exposure level for .*: \([0-9.]*\).*/\1/p')
  limit=5.0
  [[ $unit == kest-webapi-server ]] && limit=6.5
  check "$unit.service exposure $figure (at most $limit)" awk -v f="$figure" -v l="$limit" \
    'BEGIN { exit !(f != "" && f <= l) }'
done

echo "== upgrade with an edited configuration file"
inside sh -c 'echo "; edited by the administrator" >> /etc/kest/webapi-server.conf'
check "apt-get install ./kestondri-next.deb" \
  inside sh -c 'cd /root && apt-get install -y -q --no-install-recommends ./kestondri-next.deb'
check "the edited configuration file is kept" inside grep -q "edited by the administrator" /etc/kest/webapi-server.conf
check "all three services active after the upgrade" inside systemctl is-active "${UNITS[@]}"

echo "== remove and purge"
check "apt-get remove" inside apt-get remove -y -q kestondri
check "services stopped" inside sh -c '! systemctl is-active kestelasticd kest-indexer kest-webapi-server'
check "programs gone, configuration kept" \
  inside sh -c '! test -e /usr/sbin/kestelasticd && test -e /etc/kest/webapi-server.conf'
check "apt-get purge" inside apt-get purge -y -q kestondri
check "purge removes the package's files and folders" \
  inside sh -c '! test -e /etc/kest/webapi-server.conf && ! test -e /var/packages/KestOndri &&
            ! test -e /var/log/kestondri && ! test -e /etc/pam.d/kestondri'
check "purge keeps the index, the shares and shares.conf" \
  inside sh -c 'test -d /volume1/@kestondri/index && test -s /volume1/docs/reports/zebra.txt &&
            test -s /etc/kest/shares.conf'

if ((failures)); then
  echo "== journal of the services"
  inside journalctl --no-pager -q -p notice | grep -v ' systemd\[' | tail -40 || true
fi
inside systemctl poweroff >/dev/null 2>&1 || true
for _ in $(seq 100); do kill -0 "$NSPAWN" 2>/dev/null || break; sleep 0.2; done
echo "== $failures failure(s)"
((failures == 0))
