#!/usr/bin/env bash
# Installs what is missing, builds and runs every test: a normal build (GUI tests under
# Xvfb at depth 24), every test again under AddressSanitizer + UndefinedBehaviorSanitizer,
# the threaded subsystems under ThreadSanitizer, and every libFuzzer harness for a short while.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/setup.sh
# the include layers first: an upward include or a circle fails before anything is built
tools/check_layers.sh
jobs=$(nproc)
# line tables only: the sanitizers' and debuggers' stack traces keep their files and
# lines, and the cold builds of a fresh clone take about a third less time than with -g
lines=(-DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" -DCMAKE_CXX_FLAGS_DEBUG="-g1")

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo "${lines[@]}" -DQUORIX_WERROR=ON >/dev/null
cmake --build build -j"$jobs"
xvfb-run -a -s "-screen 0 1280x1024x24" \
  ctest --test-dir build --output-on-failure -j"$jobs" --no-tests=error

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug "${lines[@]}" -DQUORIX_SANITIZE=ON \
  -DQUORIX_GUI=ON -DQUORIX_BENCH=OFF >/dev/null
cmake --build build-asan -j"$jobs"
# one suppression file for every sanitizer run: leaks kept by system libraries only
export LSAN_OPTIONS="suppressions=$PWD/tests/sanitizer/lsan.supp:print_suppressions=0"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1 \
  xvfb-run -a -s "-screen 0 1280x1024x24" \
  ctest --test-dir build-asan --output-on-failure -j"$jobs" --no-tests=error

cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo "${lines[@]}" -DQUORIX_TSAN=ON \
  -DQUORIX_GUI=OFF -DQUORIX_BENCH=OFF -DQUORIX_TEST_FOLDERS="dti;fiber;study" >/dev/null
# their tests and the one program they run; the commands and the viewer are not needed
cmake --build build-tsan -j"$jobs" --target test_dti test_fiber test_study quorix-gen-gradients
# high mmap randomisation on newer kernels trips ThreadSanitizer; run without ASLR. The
# subsystems that start threads; the viewer link has none, and its polling protocol runs
# too slowly under the instrumentation for its retry limits
TSAN_OPTIONS=halt_on_error=1 setarch "$(uname -m)" -R \
  ctest --test-dir build-tsan --output-on-failure -j"$jobs" -L '^(dti|fiber|study)$' --no-tests=error

# every reader of untrusted bytes under libFuzzer, briefly (longer runs: tools/fuzz.sh 600)
tools/fuzz.sh 6
