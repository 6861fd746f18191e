#!/usr/bin/env bash
# Which tests catch each deliberate fault: for every line of a fault list (the format of
# tests/mutations.tsv: FILE <TAB> PERL_REGEX <TAB> REPLACEMENT [<TAB> NOTE]) the fault is
# applied to its file, BUILD_DIR is rebuilt, ctest runs, and one line is written to OUT:
#   N <TAB> FILE <TAB> NOTE <TAB> the failing ctest names, space separated
# ("NONE" when every test passed, "SKIP-nomatch" or "SKIP-nocompile" when the fault could
# not be applied). A test that is the only name on some line is the sole catcher of that
# fault: keep it when trimming the suite. Run from a tree you are not editing; each file is
# restored after its fault, also when interrupted.
#
#   bash scripts/fault-map.sh tests/mutations.tsv build out.tsv
set -u
list=${1:?usage: fault-map.sh LIST BUILD_DIR OUT}
build=${2:?usage: fault-map.sh LIST BUILD_DIR OUT}
out=${3:?usage: fault-map.sh LIST BUILD_DIR OUT}
list=$(cd "$(dirname "$list")" && pwd)/$(basename "$list")
out=$(cd "$(dirname "$out")" && pwd)/$(basename "$out")
cd "$(git rev-parse --show-toplevel)" || exit 2
cmake --build "$build" -j2 >/dev/null 2>&1 || { echo "the unmodified tree does not build"; exit 2; }
backup=$(mktemp); current=""
restore() { [ -n "$current" ] && cp "$backup" "$current"; current=""; }
trap 'restore; exit 130' INT TERM
n=0
: >"$out"
while IFS=$'\t' read -r file regex repl note; do
  case "$file" in ''|'#'*) continue;; esac
  n=$((n + 1))
  cp "$file" "$backup"; current=$file
  RX=$regex RP=$repl perl -0pi -e 's/$ENV{RX}/$ENV{RP}/' "$file"
  if cmp -s "$file" "$backup"; then
    printf '%s\t%s\t%s\tSKIP-nomatch\n' "$n" "$file" "$note" >>"$out"; restore; continue
  fi
  if ! cmake --build "$build" -j2 >/dev/null 2>&1; then
    printf '%s\t%s\t%s\tSKIP-nocompile\n' "$n" "$file" "$note" >>"$out"; restore; continue
  fi
  rm -f "$build/Testing/Temporary/LastTestsFailed.log"
  (cd "$build" && timeout 600 ctest -j2 >/dev/null 2>&1)
  failed=$(cut -d: -f2- "$build/Testing/Temporary/LastTestsFailed.log" 2>/dev/null | tr '\n' ' ')
  printf '%s\t%s\t%s\t%s\n' "$n" "$file" "$note" "${failed:-NONE}" >>"$out"
  restore
done <"$list"
rm -f "$backup"
cmake --build "$build" -j2 >/dev/null 2>&1
