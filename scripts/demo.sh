#!/usr/bin/env bash
# Runs the whole product for a demo: installs what is needed, builds, creates
# demo users, shares and sample files, starts kestelasticd, kest-indexer and
# the web API server with the web page, indexes the shares, and prints the
# page's address and how to log in. Ctrl-C stops everything.
#
# By default everything happens in private namespaces: the demo's users,
# /etc, /run, /tmp, /dev/log, /volume1 and /var/packages exist only there, so
# the machine's own users, folders and services (an installed KestOndri
# included) are untouched (empty mount points are created for folders that
# do not exist yet). The checkout may lie anywhere, /tmp included. The web
# API server listens on the machine's loopback, so a browser or curl on the
# machine reaches it.
#
#   bash scripts/demo.sh            # the demo, in private namespaces
#   KEST_DEMO_PORT=5080 bash scripts/demo.sh
#
# Logs: build/demo-logs/: syslog.log (what the services send to syslog),
# each service's standard error, the access log.
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
BUILD="$ROOT/build"
PORT="${KEST_DEMO_PORT:-5000}"
LOGS="$BUILD/demo-logs"

if [[ $EUID -ne 0 ]]; then
  echo "demo.sh: run as root (it creates users and mounts in its own namespace)" >&2
  exit 1
fi

if [[ "${1:-}" != "--inside" ]]; then
  bash "$ROOT/scripts/install-deps.sh"
  cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$BUILD" -j"$(nproc)" --target kestelasticd kest-indexer kest-extract-worker \
    kest-webapi-server kestondri_webapi kest_web
  if curl -s -o /dev/null "http://127.0.0.1:$PORT/" 2>/dev/null; then
    echo "demo.sh: port $PORT is taken; set KEST_DEMO_PORT" >&2
    exit 1
  fi
  created=()
  for d in /volume1 /var/packages; do
    if [[ ! -d $d ]]; then
      mkdir -p "$d"
      created+=("$d")
    fi
  done
  mkdir -p "$LOGS"
  rc=0
  unshare --mount --propagation private -- bash "$0" --inside || rc=$?
  for d in "${created[@]}"; do rmdir "$d" 2>/dev/null || true; done
  exit "$rc"
fi

# ---------------------------------------------------------------------------
# Inside the private mount namespace.

