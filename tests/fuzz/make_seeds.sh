#!/usr/bin/env bash
# Regenerates the seed corpus tests/fuzz/corpus/<target>: new objects of every class in
# every form (fuzz_make_seeds, from the fuzz build), fitted objects saved by zeltrim's
# commands (from the plain build), point and line files.
# Usage: tests/fuzz/make_seeds.sh [FUZZ_BUILD] [PLAIN_BUILD]   (defaults build-fuzz, build)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
fuzz=$(cd "${1:-$root/build-fuzz}" && pwd)
plain=$(cd "${2:-$root/build}" && pwd)
out="$root/tests/fuzz/corpus"
# Minimised inputs from fuzz campaigns (min-*) stay.
mkdir -p "$out"
find "$out" -type f ! -name 'min-*' -delete
"$fuzz/fuzz_make_seeds" "$out"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
z="$plain/zeltrim"
printf '0 0\n10 0\n10 10\n0 10\n5 5\n' >src.txt
printf '10 20\n20 20\n20 30\n10 30\n15 25\n' >dst.txt
awk 'BEGIN { for (x = -2; x <= 2; x += 2) for (y = -1; y <= 1; y += 2) for (z = 0; z <= 4; z += 2) print x, y, z }' >world.txt
awk '{ xc = -$2 + 1; yc = $1 + 2; zc = $3 + 10; printf "%.17g %.17g\n", 100 * xc / zc + 50, 100 * yc / zc + 30 }' world.txt >image.txt
for y in 0 10 20; do for x in 0 10 20 30; do echo "$x $y"; done; done >grid-src.txt
awk '{ print 2 * $1 + 1, 3 * $2 - 1 + 0.01 * $1 }' grid-src.txt >grid-dst.txt
printf '# lines\n10 10\n50 12\n90 15\n\n10 50\n50 50\n90 49\n' >lines.txt
"$z" calibrate --save trinsic.xml >/dev/null
"$z" calibrate --save trinsic.tCAL >/dev/null
"$z" calibrate --save trinsic.csv >/dev/null
"$z" fit src.txt dst.txt --save fit.xml >/dev/null
"$z" fit src.txt dst.txt --save fit.tCAL >/dev/null
"$z" linear --scale 2,2,1 --origin 10,0,0 --roll 90 --name Bench --save linear.tLin >/dev/null
"$z" resect image.txt world.txt --save transform.tCAM >/dev/null
"$z" resect image.txt world.txt --save transform.csv >/dev/null
"$z" lens polynomial grid-src.txt grid-dst.txt --grid 4x3 --order 1 --save grid.tCalPoly >/dev/null
"$z" lens fisheye --save fisheye.xml >/dev/null
"$z" collection station.tcol add Wall fit.tCAL >/dev/null
"$z" collection station.xml add Wall fit.xml >/dev/null
# The selector byte of fuzz_load: row of the object table times 5, plus the form.
seed() {  # seed ROW FORM FILE
  printf "\\$(printf '%03o' $(($1 * 5 + $2)))" >"$out/fuzz_load/fitted-$3"
  cat "$3" >>"$out/fuzz_load/fitted-$3"
}
seed 0 0 fit.xml; seed 0 1 fit.tCAL; seed 12 1 linear.tLin; seed 6 1 grid.tCalPoly; seed 3 0 fisheye.xml
seed 11 0 trinsic.xml; seed 11 1 trinsic.tCAL; seed 11 2 trinsic.csv; seed 10 1 transform.tCAM; seed 10 2 transform.csv
seed 7 1 station.tcol; seed 7 0 station.xml
mkdir -p "$out/fuzz_points"
cp "$root/data/opencv-left-w7/model.txt" "$out/fuzz_points/model.txt"
head -n 20 "$root/data/opencv-left-w7/view01.txt" >"$out/fuzz_points/view01.txt"
cp world.txt lines.txt "$out/fuzz_points/"
printf '1,2\n3 4 5\n# comment\n\n-1.5e3\t2\n' >"$out/fuzz_points/typed.txt"
du -sh "$out"
