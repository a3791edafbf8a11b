#!/usr/bin/env bash
# Installs every package needed to build, test and run KestOndri on Debian 12.
# Idempotent: packages already present are left as they are.
set -euo pipefail

packages=(
  # build
  build-essential cmake pkg-config clang-format
  # libraries
  libjsoncpp-dev libsqlite3-dev libpam0g-dev libacl1-dev libinih-dev
  libboost-dev libboost-system-dev libxapian-dev libpoppler-cpp-dev
  libarchive-dev libxml2-dev libuchardet-dev libcrypt-dev libicu-dev
  # tests and tools (clang and its runtimes build the fuzz targets)
  libgtest-dev libgmock-dev acl xapian-tools util-linux iproute2 curl procps
  clang-14 libclang-rt-14-dev
  # benchmarks
  wrk
  # the web page's tests and benchmark: Debian's Chromium (driven from Node)
  chromium
  # the Debian package (CPack's shlibdeps needs file) and its test on a booted Debian 12
  dpkg-dev file systemd-container debootstrap sqlite3
)

# Node.js for the page's tests; a machine may bring its own.
command -v node >/dev/null && command -v npm >/dev/null || packages+=(nodejs npm)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if ((${#missing[@]})); then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# Playwright (to drive Chromium) and axe-core for the page's tests, at the
# versions of the lock file; they use Debian's Chromium, never a download.
browser_tests="$(cd "$(dirname "$0")/.." && pwd)/tests/browser"
if [[ ! -f $browser_tests/node_modules/.package-lock.json ||
      $browser_tests/package-lock.json -nt $browser_tests/node_modules/.package-lock.json ]]; then
  PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --prefix "$browser_tests" --no-audit --no-fund \
    --loglevel=error
fi
