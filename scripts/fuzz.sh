#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, ASan + UBSan, every layer
# instrumented) in build-fuzz/ and runs each one for FUZZ_SECONDS (default
# 60) per locale it is meant for, starting from its stored corpus
# tests/fuzz/corpus/<name>. New inputs collect in build-fuzz/corpus/<name>;
# with FUZZ_MERGE=1 they are merged, minimised, into the stored corpus.
# A crash, leak or time-out stops the run with libFuzzer's report and the
# input that caused it (build-fuzz/crash-*). fuzz_connection and
# fuzz_transport run a second time in their resource mode
# (TAMIX_FUZZ_RESOURCE=1: every input also fed 32 times over, failing on
# time that grows faster than it).
#   make fuzz [FUZZ_SECONDS=600] [FUZZ_MERGE=1] [FUZZERS="fuzz_codecs ..."]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-60}
build=${FUZZ_BUILD:-build-fuzz}
all=(fuzz_xmsg_reader fuzz_codecs fuzz_requests fuzz_connection fuzz_transport)
read -r -a fuzzers <<<"${FUZZERS:-${all[*]}}"

./scripts/setup.sh clang libclang-rt-dev
if [ ! -f "$build/CMakeCache.txt" ]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DTAMIX_FUZZ=ON -DTAMIX_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j "$(nproc)" --target "${fuzzers[@]}"

# Text conversion follows the locale: the harnesses that convert run under a
# Latin-1 locale as well as UTF-8.
locales_for() {
  case $1 in
    fuzz_codecs|fuzz_xmsg_reader) echo "en_US.UTF-8 en_US.ISO-8859-1" ;;
    *) echo "en_US.UTF-8" ;;
  esac
}

# Runs (and their environment) of a harness: the kernel's connection
# harness also in its resource mode.
modes_for() {
  case $1 in
    fuzz_connection | fuzz_transport) echo "plain resource" ;;
    *) echo "plain" ;;
  esac
}

for f in "${fuzzers[@]}"; do
  stored=tests/fuzz/corpus/$f
  work=$build/corpus/$f
  mkdir -p "$stored" "$work"
  for loc in $(locales_for "$f"); do
    for mode in $(modes_for "$f"); do
      echo "fuzz: $f under $loc ($mode) for ${seconds}s"
      log=$build/$f.$loc.$mode.log
      resource=()
      [ "$mode" = resource ] && resource=(TAMIX_FUZZ_RESOURCE=1)
      if ! (cd "$build" && env "${resource[@]}" LC_ALL="$loc" ASAN_OPTIONS=detect_leaks=1 \
        "./bin/$f" "../$work" "../$stored" -max_total_time="$seconds" -rss_limit_mb=2048 \
        -timeout=10 -print_final_stats=1 >"../$log" 2>&1); then
        echo "fuzz: $f found something; see $log" >&2
        exit 1
      fi
      grep -E '^(Done|stat::(number_of_executed_units|peak_rss_mb))' "$log"
    done
  done
  if [ "${FUZZ_MERGE:-0}" = 1 ]; then
    (cd "$build" && LC_ALL=en_US.UTF-8 "./bin/$f" -merge=1 "../$stored" "../$work" 2>&1 | tail -n 2)
  fi
done
