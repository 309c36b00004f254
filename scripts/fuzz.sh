#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/<name>.cpp) with clang in a build folder
# of their own, the project's sources instrumented alongside, and runs each
# for FUZZ_SECONDS (default 60) under AddressSanitizer and
# UndefinedBehaviorSanitizer, one after another on one core.
#   scripts/fuzz.sh              every target
#   scripts/fuzz.sh xml_build    the named targets
# Inputs that grew coverage are kept in <build>/corpus/<name>/ (the seeds in
# fuzz/corpus/<name>/ are only read); a crash stops that target, leaves its
# input in <build>/artifacts/<name>/ and fails the run. The executions of each
# target are summed up in <build>/summary.txt.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$(realpath -m "${FUZZ_BUILD:-build-fuzz}")
seconds=${FUZZ_SECONDS:-60}
jobs=${JOBS:-2}

cxx=""
for candidate in clang++-14 clang++; do
  if command -v "$candidate" >/dev/null; then cxx=$(command -v "$candidate"); break; fi
done
if [[ -z $cxx ]]; then
  echo "fuzz: no clang++ on this machine (scripts/setup.sh fuzz installs clang-14 and libclang-rt-14-dev)" >&2
  exit 1
fi
mkdir -p "$build"
probe="$build/libfuzzer-probe"
if ! printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }\n' |
    "$cxx" -fsanitize=fuzzer -x c++ - -o "$probe" 2>/dev/null; then
  echo "fuzz: $cxx cannot link libFuzzer (scripts/setup.sh fuzz installs libclang-rt-14-dev)" >&2
  exit 1
fi
rm -f "$probe"

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER="$cxx" -DZEL_FUZZ=ON \
  -DZEL_SANITIZE=fuzzer-no-link,address,undefined >/dev/null
cmake --build "$build" -j "$jobs" --target fuzz_targets

targets=("$@")
if [[ ${#targets[@]} -eq 0 ]]; then
  for source in fuzz/*.cpp; do targets+=("$(basename "$source" .cpp)"); done
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
summary="$build/summary.txt"
printf '%-22s %12s %8s %8s  %s\n' target executions seconds corpus result | tee "$summary"
failed=0
for name in "${targets[@]}"; do
  corpus="$build/corpus/$name"
  artifacts="$build/artifacts/$name"
  # Each target runs in a scratch folder of its own: whatever a fuzzed input
  # makes the code write under a relative name lands there.
  scratch="$build/scratch/$name"
  mkdir -p "$corpus" "$artifacts" "$scratch" "$build/logs"
  options=(-max_total_time="$seconds" -print_final_stats=1 -timeout=10 -rss_limit_mb=2048
           -artifact_prefix="$artifacts/")
  if [[ -f fuzz/$name.dict ]]; then options+=(-dict="$root/fuzz/$name.dict"); fi
  log="$build/logs/$name.log"
  result=clean
  if ! (cd "$scratch" && "$build/fuzz/fuzz_$name" "${options[@]}" "$corpus" "$root/fuzz/corpus/$name") >"$log" 2>&1; then
    result="FAILED (see $log)"
    failed=1
  fi
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  elapsed=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log" | tail -1)
  printf '%-22s %12s %8s %8s  %s\n' "$name" "${executions:-?}" "${elapsed:-?}" \
    "$(find "$corpus" -type f | wc -l)" "$result" | tee -a "$summary"
done
exit $failed
