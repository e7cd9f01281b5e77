#!/usr/bin/env bash
# System calls of one decode, buffered against unbuffered: the calls the platform makes
# through its table, and every call strace sees between the decode's two markers.
#
#   bench/syscalls.sh [FILE...]     default: every file of the shared corpus
#
# Needs strace and the bench build (cmake --preset bench && cmake --build build/bench).
set -euo pipefail
cd "$(dirname "$0")/.."
tool=build/bench/bench/tnef_syscalls
[ -x "$tool" ] || { echo "build the bench preset first" >&2; exit 1; }
command -v strace >/dev/null || { echo "strace is needed (apt-get install strace)" >&2; exit 1; }
if [ $# -eq 0 ]; then set -- "${TNEF_CORPUS:-../shared/corpus}"/files/*; fi
trace=$(mktemp)
trap 'rm -f "$trace"' EXIT

# All system calls between the two getppid markers.
traced() {
  strace -o "$trace" "$tool" "$@" >/dev/null 2>&1 || true
  awk '/getppid/{n++; next} n==1' "$trace" | wc -l
}

printf "%-60s %10s %10s %10s %10s\n" file "table off" "table on" "all off" "all on"
total=(0 0 0 0)
for f in "$@"; do
  off=$("$tool" "$f" --unbuffered 2>/dev/null | awk '{print $NF}')
  on=$("$tool" "$f" 2>/dev/null | awk '{print $NF}')
  all_off=$(traced "$f" --unbuffered)
  all_on=$(traced "$f")
  printf "%-60s %10s %10s %10s %10s\n" "$(basename "$f")" "$off" "$on" "$all_off" "$all_on"
  total=($((total[0] + off)) $((total[1] + on)) $((total[2] + all_off)) $((total[3] + all_on)))
done
printf "%-60s %10s %10s %10s %10s\n" total "${total[@]}"
awk -v a="${total[0]}" -v b="${total[1]}" -v c="${total[2]}" -v d="${total[3]}" \
  'BEGIN { printf "fall: table %.1fx, all %.1fx\n", a / b, c / d }'