# The checkout stays reachable at its own path even when it lies under a
# folder that is covered next (/tmp, /run, ...): fd 9 keeps the original,
# and it is bound back onto the same path on the new file system (mount
# must not resolve the descriptor's link to a path: that path is covered).
exec 9<"$ROOT"
cover() {  # cover DIR: a fresh tmpfs on DIR, the checkout bound back if it lay below
  mount -t tmpfs -o mode=0755 kestdemo "$1"
  if [[ $ROOT == "$1"/* ]]; then
    mkdir -p "$ROOT"
    mount --no-canonicalize --bind /proc/self/fd/9 "$ROOT"
  fi
}
cover /run
STATE=/run/kestondri-demo
mkdir -p "$STATE"

# A private /etc: the demo adds users and groups with the system's own tools
# and writes its own /etc/kest and PAM service.
cp -a /etc "$STATE/etc"
mount --bind "$STATE/etc" /etc
rm -rf /etc/kest
mkdir -p /etc/kest
cp "$ROOT/host/dist/kestondri.pam" /etc/pam.d/kestondri

# A private /dev with the machine's devices and a /dev/log of its own, read
# by a small logger that writes the services' syslog lines to the logs.
mkdir -p "$STATE/dev"
mount --rbind /dev "$STATE/dev"
mapfile -d '' devices < <(find /dev -mindepth 1 -maxdepth 1 ! -name log -printf '%f\0')
mount -t tmpfs -o mode=0755,nosuid kestdemo /dev
for name in "${devices[@]}"; do
  entry="$STATE/dev/$name"
  if [[ -L $entry ]]; then
    cp -P "$entry" "/dev/$name"
  elif [[ -d $entry ]]; then
    mkdir "/dev/$name"
    mount --rbind "$entry" "/dev/$name"
  else
    touch "/dev/$name"
    mount --bind "$entry" "/dev/$name"
  fi
done
perl -MSocket -MIO::Socket::UNIX -e '
  my $s = IO::Socket::UNIX->new(Type => SOCK_DGRAM, Local => "/dev/log") or die "/dev/log: $!";
  chmod 0666, "/dev/log";
  my @level = qw(emerg alert crit err warning notice info debug);
  open(my $out, ">>", $ARGV[0]) or die "$ARGV[0]: $!";
  $out->autoflush(1);
  $SIG{TERM} = sub { exit 0 };
  while (defined $s->recv(my $m, 65536)) {
    $m =~ s/\n+$//;
    $m =~ s/^<(\d+)>/$level[$1 & 7] / if $m =~ /^<\d+>/;
    print $out "$m\n";
  }' "$LOGS/syslog.log" &
LOGGER=$!
trap 'kill "$LOGGER" 2>/dev/null' EXIT

for d in /volume1 /var/packages /tmp; do
  cover "$d"
done
chmod 1777 /tmp

# The service user and the administrators group, and the package's folders,
# from the files the package installs.
systemd-sysusers "$ROOT/dist/kestondri.sysusers"
systemd-tmpfiles --create "$ROOT/dist/kestondri.tmpfiles"

free_id() {  # free_id FROM: the first id at or above FROM used by no user and no group
  local id=$1
  while cut -d: -f3 /etc/passwd /etc/group | grep -qx "$id"; do id=$((id + 1)); done
  echo "$id"
}
add_group() {  # add_group NAME MEMBER,...: creates the group if needed, adds the members
  getent group "$1" >/dev/null || groupadd -g "$(free_id 3100)" "$1"
  local member
  for member in ${2//,/ }; do usermod -a -G "$1" "$member"; done
}
declare -A PASSWORDS
add_user() {  # add_user NAME FULL-NAME
  local name=$1 uid password hash
  if grep -q "^$name:" /etc/passwd; then
    echo "demo.sh: a user $name exists already on this machine" >&2
    exit 1
  fi
  uid=$(free_id 3101)
  password=$(tr -dc 'A-Za-z0-9' </dev/urandom | head -c 12 || true)
  hash=$(perl -e 'my @c = ("a".."z", "A".."Z", 0..9, ".", "/");
                  my $s = join "", map { $c[rand @c] } 1..16;
                  print crypt($ARGV[0], "\$6\$$s\$")' "$password")
  groupadd -g "$uid" "$name"
  useradd -u "$uid" -g "$uid" -c "$2" -d "/volume1/homes/$name" -M -s /bin/bash -p "$hash" "$name"
  PASSWORDS[$name]=$password
}
add_user alice "Alice (administrator)"
add_user bruno "Bruno"
add_user chen "Chen"
add_group administrators alice
add_group staff alice,bruno

cat >/etc/kest/shares.conf <<'EOF'
; Shares of the demo.
[global]
admin group = administrators
user home = no

[public]
path = /volume1/public

[projects]
path = /volume1/projects
write list = @staff
invalid users = chen
EOF

# Sample files: every format the indexer reads, different owners and modes.
P=/volume1/public
mkdir -p "$P/library" "$P/bruno-private" "$P/chen" /volume1/projects/observatory
cp "$ROOT"/tests/indexer/samples/documents/* "$P/library"
cat >"$P/library/README" <<'EOF'
The shared library of the demo: reports, minutes, budgets and letters.
EOF
cat >"$P/library/notes.txt" <<'EOF'
Shopping list for the observatory: mirrors, eyepieces, a red torch.
EOF
cat >"$P/library/guide.md" <<'EOF'
# Guide
Search works on file names and on the text inside documents.
EOF
cat >"$P/library/welcome.html" <<'EOF'
<html><head><title>Welcome</title></head>
<body><h1>Welcome</h1><p>The nebula exhibition opens on Friday.</p></body></html>
EOF
cat >"$P/library/orbit.c" <<'EOF'
/* Computes the orbital period of a satellite. */
double orbital_period(double semi_major_axis);
EOF
printf 'planet,moons\nJupiter,95\nSaturn,146\n' >"$P/library/moons.csv"
printf 'caf\xe9 cr\xe8me br\xfbl\xe9e\n' >"$P/library/latin1-recipe.txt"
printf '\xff\xd8\xff\xe0\x00\x10JFIF\x00' >"$P/library/andromeda.jpg"
printf 'ID3\x03\x00' >"$P/library/pulsar-sounds.mp3"
printf '\x00\x00\x00\x18ftypmp42' >"$P/library/launch.mp4"
chown -R alice:alice "$P/library"
chmod -R a+rX "$P/library"

echo "Dear diary: the telescope arrived today." >"$P/bruno-private/diary.txt"
chown -R bruno:bruno "$P/bruno-private"
chmod 0700 "$P/bruno-private"
chmod 0600 "$P/bruno-private/diary.txt"

echo "Chen's telescope calibration notes." >"$P/chen/calibration.txt"
chown -R chen:chen "$P/chen"
chmod 0750 "$P/chen"
# Bruno may read Chen's folder through an ACL, nobody else.
setfacl -m u:bruno:rx "$P/chen"

cat >/volume1/projects/observatory/plan.md <<'EOF'
# Observatory plan
Staff only: the telescope dome is repainted in March.
EOF
chown -R alice:staff /volume1/projects
chmod -R 2770 /volume1/projects
chmod 0755 /volume1/projects

# The services.
cat >"$STATE/webapi-server.conf" <<EOF
[server]
address = 127.0.0.1
port = $PORT
static_root = $BUILD/www
access_log = $LOGS/webapi-access.log
login_failure_delay_ms = 300

[modules]
kestondri = $BUILD/src/libkestondri_webapi.so
EOF

PIDS=("$LOGGER")
stop() {
  trap - INT TERM HUP EXIT
  echo
  echo "Stopping..."
  for ((i = ${#PIDS[@]} - 1; i >= 0; i--)); do kill -TERM "${PIDS[i]}" 2>/dev/null || true; done
  wait 2>/dev/null || true
  echo "Stopped. Logs are in $LOGS."
  exit 0
}
trap stop INT TERM HUP EXIT

# Each service in its own session: Ctrl-C reaches this script, which stops
# them in order, and not the services themselves mid-way.
setsid "$BUILD/daemon/kestelasticd" >"$LOGS/kestelasticd.log" 2>&1 &
PIDS+=($!)
setsid "$BUILD/indexer/kest-indexer" --stderr >"$LOGS/kest-indexer.log" 2>&1 &
PIDS+=($!)
setsid "$BUILD/host/kest-webapi-server" --config "$STATE/webapi-server.conf" \
  >"$LOGS/kest-webapi-server.log" 2>&1 &
PIDS+=($!)

URL="http://127.0.0.1:$PORT/webapi/entry.cgi"
call() {  # call JSON: POSTs a JSON request, prints the answer
  curl -s -H 'Content-Type: application/json' -d "$1" "$URL"
}
for _ in $(seq 100); do
  curl -s -o /dev/null "$URL" && break
  sleep 0.1
done

login() {  # login USER: prints the session id
  call "{\"api\":\"KEST.API.Auth\",\"method\":\"login\",\"version\":1,\
\"account\":\"$1\",\"passwd\":\"${PASSWORDS[$1]}\"}" | grep -o '"sid":"[0-9a-f]*"' | cut -d'"' -f4
}
SID=$(login alice)
if [[ -z $SID ]]; then
  echo "demo.sh: the administrator could not log in; see $LOGS" >&2
  stop
fi
answer=$(call "{\"api\":\"KEST.Ondri.FileIndexing.Folder\",\"method\":\"add\",\"version\":1,\
\"_sid\":\"$SID\",\"folder\":[{\"path\":\"/volume1/public\",\"name\":\"Public\"},\
{\"path\":\"/volume1/projects/observatory\",\"name\":\"Observatory\"}]}")
echo "Folders added: $answer"
for _ in $(seq 600); do
  status=$(call "{\"api\":\"KEST.Ondri.FileIndexing.Status\",\"method\":\"get\",\"version\":1,\
\"_sid\":\"$SID\"}")
  [[ $status == *'"index":"finished"'* ]] && break
  sleep 0.2
done
echo "Indexing: $status"

cat <<EOF

KestOndri is running. Open the page in a browser on this machine:

  http://127.0.0.1:$PORT/

Users of this demo:

  alice  ${PASSWORDS[alice]}   administrator, member of staff
  bruno  ${PASSWORDS[bruno]}   member of staff; owns public/bruno-private (private)
  chen   ${PASSWORDS[chen]}   may not use the share "projects"

Search for "telescope" as bruno, then as chen: bruno sees his diary, Chen's
notes and the staff plan; chen sees neither the diary nor the plan. alice, an
administrator, manages the indexed folders under "Folders".

The same with curl: log in as bruno and keep the session id:

  SID=\$(curl -s -H 'Content-Type: application/json' -d '{"api":"KEST.API.Auth","method":"login","version":1,"account":"bruno","passwd":"${PASSWORDS[bruno]}"}' $URL | sed -n 's/.*"sid":"\([0-9a-f]*\)".*/\1/p')

then search:

  curl -s -H 'Content-Type: application/json' -d '{"api":"KEST.Ondri.FileIndexing.Search","method":"search","version":1,"_sid":"'\$SID'","indice":["public","projects"],"keyword":"telescope","from":0,"size":50,"query_serial":1,"fields":["KESTMDPath","KESTMDFSName"],"file_type":"","search_weight_list":[]}' $URL

Other words to try: nebula, observatory, mirrors, Jupiter, crème, andromeda.
Folder list, status, pause and resume: api KEST.Ondri.FileIndexing.Folder
("list") and KEST.Ondri.FileIndexing.Status ("get", "pause", "resume").

Logs: $LOGS. Press Ctrl-C to stop.
EOF

while :; do
  for pid in "${PIDS[@]}"; do
    if ! kill -0 "$pid" 2>/dev/null; then
      echo "A service stopped unexpectedly; see $LOGS." >&2
      stop
    fi
  done
  sleep 1 &
  wait $! || true
done
