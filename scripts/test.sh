#!/usr/bin/env bash
# Builds KestOndri from scratch and runs every test, then runs the unit tests
# again built with AddressSanitizer and UndefinedBehaviorSanitizer.
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
