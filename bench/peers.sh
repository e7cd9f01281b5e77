#!/usr/bin/env bash
# Times `tnefx extract` (and `tnefx decode`, and `tnefx body` on a large compressed body) against the two peer extractors from Debian's
# archive and against `cp` of the same bytes, side by side in one run.
#
#   bench/peers.sh [RUNS]     RUNS repetitions of every measurement (default 5); medians shown
#
# Inputs: every file of the shared corpus (one process per file, and all of them in one
# `tnefx extract` process), and a generated stream with one 256 MiB attachment.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
runs=${1:-5}

need=()
command -v ytnef >/dev/null || need+=(ytnef-tools)
[ -x /usr/bin/tnef ] || need+=(tnef)
if [ ${#need[@]} -gt 0 ]; then
  echo "installing peers: ${need[*]}"
  sudo=""; [ "$(id -u)" -ne 0 ] && sudo=sudo
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${need[@]}" >/dev/null
fi
[ -x /usr/bin/time ] || { echo "needs GNU time (/usr/bin/time)" >&2; exit 2; }

cmake --preset release >/dev/null
cmake --build build/release --target tnef_tool tnef_make_sample >/dev/null
ours="$root/build/release/tools/tnef/tnefx"
peer_tnef=/usr/bin/tnef
peer_ytnef=$(command -v ytnef)

work=$(mktemp -d /tmp/tnef-peers-XXXXXX)
trap 'rm -rf "$work"' EXIT

# One attachment of 256 MiB, written in chunks.
python3 - "$work/big.tnef" <<'PY'
import struct, sys
def rec(level, ident, data):
    return struct.pack('<BII', level, ident, len(data)) + data + struct.pack('<H', sum(data) & 0xffff)
size = 256 << 20
chunk = bytes((i * 131 + 7) & 0xff for i in range(1 << 20))
with open(sys.argv[1], 'wb') as f:
    f.write(struct.pack('<IH', 0x223E9F78, 0x04D2))
    f.write(rec(1, 0x00089006, struct.pack('<I', 0x00010000)))
    f.write(rec(2, 0x00069002, b'\x01\x00' + bytes(12)))
    f.write(rec(2, 0x00018010, b'big.bin\x00'))
    f.write(struct.pack('<BII', 2, 0x0006800F, size))
    total = 0
    for _ in range(size // len(chunk)):
        f.write(chunk)
        total += sum(chunk)
    f.write(struct.pack('<H', total & 0xffff))
    name = b'big.bin\x00'
    pad = bytes((4 - len(name) % 4) % 4)
    props = struct.pack('<IIII', 1, 0x3707001E, 1, len(name)) + name + pad
    f.write(rec(2, 0x00069005, props))
PY
big="$work/big.tnef"
corpus="${TNEF_CORPUS:-$root/../shared/corpus}/files"
files=()
[ -d "$corpus" ] && files=("$corpus"/*)

# measure NAME CMD...: runs CMD $runs times in a fresh output folder ($out); prints the
# median wall seconds and the median peak resident kilobytes.
declare -A wall rss
measure() {
  local name=$1; shift
  local times=() mems=() failed=0
  for ((i = 0; i < runs; i++)); do
    out="$work/out"; rm -rf "$out"; mkdir -p "$out"
    export out
    local start=$EPOCHREALTIME
    if ! /usr/bin/time -f "%M" -o "$work/time" bash -c "$*" >/dev/null 2>"$work/err"; then
      failed=1
      echo "$name failed: $(tail -n 1 "$work/err")"
      break
    fi
    local end=$EPOCHREALTIME
    # Wall time to the microsecond (time's own is to the hundredth of a second).
    t=$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.4f", b - a }')
    m=$(tail -n 1 "$work/time")
    times+=("$t"); mems+=("$m")
  done
  if [ "$failed" = 1 ]; then
    wall[$name]=fail; rss[$name]=fail
    return
  fi
  wall[$name]=$(printf '%s\n' "${times[@]}" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
  rss[$name]=$(printf '%s\n' "${mems[@]}" | sort -g | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
  printf '%-28s %8.3f s %10d KiB\n' "$name" "${wall[$name]}" "${rss[$name]}"
}

echo "machine: $(nproc) cores, $(awk '/MemTotal/ {print int($2/1024)" MiB"}' /proc/meminfo), $(uname -sr)"
echo "runs: $runs (medians)"
echo
echo "-- one 256 MiB attachment"
measure "cp" "cp '$big' \"\$out/\""
# decode writes two files of the input's size (the store's copy of the TNEF file and the
# attachment): its floor is two copies.
measure "cp twice" "cp '$big' \"\$out/a\" && cp '$big' \"\$out/b\""
measure "tnefx extract" "'$ours' extract -C \"\$out\" '$big'"
measure "tnefx decode" "'$ours' --home \"\$out/home\" decode '$big'"
measure "peer tnef" "cd \"\$out\" && '$peer_tnef' -f '$big'"
measure "peer ytnef" "'$peer_ytnef' -f \"\$out\" '$big'"

echo
echo "-- a body of 64 MiB of HTML encapsulated in compressed RTF"
"$root/build/release/tools/tnef/tnef_make_sample" --big-body "$work/body.tnef" 64
measure "tnefx body rtf" "'$ours' body --format rtf '$work/body.tnef' -o \"\$out/message.rtf\""
measure "tnefx body html" "'$ours' body --format html '$work/body.tnef' -o \"\$out/message.html\""
measure "peer tnef body rtf" "cd \"\$out\" && '$peer_tnef' --save-body --body-pref=r -f '$work/body.tnef'"
measure "peer ytnef body rtf" "'$peer_ytnef' -F -f \"\$out\" '$work/body.tnef'"

if [ ${#files[@]} -gt 0 ]; then
  echo
  echo "-- the corpus (${#files[@]} files)"
  list=$(printf "'%s' " "${files[@]}")
  measure "cp loop" "for f in $list; do cp \"\$f\" \"\$out/\"; done"
  measure "tnefx extract loop" "for f in $list; do d=\"\$out/\$(basename \"\$f\")\"; mkdir -p \"\$d\"; '$ours' extract -C \"\$d\" \"\$f\" || true; done"
  measure "tnefx extract batch" "'$ours' extract -C \"\$out\" $list || true"
  measure "peer tnef loop" "for f in $list; do d=\"\$out/\$(basename \"\$f\")\"; mkdir -p \"\$d\"; (cd \"\$d\" && '$peer_tnef' -f \"\$f\") || true; done"
  measure "peer ytnef loop" "for f in $list; do d=\"\$out/\$(basename \"\$f\")\"; mkdir -p \"\$d\"; '$peer_ytnef' -f \"\$d\" \"\$f\" || true; done"
fi

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0 ? a / b : 0) }'; }
# The faster of two timings; a peer that failed does not count.
fastest() {
  if [ "$1" = fail ]; then echo "$2"; elif [ "$2" = fail ]; then echo "$1"
  else awk -v a="$1" -v b="$2" 'BEGIN { print (a < b ? a : b) }'; fi
}
echo
big_peer=$(fastest "${wall[peer tnef]}" "${wall[peer ytnef]}")
echo "256 MiB: extract/faster peer $(ratio "${wall[tnefx extract]}" "$big_peer"), decode/faster peer $(ratio "${wall[tnefx decode]}" "$big_peer")"
echo "256 MiB: extract/cp $(ratio "${wall[tnefx extract]}" "${wall[cp]}"), decode/cp $(ratio "${wall[tnefx decode]}" "${wall[cp]}"), decode/cp twice $(ratio "${wall[tnefx decode]}" "${wall[cp twice]}")"
body_peer=$(fastest "${wall[peer tnef body rtf]}" "${wall[peer ytnef body rtf]}")
echo "64 MiB body: rtf/faster peer $(ratio "${wall[tnefx body rtf]}" "$body_peer"), html/faster peer $(ratio "${wall[tnefx body html]}" "$body_peer")"
if [ ${#files[@]} -gt 0 ]; then
  loop_peer=$(fastest "${wall[peer tnef loop]}" "${wall[peer ytnef loop]}")
  echo "corpus: extract loop/faster peer loop $(ratio "${wall[tnefx extract loop]}" "$loop_peer"), faster peer loop/batch $(ratio "$loop_peer" "${wall[tnefx extract batch]}")"
fi
