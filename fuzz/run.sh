#!/usr/bin/env bash
# Runs the loader's fuzz target for a while: `fuzz/run.sh BUILD_FOLDER SECONDS`.
# Crashing inputs go to BUILD_FOLDER/findings; the run goes on after a crash
# (a crash inside libhdf5 cannot be fixed here, see fuzz/hdf5-crashes). The
# exit status is 0 when the fuzzer ran, whatever it found.
set -uo pipefail
build=$1
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)
corpus=$build/corpus
findings=$build/findings
mkdir -p "$corpus" "$findings"
"$build/fuzz/fuzz_seeds" "$corpus" || exit 1
cp "$here"/corpus/* "$corpus"/ 2>/dev/null || true
export ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1
# libhdf5's own leaks on damaged files (see scripts/lsan-suppressions.txt) are no finding.
export LSAN_OPTIONS=suppressions=$here/../scripts/lsan-suppressions.txt:print_suppressions=0
"$build/fuzz/load_fuzzer" -fork=1 -ignore_crashes=1 -ignore_ooms=1 -ignore_timeouts=1 \
  -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=20 \
  -artifact_prefix="$findings/" "$corpus" > "$build/fuzz.log" 2>&1
status=$?
tail -n 3 "$build/fuzz.log"
crashes=$(find "$findings" -name 'crash-*' | wc -l)
echo "fuzz: ran ${seconds}s (exit status $status); $crashes crashing inputs in $findings"
if grep -q "ERROR: libFuzzer" "$build/fuzz.log" && [ "$crashes" -eq 0 ]; then
  exit 1
fi
exit 0
