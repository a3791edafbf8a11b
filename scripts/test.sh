#!/usr/bin/env bash
# Builds KestOndri from scratch and runs every test, then runs the unit tests
# again built with AddressSanitizer and UndefinedBehaviorSanitizer, runs the
# fuzz targets briefly and tests the Debian package on a booted Debian 12.
# Needs root: the tests run in private namespaces (see tests/support).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc)
rm -rf build build-asan

echo "== format check"
git ls-files '*.cc' '*.h' | grep -v '^third_party/' | xargs clang-format --dry-run --Werror

echo "== build"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"

echo "== tests"
ctest --test-dir build --output-on-failure -j"$jobs"

echo "== unit tests under AddressSanitizer and UndefinedBehaviorSanitizer"
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKEST_SANITIZE=ON >/dev/null
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" -L unit

echo "== fuzz targets, a short run each on its seed corpus"
rm -rf build-fuzz
cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++-14 \
  -DCMAKE_C_COMPILER=clang-14 -DKEST_FUZZ=ON -DKEST_BUILD_TESTS=OFF >/dev/null
cmake --build build-fuzz -j"$jobs" --target fuzz_targets
for seeds in tests/fuzz/corpus/*/; do
  target=$(basename "$seeds")
  mkdir -p "build-fuzz/corpus/$target"
  if ! build-fuzz/tests/fuzz/"$target"_fuzz "build-fuzz/corpus/$target" "$seeds" \
    -max_total_time=15 -rss_limit_mb=2048 -artifact_prefix="build-fuzz/$target-" \
    >"build-fuzz/$target.log" 2>&1; then
    cat "build-fuzz/$target.log"
    exit 1
  fi
  echo "$target: $(tail -n 1 "build-fuzz/$target.log")"
done

echo "== the Debian package on a booted Debian 12"
bash tests/package/deb12.sh
