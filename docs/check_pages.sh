#!/usr/bin/env bash
# check_pages.sh DOCUMENT_FORMAT: docs/format.md is what the program prints, and every text of docs/errors.md is in the sources.
set -euo pipefail

"$1" | diff -u docs/format.md - || {
  echo "docs/format.md is behind the library: run $1 > docs/format.md"
  exit 1
}

sources=$(mktemp)
trap 'rm -f "$sources"' EXIT
# Texts that a source splits are joined, and escaped quotes are plain ones here.
find talvo tools -name '*.cpp' -print0 | xargs -0 cat | tr -d '\n' | sed -E 's/"[[:space:]]+"//g; s/\\"/"/g' >"$sources"

status=0
while IFS= read -r text; do
  while IFS= read -r piece; do
    piece=$(sed -E 's/^[ ,:();."]+//; s/[ ,:();."]+$//' <<<"$piece")
    [ ${#piece} -lt 4 ] || grep -qF -- "$piece" "$sources" || { echo "no source says \"$piece\", of: $text"; status=1; }
  done <<<"${text//…/$'\n'}"
done < <(sed -nE 's/^\| `([^`]+)` \|.*/\1/p' docs/errors.md)
exit $status
