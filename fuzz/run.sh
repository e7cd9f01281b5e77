#!/usr/bin/env bash
# Runs the fuzz targets.
#
#   fuzz/run.sh ci [RUNS]                  every target for RUNS inputs (default 2000) beyond its
#                                          seeds and kept inputs; fails on any finding
#   fuzz/run.sh campaign SECONDS [TARGET…] long runs that keep what they grow: new inputs go to
#                                          tests/fuzz/<target>/corpus, minimised crashers to
#                                          tests/fuzz/<target>/crashers; TNEF_FUZZ_JOBS=N runs
#                                          N targets at once (one core each)
#
# tests/fuzz/<target>/sample holds a few hundred inputs grown from the builder seeds alone
# (kept in the repository; the resource test runs them too).
# Seeds are made fresh each time (builder streams, and the shared corpus when ../shared is
# beside the checkout); they are never stored in the repository.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
mode=${1:-ci}
targets=(decode getprop scan oemcodepage parsedata writeblob encode read rtf deencap convert unwrap)

cmake --preset fuzz >/dev/null
cmake --build build/fuzz
cmake --preset debug >/dev/null
cmake --build build/debug --target tnef_fuzz_seeds

seeds="$root/build/fuzz/seeds"
rm -rf "$seeds"
corpus_files="${TNEF_CORPUS:-$root/../shared/corpus}/files"
if [ -d "$corpus_files" ]; then
  build/debug/tests/tnef_fuzz_seeds "$seeds" "$corpus_files"
else
  echo "no shared corpus beside this checkout: builder seeds only"
  build/debug/tests/tnef_fuzz_seeds "$seeds"
fi

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:allocator_may_return_null=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
common=(-timeout=10 -rss_limit_mb=2048 -max_len=65536)
# A target with a dictionary of its own (fuzz/<target>.dict) uses it; the others the stream's.
dict_for() {
  if [ -f "$root/fuzz/$1.dict" ]; then echo "-dict=$root/fuzz/$1.dict"; else echo "-dict=$root/fuzz/tnef.dict"; fi
}

campaign_one() {
  local t=$1 seconds=$2 kept="$root/tests/fuzz/$1" grown merged log="$root/build/fuzz/campaign-$1.log"
  mkdir -p "$kept/corpus" "$kept/crashers"
  grown=$(mktemp -d)
  echo "== fuzz_$t: ${seconds}s"
  build/fuzz/fuzz/fuzz_$t "${common[@]}" "$(dict_for "$t")" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$kept/crashers/" "$grown" "$kept/corpus" "$seeds/$t" \
    2>"$log" || echo "fuzz_$t stopped on a finding: see $log"
  grep -E 'stat::number_of_executed_units|DONE|ERROR' "$log" | tail -n 3 | sed "s/^/   $t: /" || true
  # Keep a minimal set that covers what the grown inputs cover, without the seeds themselves.
  merged=$(mktemp -d)
  build/fuzz/fuzz/fuzz_$t "${common[@]}" "$(dict_for "$t")" -merge=1 "$merged" "$kept/corpus" "$grown" \
    2>/dev/null || true
  rm -rf "$kept/corpus" && mkdir -p "$kept/corpus" && cp "$merged"/* "$kept/corpus/" 2>/dev/null || true
  rm -rf "$grown" "$merged"
  echo "   $t kept inputs: $(ls "$kept/corpus" | wc -l), crashers: $(ls "$kept/crashers" | wc -l)"
}

case "$mode" in
  ci)
    runs=${2:-2000}
    for t in "${targets[@]}"; do
      kept="$root/tests/fuzz/$t"
      mkdir -p "$kept/corpus" "$kept/crashers"
      work=$(mktemp -d)
      echo "== fuzz_$t: $runs runs"
      # Crashers of the past and kept inputs run first: each is a regression check.
      samples=()
      [ -d "$kept/sample" ] && samples=("$kept/sample")
      build/fuzz/fuzz/fuzz_$t "${common[@]}" "$(dict_for "$t")" -runs="$runs" -artifact_prefix="$work/" \
        "$work" "$kept/crashers" "${samples[@]}" "$kept/corpus" "$seeds/$t" 2>"$work/log" || {
        tail -n 60 "$work/log"; echo "fuzz_$t found a fault"; exit 1; }
      grep -E '^(Done|#[0-9]+ +DONE)' "$work/log" | tail -n 1 || true
      rm -rf "$work"
    done
    ;;
  campaign)
    seconds=${2:?seconds per target}
    shift 2 || true
    [ $# -gt 0 ] && targets=("$@")
    jobs=${TNEF_FUZZ_JOBS:-1}
    for t in "${targets[@]}"; do
      # One core per target: at most $jobs targets run at once.
      while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
      campaign_one "$t" "$seconds" &
    done
    wait
    ;;
  *) echo "usage: $0 ci [RUNS] | campaign SECONDS [TARGET...]" >&2; exit 2 ;;
esac
