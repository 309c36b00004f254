#!/usr/bin/env bash
# Builds the project with sanitizers in a build folder of its own and runs the
# whole test suite under them; any finding fails the run.
#   scripts/test-sanitized.sh address,undefined build-asan
#   scripts/test-sanitized.sh thread build-tsan
set -euo pipefail
cd "$(dirname "$0")/.."
sanitize=${1:?sanitizers, e.g. address,undefined}
build=${2:?build folder}
jobs=${JOBS:-2}

if [[ $sanitize == *thread* ]] && grep -rqn "atomic_thread_fence" src include; then
  # The thread build silences GCC's warning about Boost.Asio's fences (see
  # CMakeLists.txt); fences of our own would hide from the sanitizer unseen.
  echo "test-sanitized: atomic_thread_fence in our own code: ThreadSanitizer does not model it" >&2
  exit 1
fi

cmake -S . -B "$build" -G Ninja -DZEL_SANITIZE="$sanitize" >/dev/null
cmake --build "$build" -j "$jobs"

# A finding ends the process with a report; leaks count as findings.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:check_initialization_order=1:strict_init_order=1:detect_stack_use_after_return=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-second_deadlock_stack=1:halt_on_error=1}
cd "$build"
ctest --output-on-failure -j "$jobs" --timeout 900
