#!/usr/bin/env bash
# Runs zeltrim under valgrind's memcheck: the main job (the bundled calibration), the
# commands that save a file of each kind, and `zeltrim show` on every file they saved.
# Any invalid access, use of an uninitialised value or definite leak fails the run.
# Usage: tests/valgrind/run_valgrind.sh [BUILD_FOLDER]   (default: build, holding zeltrim)
#
# GLIBC_TUNABLES turns off glibc's AVX2 string functions: valgrind 3.19 reports reads past
# the end inside the AVX2 wmemcmp (whole vectors read, the excess never used), which are
# glibc's and not ours; the plain versions give the same results without the noise.
# VALGRIND_KEEP_AVX2=1 leaves glibc's choice alone (to see those reports).
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
zeltrim="$build/zeltrim"
if ! command -v valgrind >/dev/null 2>&1; then
  echo "valgrind: not installed, skipped"
  exit 0
fi
[ -x "$zeltrim" ] || { echo "valgrind: $zeltrim not built"; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
[ "${VALGRIND_KEEP_AVX2:-0}" = 1 ] || export GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX2
runs=0
failed=0
vg() {  # vg NAME COMMAND...: one run under memcheck; its log is kept on failure
  local name=$1
  shift
  runs=$((runs + 1))
  if valgrind --tool=memcheck --leak-check=full --errors-for-leak-kinds=definite --error-exitcode=99 \
      --track-origins=no --log-file="$work/$name.vg" "$@" >"$work/$name.out" 2>&1; then
    :
  elif [ $? -eq 99 ]; then
    failed=$((failed + 1))
    echo "valgrind: FAIL $name"
    grep -E '^==[0-9]+== ' "$work/$name.vg" | head -n 60
    return 0
  fi
  # A command's own refusal is not a memory fault, but every save here must work.
  if grep -q 'ERROR SUMMARY: [1-9]' "$work/$name.vg"; then
    failed=$((failed + 1))
    echo "valgrind: FAIL $name"
    head -n 60 "$work/$name.vg"
  else
    echo "valgrind: ok   $name"
  fi
}

# Point files for the saving commands.
printf '0 0\n10 0\n10 10\n0 10\n5 5\n' >src.txt
printf '10 20\n20 20\n20 30\n10 30\n15 25\n' >dst.txt
awk 'BEGIN { for (x = -2; x <= 2; x += 2) for (y = -1; y <= 1; y += 2) for (z = 0; z <= 4; z += 2) print x, y, z }' >world.txt
awk '{ xc = -$2 + 1; yc = $1 + 2; zc = $3 + 10; printf "%.17g %.17g\n", 100 * xc / zc + 50, 100 * yc / zc + 30 }' world.txt >image.txt
for y in 0 10 20; do for x in 0 10 20 30; do echo "$x $y"; done; done >grid-src.txt
awk '{ print 2 * $1 + 1, 3 * $2 - 1 + 0.01 * $1 }' grid-src.txt >grid-dst.txt
: >bent.txt
for across in 100 500 900; do
  for t in 50 300 550 800 950; do
    awk -v x="$t" -v y="$across" 'BEGIN { u = x / 1000 - 0.5; v = 0.5 - y / 1000; f = 1 - 0.1 * sqrt(u * u + v * v)
      printf "%.9f %.9f\n", (u * f + 0.5) * 1000, (0.5 - v * f) * 1000 }' >>bent.txt
  done
  echo >>bent.txt
done

vg calibrate "$zeltrim" calibrate
vg calibrate-save-xml "$zeltrim" calibrate --save trinsic.xml
vg calibrate-save-folder "$zeltrim" calibrate --save trinsic.tCAL
vg fit-save-xml "$zeltrim" fit src.txt dst.txt --save fit.xml
vg fit-save-folder "$zeltrim" fit src.txt dst.txt --save fit.tCAL
vg fit-save-csv "$zeltrim" fit src.txt dst.txt --save fit.csv
vg linear-save-xml "$zeltrim" linear --scale 2,2,1 --origin 10,0,0 --roll 90 --name Bench --save linear.xml
vg linear-save-folder "$zeltrim" linear --scale 2,2,1 --origin 10,0,0 --roll 90 --units 3 --save linear.tLin
vg resect-save-folder "$zeltrim" resect image.txt world.txt --save transform.tCAM
vg resect-save-text "$zeltrim" resect image.txt world.txt --save transform.csv
vg locate-save "$zeltrim" locate trinsic.tCAL --plane 0,0,1,-2 --save located.tCAL
vg lens-radial-save "$zeltrim" lens radial bent.txt --image-size 1000x1000 --flags 1 --save radial.tRad
vg lens-radial-save-xml "$zeltrim" lens radial bent.txt --image-size 1000x1000 --flags 1 --save radial.xml
vg lens-fisheye-save-xml "$zeltrim" lens fisheye --save fisheye.xml
vg lens-fisheye-save-folder "$zeltrim" lens fisheye --save fisheye.tFish
vg lens-polynomial-save "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4x3 --order 1 --save grid.tCalPoly
vg collection-add-folder "$zeltrim" collection station.tcol add Wall fit.tCAL
vg collection-add-lens "$zeltrim" collection station.tcol add Lens radial.tRad
vg collection-add-xml "$zeltrim" collection station.xml add Floor linear.xml

for file in trinsic.xml trinsic.tCAL fit.xml fit.tCAL linear.xml linear.tLin transform.tCAM located.tCAL \
            radial.tRad radial.xml fisheye.xml fisheye.tFish grid.tCalPoly station.tcol station.xml; do
  if [ ! -s "$file" ]; then
    failed=$((failed + 1))
    echo "valgrind: FAIL $file was not saved"
    continue
  fi
  vg "show-$file" "$zeltrim" show "$file"
done
# Damaged files: cut in half, and a file of another kind under a camera's name.
head -c "$(($(wc -c <trinsic.tCAL) / 2))" trinsic.tCAL >cut.tCAL
head -c "$(($(wc -c <fit.xml) / 2))" fit.xml >cut.xml
cp fit.tCAL notacamera.tCAM
vg show-cut-folder "$zeltrim" show cut.tCAL
vg show-cut-xml "$zeltrim" show cut.xml
vg locate-not-a-camera "$zeltrim" locate notacamera.tCAM --plane 0,0,1,0 1,2

echo "valgrind: $runs runs, $failed failed"
[ "$failed" -eq 0 ]
