#!/usr/bin/env bash
# Decode throughput as a mail server sees it: one `decode` process per message, N of them
# at a time, all into one server home.
#
#   bench/decode_procs.sh [TOOL] [ROUNDS] [JOBS...]
#
# TOOL defaults to the release build's tool; each round decodes every corpus file once;
# JOBS (default "1 2 4") are the numbers of processes run at once. Prints messages per
# second for each, the best of three runs.
set -euo pipefail
cd "$(dirname "$0")/.."
tool=${1:-build/release/tools/tnef/tnef}
rounds=${2:-5}
shift $(( $# > 2 ? 2 : $# ))
jobs=("$@")
[ ${#jobs[@]} -gt 0 ] || jobs=(1 2 4)
corpus=${TNEF_CORPUS:-../shared/corpus}
[ -d "$corpus/files" ] || { echo "no corpus at $corpus (set TNEF_CORPUS)" >&2; exit 1; }
tool=$(realpath "$tool")

work=$(mktemp -d /tmp/tnef-procs-XXXXXX)
trap 'rm -rf "$work"' EXIT
list="$work/list"
for ((r = 0; r < rounds; r++)); do ls -d "$corpus"/files/*; done >"$list"
count=$(wc -l <"$list")

for j in "${jobs[@]}"; do
  best=0
  for run in 1 2 3; do
    home="$work/home-$j-$run"
    mkdir -p "$home"
    start=$(date +%s.%N)
    # A decode that ends in an escape is part of the load too: its status is ignored.
    xargs -P "$j" -I{} sh -c '"$0" --home "$1" decode "$2" >/dev/null 2>&1 || true' \
      "$tool" "$home" {} <"$list"
    end=$(date +%s.%N)
    rate=$(echo "$count / ($end - $start)" | bc -l)
    best=$(echo "if ($rate > $best) $rate else $best" | bc -l)
    rm -rf "$home"
  done
  printf '%d processes: %.1f messages/s (%d decodes, best of 3)\n' "$j" "$best" "$count"
done
