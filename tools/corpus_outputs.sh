#!/bin/sh
# Runs every entry of a tool binary over the shared corpus and keeps what each one wrote,
# so that two builds can be compared byte for byte:
#   tools/corpus_outputs.sh OLD_TOOL /tmp/before && tools/corpus_outputs.sh NEW_TOOL /tmp/after
#   diff -r /tmp/before /tmp/after
# Message ids, item references, store paths and the scan's clock differ between runs, so
# they are replaced by placeholders.
set -u
tool=$1
out=$2
corpus=${TNEF_CORPUS:-$(dirname "$0")/../../shared/corpus}
rm -rf "$out" && mkdir -p "$out"
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
for f in "$corpus"/files/*; do
  n=$(basename "$f")
  d="$out/$n" && mkdir -p "$d"
  "$tool" --json list "$f" >"$d/list.json" 2>"$d/list.err"; echo $? >>"$d/status"
  "$tool" extract "$f" -C "$d/extract" --embedded >/dev/null 2>"$d/extract.err"; echo $? >>"$d/status"
  sed -i "s#$out#OUT#g" "$d/extract.err"
  "$tool" getprop "$f" GET-ALL -o "$d/props" --attach-out "$d/attach" --recips-out "$d/recips" \
    >/dev/null 2>"$d/getprop.err"; echo $? >>"$d/status"
  "$tool" getprop "$f" 0037001e >"$d/subject" 2>&1; echo $? >>"$d/status"
  "$tool" --home "$home" scan "$f" --want 3707001e >"$d/scan" 2>&1; echo $? >>"$d/status"
  sed -i 's/^\(TNEF file scan for [^:]*\): .*/\1: DATE/' "$d/scan"
  "$tool" --home "$home" --json decode "$f" >"$d/decode.json" 2>"$d/decode.err"
  echo $? >>"$d/status"
  id=$(sed -n 's/.*"message": *"\([0-9a-f]*\)".*/\1/p' "$d/decode.json" | head -1)
  if [ -n "$id" ]; then
    "$tool" --home "$home" show "$id" --texts --raw-texts "$d/texts" >"$d/show" 2>&1
    "$tool" --home "$home" encode "$id" -o "$d/encoded.tnef" >/dev/null 2>&1
    echo $? >>"$d/status"
    sed -i "s/$id/MESSAGE/g; s#$home#HOME#g; s#$out#OUT#g; s/\(ref\|item\)=[0-9]*:[0-9a-f-]*/\1=REF/g" \
      "$d/decode.json" "$d/show"
  fi
done
