#!/usr/bin/env bash
# Runs the zeltrim binary as a user does and checks its output and exit status.
# usage: run_cli_tests.sh <path to zeltrim> <source folder>
set -u
zeltrim=$1
source_dir=$2
passed=0
failed=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1

check() {  # check NAME EXPECTED_STATUS EXPECTED_TEXT (grep -F pattern; "" for none) -- command...
  local name=$1 want_status=$2 want_text=$3
  shift 4
  local out status
  out=$("$@" 2>&1)
  status=$?
  if [ "$status" -ne "$want_status" ]; then
    echo "FAIL $name: exit $status, expected $want_status"; echo "$out" | head -5; failed=$((failed + 1)); return
  fi
  if [ -n "$want_text" ] && ! grep -qF -- "$want_text" <<<"$out"; then
    echo "FAIL $name: output lacks '$want_text'"; echo "$out" | head -5; failed=$((failed + 1)); return
  fi
  echo "ok   $name"; passed=$((passed + 1))
}

check help 0 "linear" -- "$zeltrim" --help
check no-arguments 2 "usage: zeltrim" -- "$zeltrim"
check unknown-command 2 "unknown command 'bogus'" -- "$zeltrim" bogus
check linear-help 0 "--revert" -- "$zeltrim" linear --help
check objects 0 "CameraLinearCalibration      provided" -- "$zeltrim" objects

# (1,0) scaled by 2 is (2,0), moved by (10,0) is (12,0), turned 90 degrees about z: (0,12).
check linear-convert 0 "0 12 0" -- "$zeltrim" linear --scale 2,2,1 --origin 10,0,0 --roll 90 1,0
# The camera origin moves first: (5,5) - (4,5) = (1,0), then as above.
check linear-camera-origin 0 "0 12 0" -- "$zeltrim" linear --camera-origin 4,5 --scale 2,2,1 --origin 10,0,0 --roll 90 5,5
check linear-revert 0 "1 0 0" -- "$zeltrim" linear --revert --scale 2,2,1 --origin 10,0,0 --roll 90 0,12,0
check linear-zero-scale-is-one 0 "3 4 0" -- "$zeltrim" linear --scale 0,0,0 3,4
check linear-negative-point 0 "-2 -4 0" -- "$zeltrim" linear --scale 2,2,1 -1,-2

printf '# two points\n1 0\n\n  3,4,5\n' >points.txt
out=$("$zeltrim" linear --scale 2,2,1 <points.txt 2>&1)
if [ "$out" = $'2 0 0\n6 8 5' ]; then echo "ok   linear-stdin"; passed=$((passed + 1));
else echo "FAIL linear-stdin: got '$out'"; failed=$((failed + 1)); fi

check bad-option-value 2 "--scale needs SX,SY,SZ" -- "$zeltrim" linear --scale 2,2
check unknown-option 2 "unknown option --bogus" -- "$zeltrim" linear --bogus 1
check bad-point 2 "expected x y or x y z" -- "$zeltrim" linear 1,2,3,4
check bad-number 2 "not a number" -- "$zeltrim" linear 1,abc
printf '1 2\n1 x\n' >bad.txt
check bad-stdin-line 2 "line 2: not a number" -- bash -c "\"$zeltrim\" linear <bad.txt"

# fit: a flat square moved by (10, 20) is a plane homography that is a pure translation.
printf '0 0\n10 0\n10 10\n0 10\n5 5\n' >src.txt
printf '10 20\n20 20\n20 30\n10 30\n15 25\n' >dst.txt
check fit-help 0 "--filter" -- "$zeltrim" fit --help
check fit-translation 0 "translation: 10 20 0" -- "$zeltrim" fit src.txt dst.txt
# A rhombus doubled in size: the best rigid fit is the identity (by symmetry), which misses
# the two short corners by 1 and the two long ones by 2: mean 1.5, largest 2, and the
# deviation of (1, 1, 2, 2) over N - 1 is sqrt(1/3).
printf '1 0\n-1 0\n0 2\n0 -2\n' >rhombus.txt
printf '2 0\n-2 0\n0 4\n0 -4\n' >rhombus2.txt
check fit-rigid-errors 0 "mean 1.5  largest 2  standard deviation 0.57735" -- "$zeltrim" fit rhombus.txt rhombus2.txt --method 1
# A square turned a quarter turn about z: one Euler angle of 90 degrees (its sign is the
# convention's), the other two 0.
printf '1 0\n0 1\n-1 0\n0 -1\n' >square.txt
printf '0 1\n-1 0\n0 -1\n1 0\n' >turned.txt
if "$zeltrim" fit square.txt turned.txt --method 1 | awk '/^euler angles \(degrees\):/ {
    a = $4 < 0 ? -$4 : $4; b = $5 < 0 ? -$5 : $5; c = $6 < 0 ? -$6 : $6; ok = a > 89.999 && a < 90.001 && b + c < 1e-9 }
    END { exit !ok }'; then echo "ok   fit-quarter-turn-in-degrees"; passed=$((passed + 1))
else echo "FAIL fit-quarter-turn-in-degrees"; failed=$((failed + 1)); fi
check fit-save-csv 0 "saved" -- "$zeltrim" fit src.txt dst.txt --save out.csv
if [ "$(head -c 2 out.csv | od -An -tx1 | tr -d ' ')" = "fffe" ]; then echo "ok   fit-csv-mark"; passed=$((passed + 1));
else echo "FAIL fit-csv-mark"; failed=$((failed + 1)); fi
check fit-save-xml 0 "saved" -- "$zeltrim" fit src.txt dst.txt --save out.xml
check fit-save-folder 0 "saved" -- "$zeltrim" fit src.txt dst.txt --save out.tCAL
check fit-save-unknown 1 "cannot save" -- "$zeltrim" fit src.txt dst.txt --save out.dat
# One pair far off among eight good ones: the filter drops line 6 (and with it any pair
# whose residual came within a tenth of the largest), then accepts the refit.
printf '0 0\n10 0\n20 0\n0 10\n10 10\n20 10\n0 20\n10 20\n20 20\n' >grid.txt
printf '1 2\n11 2\n21 2\n1 12\n11 12\n61 12\n1 22\n11 22\n21 22\n' >moved.txt
check fit-filter 0 "filter: accepted" -- "$zeltrim" fit grid.txt moved.txt --filter --allowable 0.001
check fit-filter-drops 0 "dropped: 6" -- "$zeltrim" fit grid.txt moved.txt --filter --allowable 0.001
printf '1 2\n3\n' >broken.txt
check fit-missing-number 2 "line 2: expected x y or x y z" -- "$zeltrim" fit broken.txt dst.txt
printf '1 2\n' >one.txt
check fit-one-point 2 "at least 2 point pairs" -- "$zeltrim" fit one.txt one.txt
check fit-length-mismatch 2 "differ in length: 5 and 1" -- "$zeltrim" fit src.txt one.txt
check fit-missing-file 2 "cannot read" -- "$zeltrim" fit nowhere.txt dst.txt
check fit-one-file 2 "needs a SOURCE and a TARGET" -- "$zeltrim" fit src.txt
check fit-bad-method 2 "--method needs a whole number" -- "$zeltrim" fit src.txt dst.txt --method x
check fit-method-5 2 "--method must be 0 to 4" -- "$zeltrim" fit src.txt dst.txt --method 5
check fit-max-iterations-0 2 "--max-iterations must be 1 or more" -- "$zeltrim" fit src.txt dst.txt --filter --max-iterations 0
check fit-min-points-negative 2 "--min-points must be 2 or more" -- "$zeltrim" fit src.txt dst.txt --filter --min-points -5
check fit-folder 2 "is a folder, not a point file" -- "$zeltrim" fit . dst.txt
check fit-device 2 "/dev/null is a device, not a point file" -- "$zeltrim" fit src.txt /dev/null
: >empty.txt
check fit-empty-file 2 "holds no points" -- "$zeltrim" fit empty.txt dst.txt
# A long line without a line end is quoted in part, not echoed whole.
head -c 2000000 /dev/zero | tr '\0' '7' >long.txt
printf 'x' >>long.txt
out=$("$zeltrim" fit long.txt dst.txt 2>&1)
if [ $? -eq 2 ] && [ ${#out} -lt 300 ] && grep -qF "(cut; 2000001 characters)" <<<"$out"; then echo "ok   fit-long-line-quoted"; passed=$((passed + 1));
else echo "FAIL fit-long-line-quoted: ${#out} characters"; failed=$((failed + 1)); fi
# Two pairs: the module computes no errors for them, and says so.
printf '0 0\n10 0\n' >two-src.txt
printf '0 0\n0 29\n' >two-dst.txt
check fit-two-pairs-note 0 "note: a fit of two pairs computes no errors" -- "$zeltrim" fit two-src.txt two-dst.txt
# Every source point the same: no transform can be determined.
printf '1 1\n1 1\n1 1\n1 1\n1 1\n' >same.txt
check fit-degenerate 1 "degenerate" -- "$zeltrim" fit same.txt src.txt
out=$("$zeltrim" fit same.txt src.txt 2>&1)
if ! grep -qiE "nan|inf|matrix" <<<"$out"; then echo "ok   fit-degenerate-prints-no-numbers"; passed=$((passed + 1));
else echo "FAIL fit-degenerate-prints-no-numbers: $out"; failed=$((failed + 1)); fi

# A hand-set calibration saved in each form, shown, and used again from its file.
check linear-save-xml 0 "saved" -- "$zeltrim" linear --scale 2,2,1 --origin 10,0,0 --roll 90 --name Bench --save lin.xml
check linear-save-folder 0 "saved" -- "$zeltrim" linear --scale 2,2,1 --origin 10,0,0 --roll 90 --name Bench --units 3 --save lin.tLin
check linear-load-xml 0 "0 12 0" -- "$zeltrim" linear --load lin.xml 1,0
check linear-load-folder 0 "0 12 0" -- "$zeltrim" linear --load lin.tLin 1,0
check linear-load-then-override 0 "0 13 0" -- "$zeltrim" linear --load lin.tLin --origin 11,0,0 1,0
check linear-load-missing 2 "cannot load" -- "$zeltrim" linear --load nowhere.xml 1,0
check show-xml 0 "object: CameraLinearCalibration" -- "$zeltrim" show lin.xml
check show-xml-roll 0 "Roll             90" -- "$zeltrim" show lin.xml
check show-folder-name 0 "name: Bench" -- "$zeltrim" show lin.tLin
check show-folder-units 0 "units: 3 (metre)" -- "$zeltrim" show lin.tLin
check show-fit 0 "forward matrix" -- "$zeltrim" show out.tCAL
check show-fit-time 0 "time: 20" -- "$zeltrim" show out.tCAL
check show-missing 2 "cannot read" -- "$zeltrim" show nowhere.xml
check show-csv 2 "names no form the module loads" -- "$zeltrim" show out.csv
head -c 100 /dev/urandom >junk.tCAL
check show-junk-folder 2 "not a folder stream" -- "$zeltrim" show junk.tCAL
printf 'no xml here' >junk.xml
check show-junk-xml 2 "not well-formed XML at line 1" -- "$zeltrim" show junk.xml

# Damaged or wrong files are refused with one line before the module reads them.
printf 'x' >one.xml
check load-one-byte 2 "too short to hold a document" -- "$zeltrim" linear --load one.xml 1,0
printf 'garbage' >garbage.xml
check load-garbage 2 "not well-formed XML at line 1: text before the root element" -- "$zeltrim" linear --load garbage.xml 1,0
check load-best-fit-as-linear 2 "holds a CalibrationBestFit, not a CameraLinearCalibration" -- "$zeltrim" linear --load out.xml 1,0
check load-best-fit-folder-as-linear 2 "holds a CalibrationBestFit, not a CameraLinearCalibration" -- "$zeltrim" linear --load out.tCAL 1,0
head -c 400 out.xml >cut.xml
check show-cut-xml 2 "not well-formed XML at line" -- "$zeltrim" show cut.xml
head -c 401 out.xml >odd.xml
check show-odd-xml 2 "truncated 16-bit text" -- "$zeltrim" show odd.xml
size=$(stat -c %s out.tCAL)
head -c 400 out.tCAL >cut.tCAL
check show-cut-folder 2 "truncated folder stream (400 of $size bytes)" -- "$zeltrim" show cut.tCAL
cp out.tCAL flipped.tCAL
byte=$(od -An -tu1 -j 100 -N 1 out.tCAL | tr -d ' ')
printf "\\x$(printf %02x $((255 - byte)))" | dd of=flipped.tCAL bs=1 seek=100 conv=notrunc 2>/dev/null
check show-checksum 2 "checksum mismatch" -- "$zeltrim" show flipped.tCAL

# A save that cannot work says so before any work, and leaves no file and no "saved".
check save-missing-folder 2 "the folder /nonexistent/dir does not exist" -- "$zeltrim" fit src.txt dst.txt --save /nonexistent/dir/f.tCAL
check linear-save-missing-folder 2 "does not exist" -- "$zeltrim" linear --scale 2,2,1 --save /nonexistent/dir/f.xml
# The module opens paths of at most 254 bytes: 254 is saved whole, 255 refused, nothing cut.
deep=$(printf 'd%.0s' $(seq 1 120))
mkdir -p "$deep"
fill=$((254 - ${#work} - 1 - ${#deep} - 1 - 4))
name254="$deep/$(printf 'f%.0s' $(seq 1 "$fill")).xml"
name255="$deep/$(printf 'f%.0s' $(seq 1 $((fill + 1)))).xml"
check save-path-254 0 "saved" -- "$zeltrim" fit src.txt dst.txt --save "$name254"
check save-path-255 2 "the path is 255 bytes long" -- "$zeltrim" fit src.txt dst.txt --save "$name255"
if [ "$(find "$deep" -type f | wc -l)" -eq 1 ] && [ -f "$name254" ]; then echo "ok   save-path-nothing-cut"; passed=$((passed + 1));
else echo "FAIL save-path-nothing-cut"; find "$deep" -type f; failed=$((failed + 1)); fi
# A failed save over an existing file leaves that file as it was.
printf 'old' >keep.dat
check save-fails-over-file 1 "cannot save" -- "$zeltrim" fit src.txt dst.txt --save keep.dat
if [ "$(cat keep.dat)" = old ]; then echo "ok   save-fails-keeps-old"; passed=$((passed + 1));
else echo "FAIL save-fails-keeps-old"; failed=$((failed + 1)); fi

# calibrate: the bundled sample, then an exact synthetic camera (fx = fy = 800, no skew,
# centre (320, 240)) looking at a 9 x 6 grid from four poses R = Rz Ry Rx, t.
check calibrate-sample 0 "Camera3DTrinsic from 13 views of 54 points" -- "$zeltrim" calibrate
check calibrate-sample-last-only 0 "the LAST view only" -- "$zeltrim" calibrate
check calibrate-help 0 "--image-size" -- "$zeltrim" calibrate --help
mkdir -p synth
awk 'BEGIN { for (y = 0; y < 6; y++) for (x = 0; x < 9; x++) print x, y }' >synth/model.txt
view=1
for pose in "0.3 -0.2 0.1 -4 -2.5 18" "-0.25 0.3 -0.1 -3.5 -3 20" "0.1 0.4 0.2 -5 -2 17" "-0.3 -0.15 0.3 -4 -2 21"; do
  awk -v p="$pose" 'BEGIN { split(p, q, " "); a = q[1]; b = q[2]; c = q[3]
    ca = cos(a); sa = sin(a); cb = cos(b); sb = sin(b); cc = cos(c); sc = sin(c)
    r11 = cc*cb; r12 = cc*sb*sa - sc*ca; r13 = cc*sb*ca + sc*sa
    r21 = sc*cb; r22 = sc*sb*sa + cc*ca; r23 = sc*sb*ca - cc*sa
    r31 = -sb; r32 = cb*sa; r33 = cb*ca }
    { X = $1; Y = $2; xc = r11*X + r12*Y + q[4]; yc = r21*X + r22*Y + q[5]; zc = r31*X + r32*Y + q[6]
      printf "%.17g %.17g\n", 800*xc/zc + 320, 800*yc/zc + 240 }' synth/model.txt >"synth/view0$view.txt"
  view=$((view + 1))
done
check calibrate-exact-fx 0 "fx        800.0000" -- "$zeltrim" calibrate synth
check calibrate-exact-cy 0 "cy        240.0000" -- "$zeltrim" calibrate synth
check calibrate-exact-mode0 0 "fy        800.0000" -- "$zeltrim" calibrate synth --mode 0
check calibrate-exact-error 0 "max error      0.0000" -- "$zeltrim" calibrate synth
check calibrate-exact-pose 0 "R | t" -- "$zeltrim" calibrate --model synth/model.txt synth/view01.txt synth/view02.txt synth/view03.txt
check calibrate-json 0 '"fx": 800' -- "$zeltrim" calibrate synth --json
if command -v python3 >/dev/null; then
  keys=$("$zeltrim" calibrate synth --json | python3 -c 'import json, sys; d = json.load(sys.stdin); print(sorted(k for k in d if k in ("fx","fy","skew","cx","cy","k1","k2","max_error","sd_error","views","intrinsic","extrinsic","combined")), len(d["views"]), len(d["combined"][0]))' 2>&1)
  if [ "$keys" = "['combined', 'cx', 'cy', 'extrinsic', 'fx', 'fy', 'intrinsic', 'k1', 'k2', 'max_error', 'sd_error', 'skew', 'views'] 4 4" ]; then
    echo "ok   calibrate-json-keys"; passed=$((passed + 1))
  else echo "FAIL calibrate-json-keys: $keys"; failed=$((failed + 1)); fi
fi
check calibrate-save-xml 0 "saved" -- "$zeltrim" calibrate synth --save cam.xml
if iconv -f UTF-16 -t UTF-8 cam.xml 2>/dev/null | grep -q "<Camera3DTrinsic>"; then echo "ok   calibrate-xml-element"; passed=$((passed + 1));
else echo "FAIL calibrate-xml-element"; failed=$((failed + 1)); fi
check calibrate-save-folder 0 "saved" -- "$zeltrim" calibrate synth --save cam.tCAL
check calibrate-save-report 0 "saved" -- "$zeltrim" calibrate synth --save cam.csv
if iconv -f UTF-16 -t UTF-8 cam.csv 2>/dev/null | tail -c 12 | cmp -s - <(printf 'Distortion\r\n'); then echo "ok   calibrate-report-ends"; passed=$((passed + 1));
else echo "FAIL calibrate-report-ends"; failed=$((failed + 1)); fi
check calibrate-unwritable 2 "cannot save" -- "$zeltrim" calibrate synth --save /nonexistent-folder/cam.xml
check calibrate-bad-size 2 "--image-size needs WIDTHxHEIGHT" -- "$zeltrim" calibrate synth --image-size 640
check calibrate-zero-size 2 "--image-size needs WIDTHxHEIGHT" -- "$zeltrim" calibrate synth --image-size 0x480
check calibrate-bad-mode 2 "--mode needs 0 or 1" -- "$zeltrim" calibrate synth --mode 2
check calibrate-mode0-two-views 2 "needs at least 3 views" -- "$zeltrim" calibrate --mode 0 --model synth/model.txt synth/view01.txt synth/view02.txt
mkdir -p gap short one
cp synth/model.txt synth/view01.txt synth/view02.txt gap/ && cp synth/view03.txt gap/view04.txt
check calibrate-missing-view 2 "view03.txt is missing" -- "$zeltrim" calibrate gap
cp synth/model.txt synth/view01.txt synth/view02.txt short/ && head -n 53 synth/view03.txt >short/view03.txt
check calibrate-short-view 2 "holds 53 points, the model 54" -- "$zeltrim" calibrate short
printf '1 2\n' >one/model.txt && cp synth/view01.txt one/
check calibrate-one-point-model 2 "needs at least 4" -- "$zeltrim" calibrate one
check calibrate-no-folder 2 "cannot read the folder" -- "$zeltrim" calibrate nowhere
mkdir -p empty && cp synth/model.txt empty/
check calibrate-no-views 2 "no viewNN.txt files" -- "$zeltrim" calibrate empty

# calibrate --refine: the joint refinement. A zeltrim built without Ceres Solver says so in
# one line and the rest is skipped; an unknown lens is refused in one line either way.
check refine-unknown-lens 2 "--lens needs pinhole, radial2, radial3 or full" -- "$zeltrim" calibrate --refine --lens fisheye
lines=$("$zeltrim" calibrate --refine --lens fisheye 2>&1 | wc -l)
if [ "$lines" -eq 1 ]; then echo "ok   refine-unknown-lens-one-line"; passed=$((passed + 1))
else echo "FAIL refine-unknown-lens-one-line: $lines lines"; failed=$((failed + 1)); fi
check refine-lens-alone 2 "--lens goes with --refine" -- "$zeltrim" calibrate --lens radial2
check refine-no-lens-name 2 "--lens needs pinhole" -- "$zeltrim" calibrate --refine --lens
if "$zeltrim" calibrate --refine 2>&1 | grep -qF "built without Ceres Solver"; then
  check refine-without-ceres 2 "built without Ceres Solver" -- "$zeltrim" calibrate --refine
  echo "skip refine: zeltrim was built without Ceres Solver"
else
  check refine-sample 0 "CONVERGENCE" -- "$zeltrim" calibrate --refine
  check refine-sample-views 0 "view13.txt" -- "$zeltrim" calibrate --refine --lens radial3
  # The exact synthetic camera comes back to rounding, with no lens and no noise left.
  check refine-exact-fx 0 "fx         800.000000       800.000000" -- "$zeltrim" calibrate synth --refine --lens pinhole
  check refine-exact-rms 0 "refined RMS 0.000000" -- "$zeltrim" calibrate synth --refine
  check refine-exact-k1 0 "0.000000*        0.000000" -- "$zeltrim" calibrate synth --refine --lens radial2
  check refine-skew 0 "skew refined" -- "$zeltrim" calibrate synth --refine --refine-skew
  refined=$("$zeltrim" calibrate --refine --json | python3 -c '
import json, sys
d = json.load(sys.stdin); r = d["refined"]
keys = ["fx", "fy", "cx", "cy", "skew", "k1", "k2", "p1", "p2", "k3"]
ok = all(k in r for k in keys + ["rms", "per_view_rms", "stddev"]) and all(k in r["stddev"] for k in keys)
ok = ok and len(r["per_view_rms"]) == 13 and r["rms"] < d["sd_error"] / 5 and r["stddev"]["skew"] is None
ok = ok and all(r["stddev"][k] > 0 for k in keys if k != "skew") and r["converged"]
print("good" if ok else "bad")' 2>&1)
  if [ "$refined" = good ]; then echo "ok   refine-json"; passed=$((passed + 1))
  else echo "FAIL refine-json: $refined"; failed=$((failed + 1)); fi
  # Saved, the refined camera reads back: its intrinsics, and what the class cannot hold said.
  check refine-save-note 0 "p1, p2 and k3 cannot be held" -- "$zeltrim" calibrate --refine --save refined.tCAL
  want=$("$zeltrim" calibrate --refine --json | python3 -c 'import json, sys; print("%.4f" % json.load(sys.stdin)["refined"]["fx"])')
  got=$("$zeltrim" show refined.tCAL | awk '$1 == "fSx" { printf "%.4f", $2 }')
  if [ -n "$want" ] && [ "$want" = "$got" ]; then echo "ok   refine-saved-fx"; passed=$((passed + 1))
  else echo "FAIL refine-saved-fx: expected '$want', got '$got'"; failed=$((failed + 1)); fi
  check refine-save-xml 0 "saved" -- "$zeltrim" calibrate synth --refine --save refined.xml
  # The saved camera projects model point (4, 2) of the last view where that view has it.
  got=$("$zeltrim" project refined.xml 4,2,0)
  if awk -v got="$got" '{ split(got, g, " "); d = (g[1] - $1)^2 + (g[2] - $2)^2; exit !(d < 1e-8) }' <(sed -n 23p synth/view04.txt)
  then echo "ok   refine-saved-xml-projects"; passed=$((passed + 1))
  else echo "FAIL refine-saved-xml-projects: '$got' against '$(sed -n 23p synth/view04.txt)'"; failed=$((failed + 1)); fi
  # With --report the refined values and their lens curve stand beside the module's.
  check refine-report 0 "report written" -- "$zeltrim" calibrate --refine --lens radial3 --report refined.html
  if grep -qF "refined (radial3)" refined.html && [ "$(grep -o 'refined (radial3)' refined.html | wc -l)" -ge 2 ]
  then echo "ok   refine-report-column-and-curve"; passed=$((passed + 1))
  else echo "FAIL refine-report-column-and-curve"; failed=$((failed + 1)); fi
fi

# calibrate --images: corners found in the bundled photographs. A zeltrim built without
# OpenCV says so in one line and the rest is skipped.
photos="$source_dir/data/opencv-images"
out=$("$zeltrim" calibrate --images "$photos/left01.jpg" --board 9x6 2>&1)
if grep -qF "built without OpenCV" <<<"$out"; then
  check photos-without-opencv 2 "built without OpenCV" -- "$zeltrim" calibrate --images "$photos/left01.jpg" --board 9x6
  echo "skip photos: zeltrim was built without OpenCV"
else
  intrinsics() { awk '$1 == "fx" || $1 == "fy" || $1 == "cx" || $1 == "cy" { print $1, $2 }'; }
  same() {  # same NAME EXPECTED ACTUAL: four intrinsics lines, equal as printed
    if [ -n "$2" ] && [ "$(wc -l <<<"$2")" -eq 4 ] && [ "$2" = "$3" ]; then echo "ok   $1"; passed=$((passed + 1))
    else echo "FAIL $1: expected '$2', got '$3'"; failed=$((failed + 1)); fi
  }
  check photos-help 0 "--subpix-window N" -- "$zeltrim" calibrate --help
  # The photographs give the figures of the point sets detected from them (11 x 11 and
  # 7 x 7 sub-pixel windows); the pattern is quoted, so zeltrim expands it.
  same photos-as-point-folder "$("$zeltrim" calibrate "$source_dir/data/opencv-left" | intrinsics)" \
    "$("$zeltrim" calibrate --images "$photos/left*.jpg" --board 9x6 --points-out found | intrinsics)"
  same photos-as-point-folder-w7 "$("$zeltrim" calibrate "$source_dir/data/opencv-left-w7" | intrinsics)" \
    "$("$zeltrim" calibrate --images "$photos/left*.jpg" --board 9x6 --subpix-window 7 | intrinsics)"
  # The corners written out are the reference points, line for line, to 0.01 px.
  if [ -f found/view13.txt ] && [ ! -e found/view14.txt ] && cmp -s found/model.txt "$source_dir/data/opencv-left/model.txt" &&
    for k in 01 02 03 04 05 06 07 08 09 10 11 12 13; do paste "found/view$k.txt" "$source_dir/data/opencv-left/view$k.txt"; done |
      awk 'NF != 4 { bad = 1 } { dx = $1 - $3; dy = $2 - $4; if (dx * dx + dy * dy > 1e-4) bad = 1; n++ } END { exit bad || n != 702 }'; then
    echo "ok   photos-points-out"; passed=$((passed + 1))
  else echo "FAIL photos-points-out"; failed=$((failed + 1)); fi
  check photos-points-out-names 0 "view10.txt $photos/left11.jpg" -- cat found/images.txt
  # A second run with fewer photographs leaves a folder of exactly its own views.
  check photos-points-out-again 0 "points of 3 views written" -- "$zeltrim" calibrate --images "$photos/left0[1-3].jpg" --board 9x6 --points-out found
  check photos-points-out-reads-back 0 "Camera3DTrinsic from 3 views of 54 points" -- "$zeltrim" calibrate found
  # Relative names and patterns start from the user's folder; a name given twice is one view.
  mkdir -p pics && cp "$photos"/left0[1-4].jpg pics/
  check photos-relative-pattern 0 "from 4 views" -- "$zeltrim" calibrate --images 'pics/*.jpg' pics/left01.jpg --board 9x6
  # --square scales the model: the last corner of a 9 x 6 board of 2.5 squares.
  "$zeltrim" calibrate --images 'pics/*.jpg' --board 9x6 --square 2.5 --points-out scaled >/dev/null 2>&1
  check photos-square 0 "" -- test "$(tail -n 1 scaled/model.txt 2>/dev/null)" = "20 12.5"
  printf 'P5\n640 480\n255\n' >blank.pgm && head -c $((640 * 480)) /dev/zero | tr '\0' '\377' >>blank.pgm
  printf 'P5\n320 240\n255\n' >small.pgm && head -c $((320 * 240)) /dev/zero >>small.pgm
  printf 'not a picture\n' >notes.jpg
  check photos-no-board-skipped 0 "no 9x6 board in 1 of 5 photographs, skipped: blank.pgm" -- "$zeltrim" calibrate --images 'pics/*.jpg' blank.pgm --board 9x6
  check photos-too-few 2 "found in 2 of 3 photographs (not in blank.pgm); the calibration needs at least 3" -- "$zeltrim" calibrate --images pics/left01.jpg pics/left02.jpg blank.pgm --board 9x6
  check photos-unreadable 2 "notes.jpg is not an image this build can read" -- "$zeltrim" calibrate --images 'pics/*.jpg' notes.jpg --board 9x6
  check photos-missing 2 "cannot open" -- "$zeltrim" calibrate --images 'pics/*.jpg' nowhere.jpg --board 9x6
  check photos-no-match 2 "no file matches pics/*.png" -- "$zeltrim" calibrate --images 'pics/*.png' --board 9x6
  check photos-sizes-differ 2 "the photographs must all have one size" -- "$zeltrim" calibrate --images 'pics/*.jpg' small.pgm --board 9x6
  # A board larger than the photographed one is found nowhere: one line, exit 2.
  out=$("$zeltrim" calibrate --images 'pics/*.jpg' --board 10x7 2>&1); status=$?
  if [ "$status" -eq 2 ] && [ "$(wc -l <<<"$out")" -eq 1 ] && grep -qF "a 10x7 board was found in 0 of 4" <<<"$out"; then
    echo "ok   photos-wrong-board"; passed=$((passed + 1))
  else echo "FAIL photos-wrong-board: exit $status: $out"; failed=$((failed + 1)); fi
  check photos-bad-board 2 "--board needs COLSxROWS" -- "$zeltrim" calibrate --images 'pics/*.jpg' --board 9
  check photos-no-board-option 2 "--images needs --board" -- "$zeltrim" calibrate --images 'pics/*.jpg'
  check photos-bad-window 2 "--subpix-window needs" -- "$zeltrim" calibrate --images 'pics/*.jpg' --board 9x6 --subpix-window 0
  check photos-bad-square 2 "--square needs a positive number" -- "$zeltrim" calibrate --images 'pics/*.jpg' --board 9x6 --square 0
  check photos-size-given 2 "--image-size does not go with --images" -- "$zeltrim" calibrate --images 'pics/*.jpg' --board 9x6 --image-size 640x480
  check photos-board-without-images 2 "--board goes with --images" -- "$zeltrim" calibrate synth --board 9x6
  check photos-points-out-file 2 "is not a folder" -- "$zeltrim" calibrate --images 'pics/*.jpg' --board 9x6 --points-out blank.pgm
fi

# calibrate --report: one self-contained HTML page on the bundled sample, naming every view.
check report-sample 0 "report written to" -- "$zeltrim" calibrate --report r.html
names_all_views() { for k in 01 02 03 04 05 06 07 08 09 10 11 12 13; do grep -qF "view$k.txt" "$1" || return 1; done; }
if [ -s r.html ] && [ "$(grep -o '<figure class="view"' r.html | wc -l)" -eq 13 ] &&
  [ "$(grep -o '<rect class="bar"' r.html | wc -l)" -eq 13 ] && names_all_views r.html &&
  ! grep -qiE 'http|<script|src=|href=' r.html; then
  echo "ok   report-names-13-views"; passed=$((passed + 1))
else echo "FAIL report-names-13-views"; failed=$((failed + 1)); fi
if command -v xmllint >/dev/null; then
  check report-well-formed 0 "" -- xmllint --noout r.html
else echo "skip report-well-formed: no xmllint"; fi
# Each view is drawn against its own pose: the residual lines, divided by the stated
# magnification, give back the view's logged errors (to their rounding).
if command -v python3 >/dev/null; then
  if python3 - r.html <<'PY'
import math, re, sys
page = open(sys.argv[1]).read()
scale = float(re.search(r"Residuals per view \(&#215; ([0-9.]+)\)", page).group(1))
figures = re.findall(r'<figure class="view".*?</figure>', page, re.S)
for fig in figures:
    path = re.search(r'class="res"[^>]*d="([^"]*)"', fig).group(1)
    lengths = [math.hypot(float(a), float(b)) / scale for a, b in re.findall(r"l(\S+) ([^M]+)", path)]
    sd, largest = (float(x) for x in re.search(r"sd ([0-9.]+) px, max ([0-9.]+) px", fig).groups())
    rms = math.sqrt(sum(x * x for x in lengths) / (len(lengths) - 1))
    if len(lengths) != 54 or abs(rms - sd) > 0.011 or abs(max(lengths) - largest) > 0.011:
        sys.exit(1)
sys.exit(len(figures) != 13)
PY
  then echo "ok   report-residuals-per-view"; passed=$((passed + 1))
  else echo "FAIL report-residuals-per-view"; failed=$((failed + 1)); fi
else echo "skip report-residuals-per-view: no python3"; fi
# A report that cannot be written is refused in one line before any work.
out=$("$zeltrim" calibrate --report nowhere/r.html 2>&1); status=$?
if [ "$status" -eq 2 ] && [ "$(wc -l <<<"$out")" -eq 1 ] && grep -qF "cannot write the report" <<<"$out" && [ ! -e nowhere ]; then
  echo "ok   report-bad-path"; passed=$((passed + 1))
else echo "FAIL report-bad-path: exit $status: $out"; failed=$((failed + 1)); fi
mkdir -p a-folder
check report-is-folder 2 "it is a folder" -- "$zeltrim" calibrate --report a-folder
check report-no-name 2 "--report needs a file name" -- "$zeltrim" calibrate --report
# From photographs: each view over a thumbnail of its photograph, embedded as a data: URI.
if "$zeltrim" calibrate --images "$source_dir/data/opencv-images/left0[1-4].jpg" --board 9x6 --report p.html >/dev/null 2>&1; then
  if [ "$(grep -o 'href="data:image/jpeg;base64,' p.html | wc -l)" -eq 4 ] && grep -qF "left04.jpg" p.html &&
    ! sed 's/base64,[A-Za-z0-9+\/=]*//g' p.html | grep -qiE 'http|<script|src='; then
    echo "ok   report-thumbnails"; passed=$((passed + 1))
  else echo "FAIL report-thumbnails"; failed=$((failed + 1)); fi
else echo "skip report-thumbnails: zeltrim was built without OpenCV"; fi
# Rendered by a browser where one is installed: the picture is not blank.
browser=$(command -v chromium || command -v chromium-browser || command -v google-chrome || true)
if [ -n "$browser" ]; then
  timeout 60 "$browser" --headless --no-sandbox --disable-gpu --screenshot="$work/r.png" --window-size=1200,2400 \
    "file://$work/r.html" >/dev/null 2>&1
  # The PNG's pixel rows, inflated: a blank page holds a handful of distinct byte values.
  values=$(python3 -c 'import sys, zlib
d = open(sys.argv[1], "rb").read(); i, idat = 8, b""
while i < len(d):
    n = int.from_bytes(d[i:i + 4], "big"); idat += d[i + 8:i + 8 + n] if d[i + 4:i + 8] == b"IDAT" else b""; i += n + 12
print(len(set(zlib.decompress(idat))))' "$work/r.png" 2>/dev/null || echo 0)
  if [ "$values" -gt 16 ]; then echo "ok   report-renders"; passed=$((passed + 1))
  else echo "FAIL report-renders: blank or no screenshot"; failed=$((failed + 1)); fi
else echo "skip report-renders: no headless Chromium installed"; fi

# resect, project, unproject: a camera known by hand. K = [100 0 50; 0 100 30; 0 0 1],
# R a quarter turn about z (camera x = -world Y, camera y = world X), t = (1, 2, 10):
# K [R | t] = [0 -100 50 600; 100 0 30 500; 0 0 1 10], which is P = [0 -10 5 60;
# 10 0 3 50; 0 0 0.1 1] at p11 = 1, and the centre is -R^T t = (-2, 1, -10).
near() {  # near NAME EXPECTED ACTUAL: the same count of numbers, each within 1e-6 (relative above 1)
  if awk -v e="$2" -v a="$3" 'BEGIN { n = split(e, E, " "); if (split(a, A, " ") != n) exit 1
      for (i = 1; i <= n; i++) { d = A[i] - E[i]; m = E[i] < 0 ? -E[i] : E[i]
        if (d > 1e-6 * (m > 1 ? m : 1) || -d > 1e-6 * (m > 1 ? m : 1) || A[i] !~ /^-?[0-9]/) exit 1 } }'; then
    echo "ok   $1"; passed=$((passed + 1))
  else echo "FAIL $1: got '$3', expected '$2'"; failed=$((failed + 1)); fi
}
rows() { sed -n '/by rows:$/{n;p;n;p;n;p;}' | tr '\n' ' '; }
P_by_hand="0 -10 5 60 10 0 3 50 0 0 0.1 1"
awk 'BEGIN { for (x = -2; x <= 2; x += 2) for (y = -1; y <= 1; y += 2) for (z = 0; z <= 4; z += 2) print x, y, z }' >world.txt
awk '{ xc = -$2 + 1; yc = $1 + 2; zc = $3 + 10; printf "%.17g %.17g\n", 100 * xc / zc + 50, 100 * yc / zc + 30 }' world.txt >image.txt
check resect-help 0 "write-only text form" -- "$zeltrim" resect --help
check resect-refined 0 "then refined by Levenberg-Marquardt" -- "$zeltrim" resect image.txt world.txt --save cam.tCAM
near resect-matrix "$P_by_hand" "$("$zeltrim" resect image.txt world.txt | rows)"
near resect-errors "0 0" "$("$zeltrim" resect image.txt world.txt | awk '$1 == "largest" || $1 == "standard" { printf "%s ", $2 }')"
head -12 world.txt >world12.txt && head -12 image.txt >image12.txt
check resect-twelve-refined 0 "then refined" -- "$zeltrim" resect image12.txt world12.txt
# Image points off by a few tenths of a pixel: the printed error figures are the largest
# reprojection distance and the root mean square over N - 1, recomputed here from the printed P.
awk '{ printf "%.17g %.17g\n", $1 + 0.5 * (NR % 3 - 1), $2 + 0.3 * (NR % 2 * 2 - 1) }' image.txt >noisy.txt
"$zeltrim" resect noisy.txt world.txt >noisy.out
near resect-error-figures "$(awk 'NR == FNR { if (/by rows:$/) r = 1; else if (r && r <= 3) { for (c = 1; c <= 4; c++) P[r, c] = $c; r++ }; next }
    FILENAME == ARGV[2] { u[FNR] = $1; v[FNR] = $2; next }
    { w = P[3,1] * $1 + P[3,2] * $2 + P[3,3] * $3 + P[3,4]
      du = (P[1,1] * $1 + P[1,2] * $2 + P[1,3] * $3 + P[1,4]) / w - u[FNR]
      dv = (P[2,1] * $1 + P[2,2] * $2 + P[2,3] * $3 + P[2,4]) / w - v[FNR]
      q = du * du + dv * dv; s += q; if (q > m) m = q; n++ }
    END { printf "%.10g %.10g", sqrt(m), sqrt(s / (n - 1)) }' noisy.out noisy.txt world.txt)" \
  "$(awk '$1 == "largest" || $1 == "standard" { printf "%s ", $2 }' noisy.out)"
sed -n '1p;5p;9p;10p;14p;18p' world.txt >world6.txt && sed -n '1p;5p;9p;10p;14p;18p' image.txt >image6.txt
check resect-six-direct 0 "direct linear solve only" -- "$zeltrim" resect image6.txt world6.txt --save cam.csv
near resect-six-matrix "$P_by_hand" "$("$zeltrim" resect image6.txt world6.txt | rows)"
near resect-text-form "0 10 0 -10 0 0 5 3 0.1 60 50 1" "$(iconv -f UTF-16 -t UTF-8 cam.csv | tr ',\r\n' '   ')"
head -5 world.txt >world5.txt && head -5 image.txt >image5.txt
check resect-five 2 "at least 6 point pairs" -- "$zeltrim" resect image5.txt world5.txt
awk '{ print $1, $2, 0 }' world.txt >flat.txt
awk '{ print $1, $2, 0.3 * $1 + 0.7 * $2 + 1.1 }' world.txt >tilted.txt
check resect-coplanar 2 "lie in one plane" -- "$zeltrim" resect image.txt flat.txt
check resect-tilted-plane 2 "lie in one plane" -- "$zeltrim" resect image.txt tilted.txt
awk '{ print 0, 0 }' world.txt >alike.txt
check resect-singular 1 "linear solve is singular" -- "$zeltrim" resect alike.txt world.txt
check resect-lengths 2 "differ in length: 18 image and 6 world" -- "$zeltrim" resect image.txt world6.txt
check resect-swapped 2 "line 1: expected x y, got '-2 -1 0'" -- "$zeltrim" resect world.txt image.txt
check resect-missing 2 "cannot read" -- "$zeltrim" resect nowhere.txt world.txt
check resect-xml 2 "would not load back" -- "$zeltrim" resect image.txt world.txt --save transform-cam.xml
check resect-unwritable 2 "does not exist" -- "$zeltrim" resect image.txt world.txt --save /nonexistent/dir/cam.tCAM
if [ ! -e transform-cam.xml ]; then echo "ok   resect-refused-writes-nothing"; passed=$((passed + 1));
else echo "FAIL resect-refused-writes-nothing"; failed=$((failed + 1)); fi
awk 'BEGIN { for (i = 0; i < 16384; i++) print i % 7, i % 11, i % 13 }' >many-world.txt
awk '{ print $1, $2 }' many-world.txt >many-image.txt
check resect-too-many 2 "at most 16383 point pairs" -- "$zeltrim" resect many-image.txt many-world.txt
check show-transform 0 "object: Camera3DTransform" -- "$zeltrim" show cam.tCAM
near show-transform-matrix "$P_by_hand" "$("$zeltrim" show cam.tCAM | rows)"
near show-transform-centre "-2 1 -10" "$("$zeltrim" show cam.tCAM | sed -n 's/^camera centre (world): //p')"
# (2, 1, 10): u = (-10 + 50 + 60) / 2, v = (20 + 30 + 50) / 2; the origin: (60, 50).
near project-point "50 50" "$("$zeltrim" project cam.tCAM 2,1,10)"
near project-stdin "50 50 60 50" "$(printf '# world\n2 1 10\n0 0 0\n' | "$zeltrim" project cam.tCAM | tr '\n' ' ')"
check project-principal-plane 2 "has no image" -- "$zeltrim" project cam.tCAM 0,0,-10
near unproject-at-z "2 1 10" "$("$zeltrim" unproject cam.tCAM --at-z 10 50,50)"
# The ray of (50, 50) runs from the centre through (2, 1, 10): along (4, 0, 20) / sqrt(416).
near unproject-ray "-2 1 -10 0.1961161351 0 0.9805806757" "$("$zeltrim" unproject cam.tCAM 50,50 2>/dev/null)"
check unproject-ray-note 0 "has no Revert" -- "$zeltrim" unproject cam.tCAM 50,50
near unproject-round-trip "100 200" "$("$zeltrim" unproject cam.tCAL 100,200 | "$zeltrim" project cam.tCAL)"
near unproject-xml-round-trip "320 240" "$("$zeltrim" unproject cam.xml --at-z 0 320,240 | "$zeltrim" project cam.xml)"
check show-trinsic 0 "pose of the last view" -- "$zeltrim" show cam.tCAL
near show-trinsic-intrinsics "800 0 320 0 800 240 0 0 1" "$("$zeltrim" show cam.tCAL | sed -n '/^intrinsics/{n;p;n;p;n;p;}' | tr '\n' ' ')"
# decompose: the hand-made camera above splits into K = [100 0 50; 0 100 30; 0 0 1], the
# quarter turn about z (rz = 90 degrees) and t = (1, 2, 10); the synthetic calibration's
# last pose was Rx(-0.3) then Ry(-0.15) then Rz(0.3) radians with t = (-4, -2, 21).
check decompose-help 0 "R = Rz(rz) Ry(ry) Rx(rx)" -- "$zeltrim" decompose --help
near decompose-location "-2 1 -10" "$("$zeltrim" decompose cam.tCAM | sed -n 's/^location (camera centre, world): //p')"
near decompose-rotation "0 -1 0 1 0 0 0 0 1" "$("$zeltrim" decompose cam.tCAM | sed -n '/^rotation R/{n;p;n;p;n;p;}' | tr '\n' ' ')"
angles() { sed -n 's/^rotation angles.*: rx \(.*\)  ry \(.*\)  rz \(.*\)$/\1 \2 \3/p'; }
near decompose-angles "0 0 90" "$("$zeltrim" decompose cam.tCAM | angles)"
near decompose-translation "1 2 10" "$("$zeltrim" decompose cam.tCAM | sed -n 's/^translation t = -R C: //p')"
near decompose-intrinsics "100 0 50 0 100 30 0 0 1" "$("$zeltrim" decompose cam.tCAM | sed -n '/^intrinsics K/{n;p;n;p;n;p;}' | tr '\n' ' ')"
near decompose-calibrated-angles "-17.18873385 -8.594366927 17.18873385" "$("$zeltrim" decompose cam.tCAL | angles)"
near decompose-calibrated-translation "-4 -2 21" "$("$zeltrim" decompose cam.tCAL | sed -n 's/^translation t = -R C: //p')"
near decompose-calibrated-intrinsics "800 800 0 320 240" "$("$zeltrim" decompose cam.tCAL | awk '$1 == "fx" { print $2, $4, $6, $8, $10 }')"
# An affine camera (u = 2X + 5, v = 3Y + 7) has its centre at infinity, along z.
awk '{ printf "%.17g %.17g\n", 2 * $1 + 5, 3 * $2 + 7 }' world.txt >affine.txt
"$zeltrim" resect affine.txt world.txt --save affine.tCAM >/dev/null
check decompose-affine 0 "location: at infinity, in direction 0 0 1" -- "$zeltrim" decompose affine.tCAM
check decompose-other-class 2 "holds a CalibrationBestFit, not a camera" -- "$zeltrim" decompose out.tCAL
check decompose-no-file 2 "decompose needs one CAMERA_FILE" -- "$zeltrim" decompose
check decompose-two-files 2 "decompose needs one CAMERA_FILE" -- "$zeltrim" decompose cam.tCAM cam.tCAL
check decompose-missing 2 "cannot load" -- "$zeltrim" decompose nowhere.tCAM
check project-other-class 2 "holds a CameraLinearCalibration, not a camera" -- "$zeltrim" project lin.tLin 1,2,3
check project-missing 2 "cannot load" -- "$zeltrim" project nowhere.tCAM 1,2,3
printf '<?xml version="1.0"?>\n<Camera3DTransform>1,2,3</Camera3DTransform>\n' >transform.xml
check project-transform-xml 2 "write-only text form" -- "$zeltrim" project transform.xml 1,2,3
check decompose-xml-transform 2 "write-only text form" -- "$zeltrim" decompose transform.xml
check unproject-both-options 2 "exclude each other" -- "$zeltrim" unproject cam.tCAL --ray --at-z 0 1,2
# locate: the synthetic camera keeps the last view's pose, so the image points of view 4
# come back to the model on Z = 0; points of the board lifted to Z = 2 come back on Z = 2.
near_rows() {  # near_rows NAME TOLERANCE EXPECTED_FILE -- command...: each output line x y z within TOLERANCE
  local name=$1 tolerance=$2 expected=$3
  shift 4
  if "$@" 2>&1 | paste -d' ' - "$expected" | awk -v t="$tolerance" '
      { if (NF != 6) bad = 1; for (i = 1; i <= 3; i++) { d = $i - $(i + 3); if (d > t || -d > t) bad = 1 } rows++ }
      END { exit bad || rows == 0 }'; then echo "ok   $name"; passed=$((passed + 1))
  else echo "FAIL $name"; "$@" 2>&1 | head -3; failed=$((failed + 1)); fi
}
awk '{ print $1, $2, 0 }' synth/model.txt >ground.txt
check locate-help 0 "--pseudo-inverse" -- "$zeltrim" locate --help
near_rows locate-ground 1e-6 ground.txt -- bash -c "\"$zeltrim\" locate cam.tCAL --plane 0,0,1,0 <synth/view04.txt"
near_rows locate-ground-xml 1e-3 ground.txt -- bash -c "\"$zeltrim\" locate cam.xml --plane 0,0,2,0 <synth/view04.txt"
lifted=$(awk 'BEGIN { a = -0.3; b = -0.15; c = 0.3; ca = cos(a); sa = sin(a); cb = cos(b); sb = sin(b); cc = cos(c); sc = sin(c)
  split("1 0 7 5", X, " "); split("2 4 1 5", Y, " ")
  for (i = 1; i <= 4; i++) { Z = 2
    xc = cc*cb*X[i] + (cc*sb*sa - sc*ca)*Y[i] + (cc*sb*ca + sc*sa)*Z - 4
    yc = sc*cb*X[i] + (sc*sb*sa + cc*ca)*Y[i] + (sc*sb*ca - cc*sa)*Z - 2
    zc = -sb*X[i] + cb*sa*Y[i] + cb*ca*Z + 21
    printf "%.17g,%.17g ", 800*xc/zc + 320, 800*yc/zc + 240 } }')
printf '1 2 2\n0 4 2\n7 1 2\n5 5 2\n' >lifted.txt
near_rows locate-offset-plane 1e-6 lifted.txt -- "$zeltrim" locate cam.tCAL --plane 0,0,-1,2 $lifted
printf -- '-1 -2 -2\n0 -4 -2\n-7 -1 -2\n-5 -5 -2\n' >mirrored.txt
near_rows locate-negate-0 1e-6 mirrored.txt -- "$zeltrim" locate cam.tCAL --plane 0,0,1,-2 --negate 0 $lifted
check locate-pseudo-inverse 0 " -0.001" -- "$zeltrim" locate cam.tCAL --pseudo-inverse 300,200
check locate-save 0 "saved" -- "$zeltrim" locate cam.tCAL --plane 0,0,1,-2 --save located.tCAL
check show-located-camera 0 "camera: Camera3DTrinsic" -- "$zeltrim" show located.tCAL
check show-located-plane 0 "plane (a, b, c, d): 0 0 1 2" -- "$zeltrim" show located.tCAL
check locate-missing-file 2 "cannot read the camera" -- "$zeltrim" locate nowhere.tCAL --plane 0,0,1,0 1,2
check locate-wrong-class 2 "holds a CameraLinearCalibration, not a camera" -- "$zeltrim" locate lin.xml --plane 0,0,1,0 1,2
check locate-plane-of-three 2 "--plane needs A,B,C,D" -- "$zeltrim" locate cam.tCAL --plane 0,0,1 1,2
check locate-plane-not-a-number 2 "--plane needs A,B,C,D" -- "$zeltrim" locate cam.tCAL --plane 0,0,x,1 1,2
check locate-zero-normal 2 "A, B and C are all 0" -- "$zeltrim" locate cam.tCAL --plane 0,0,0,1 1,2
check locate-no-plane 2 "locate needs --plane" -- "$zeltrim" locate cam.tCAL 1,2
check locate-bad-negate 2 "--negate needs 0 or 1" -- "$zeltrim" locate cam.tCAL --plane 0,0,1,0 --negate 2 1,2
check locate-bad-point 2 "expected x y or x y z" -- "$zeltrim" locate cam.tCAL --plane 0,0,1,0 1
# triangulate: two cameras calibrated on the synthetic target, each posed as its last view
# (3 and 4); the images of model point k in views 3 and 4 meet at (X, Y, 0) of line k.
check tri-camera-3 0 "saved" -- "$zeltrim" calibrate --model synth/model.txt synth/view01.txt synth/view02.txt synth/view03.txt --save tri3.tCAL
check tri-camera-4 0 "saved" -- "$zeltrim" calibrate --model synth/model.txt synth/view01.txt synth/view02.txt synth/view04.txt --save tri4.xml
paste -d' ' synth/view03.txt synth/view04.txt >tri-pairs.txt
"$zeltrim" triangulate tri3.tCAL tri4.xml --points tri-pairs.txt >tri-out.txt 2>&1
status=$?
# The XML camera went through six-decimal text.
if [ $status -eq 0 ] && paste -d' ' tri-out.txt synth/model.txt |
  awk '{ if (NF != 5 || ($1 - $4)^2 + ($2 - $5)^2 + $3^2 > 1e-10) bad = 1 } END { exit bad || NR != 54 }'; then
  echo "ok   tri-meets-the-model"; passed=$((passed + 1))
else echo "FAIL tri-meets-the-model: exit $status"; head -3 tri-out.txt; failed=$((failed + 1)); fi
out=$(printf '# u3 v3 u4 v4\n\n%s\n' "$(sed -n 2p tri-pairs.txt)" | "$zeltrim" triangulate tri3.tCAL tri4.xml 2>&1)
if [ $? -eq 0 ] && [ "$(wc -l <<<"$out")" -eq 1 ] && awk '{ exit !(($1 - 1)^2 + $2^2 + $3^2 < 1e-10) }' <<<"$out"; then
  echo "ok   tri-stdin-skips-comments"; passed=$((passed + 1))
else echo "FAIL tri-stdin-skips-comments: $out"; failed=$((failed + 1)); fi
awk 'NR <= 2 { print $1, $2, $1, $2 }' synth/view03.txt >tri-same.txt
check tri-same-camera-twice 1 "degenerate (line 2)" -- "$zeltrim" triangulate tri3.tCAL tri3.tCAL --points tri-same.txt
out=$("$zeltrim" triangulate tri3.tCAL tri3.tCAL --points tri-same.txt 2>/dev/null)
if [ "$out" = $'degenerate (line 1)\ndegenerate (line 2)' ]; then echo "ok   tri-degenerate-prints-no-point"; passed=$((passed + 1));
else echo "FAIL tri-degenerate-prints-no-point: $out"; failed=$((failed + 1)); fi
check tri-help 0 "Camera3DTrinsic" -- "$zeltrim" triangulate --help
check tri-one-camera 2 "at least two CAMERA_FILEs (got 1)" -- "$zeltrim" triangulate tri3.tCAL --points tri-pairs.txt
check tri-missing-camera 2 "cannot load" -- "$zeltrim" triangulate tri3.tCAL nowhere.tCAL --points tri-pairs.txt
check tri-wrong-class 2 "holds a CalibrationBestFit, not a camera" -- "$zeltrim" triangulate tri3.tCAL out.tCAL --points tri-pairs.txt
printf '1 2 3 4\n1 2 3\n' >tri-short.txt
check tri-too-few-numbers 2 "line 2: expected 4 numbers (u v for each of 2 cameras), got 3" -- "$zeltrim" triangulate tri3.tCAL tri4.xml --points tri-short.txt
printf '1 2 x 4\n' >tri-word.txt
check tri-not-a-number 2 "line 1: not a number" -- "$zeltrim" triangulate tri3.tCAL tri4.xml --points tri-word.txt
check tri-missing-points 2 "cannot read" -- "$zeltrim" triangulate tri3.tCAL tri4.xml --points nowhere.txt

# stereo: the two synthetic cameras above, posed as views 3 and 4 of one target, form a rig.
check stereo-help 0 "--points LEFT_POINTS RIGHT_POINTS" -- "$zeltrim" stereo --help
check stereo-first-at-origin 0 "CameraLocation#1: centre 0 0 0  axis 0 0 1" -- "$zeltrim" stereo tri3.tCAL tri4.xml
# The baseline is the distance of the centres whatever the frame; mode 3 puts both on x.
# A calibrated rotation is orthonormal only to about 1e-7, hence the tolerances.
b0=$("$zeltrim" stereo tri3.tCAL tri4.xml --mode 0 2>&1 | awk '/^baseline:/ { print $2 }')
out=$("$zeltrim" stereo tri3.tCAL tri4.xml --mode 3 2>&1)
if [ -n "$b0" ] && awk -v b="$b0" '/^baseline:/ { d = $2 - b } /^CameraLocation#/ { x[++n] = $3; yz += $4^2 + $5^2 }
  END { r = (x[1] - x[2])^2 / b^2 - 1; exit !(n == 2 && b > 0 && (d / b)^2 < 1e-10 && yz < 1e-10 * b^2 && r^2 < 1e-10 && ((x[1] + x[2]) / b)^2 < 1e-10) }' <<<"$out"; then
  echo "ok   stereo-baseline-frame"; passed=$((passed + 1))
else echo "FAIL stereo-baseline-frame: b0=$b0"; echo "$out" | head -8; failed=$((failed + 1)); fi
# The pairs of one flat target do not fix F (a plane's images are related by a homography):
# this checks the command's output form; the real rig below checks the numbers.
cp synth/view03.txt st-left.txt
cp synth/view04.txt st-right.txt
check stereo-points 0 "Epipolar#2:" -- "$zeltrim" stereo --points st-left.txt st-right.txt
head -5 st-right.txt >st-short.txt
check stereo-points-lengths 2 "the point files differ in length (54 and 5 points)" -- "$zeltrim" stereo --points st-left.txt st-short.txt
check stereo-wrong-class 2 "holds a CalibrationBestFit, not a Camera3DTrinsic" -- "$zeltrim" stereo tri3.tCAL out.tCAL
check stereo-one-camera 2 "stereo needs two camera files (got 1)" -- "$zeltrim" stereo tri3.tCAL
check stereo-missing-camera 2 "cannot load" -- "$zeltrim" stereo tri3.tCAL nowhere.tCAL
check stereo-bad-mode 2 "--mode: not a whole number: x" -- "$zeltrim" stereo tri3.tCAL tri4.xml --mode x
check stereo-missing-points 2 "nowhere.txt" -- "$zeltrim" stereo --points st-left.txt nowhere.txt

# stereo on a real rig: both cameras calibrated on the same 13 board poses keep the last
# pose's frame; F from all 13 views' corner pairs leaves sub-pixel epipolar distances.
shared="$source_dir/../shared/data"
if [ -d "$shared/opencv-left" ] && [ -d "$shared/opencv-right" ]; then
  "$zeltrim" calibrate --model "$shared/opencv-left/model.txt" "$shared"/opencv-left/view*.txt --save st-L.tCAL >/dev/null 2>&1
  "$zeltrim" calibrate --model "$shared/opencv-right/model.txt" "$shared"/opencv-right/view*.txt --save st-R.tCAL >/dev/null 2>&1
  check stereo-rig-opencv 0 "baseline:" -- "$zeltrim" stereo st-L.tCAL st-R.tCAL
  cat "$shared"/opencv-left/view*.txt >st-rl.txt
  cat "$shared"/opencv-right/view*.txt >st-rr.txt
  out=$("$zeltrim" stereo --points st-rl.txt st-rr.txt 2>&1)
  if awk '/^epipolar distance/ { rms = $7; seen = 1 } END { exit !(seen && rms < 1.0) }' <<<"$out"; then
    echo "ok   stereo-points-opencv"; passed=$((passed + 1))
  else echo "FAIL stereo-points-opencv"; echo "$out" | tail -3; failed=$((failed + 1)); fi
else
  echo "skip stereo-rig-opencv: no $shared"
fi

# lens radial: lines bent by f(r) = 1 - 0.1 r about the centre of a 1000 x 1000 image.
# A corrected radius rho = r (1 + k1 r) comes from the distorted r = (sqrt(1 + 4 k1 rho) - 1) / (2 k1).
bend() {  # bend X Y: the distorted pixel of the corrected pixel (X, Y)
  awk -v X="$1" -v Y="$2" 'BEGIN { k = -0.1; u = X / 1000 - 0.5; v = 0.5 - Y / 1000; rho = sqrt(u * u + v * v)
    r = rho > 0 ? (sqrt(1 + 4 * k * rho) - 1) / (2 * k) : 0; f = rho > 0 ? r / rho : 1
    printf "%.12f %.12f\n", (u * f + 0.5) * 1000, (0.5 - v * f) * 1000 }'
}
: >bent.txt
for across in 80 300 700 920; do
  for t in 50 200 350 500 650 800 950; do bend "$t" "$across" >>bent.txt; done; echo >>bent.txt
  for t in 50 200 350 500 650 800 950; do bend "$across" "$t" >>bent.txt; done; echo >>bent.txt
done
check lens-help 0 "radial" -- "$zeltrim" lens --help
check lens-radial-help 0 "--image-size" -- "$zeltrim" lens radial --help
out=$("$zeltrim" lens radial bent.txt --image-size 1000x1000 --flags 1 --save bent.tRad 2>&1)
if awk '$1 == "k1" { k = $2 } END { exit !(k + 0.1 < 1e-9 && k + 0.1 > -1e-9) }' <<<"$out"; then
  echo "ok   lens-radial-recovers-k1"; passed=$((passed + 1))
else echo "FAIL lens-radial-recovers-k1: $out"; failed=$((failed + 1)); fi
check lens-radial-save-xml 0 "saved" -- "$zeltrim" lens radial bent.txt --image-size 1000x1000 --flags 1 --save bent.xml
check lens-radial-show 0 "type: Radial Distortion" -- "$zeltrim" show bent.xml
# The corrected pixel of a bent one is the straight-line pixel it came from.
read -r bx by < <(bend 150 880)
for file in bent.tRad bent.xml; do
  out=$("$zeltrim" convert "$file" "$bx,$by" 2>&1)
  if awk '{ exit !(($1 - 150)^2 + ($2 - 880)^2 < 1e-8) }' <<<"$out"; then echo "ok   convert-radial-$file"; passed=$((passed + 1));
  else echo "FAIL convert-radial-$file: $out"; failed=$((failed + 1)); fi
done
# Real detected chessboard corners: rows and columns of the board are straight lines.
view="$source_dir/data/opencv-left-w7/view01.txt"
: >board-lines.txt
for r in 0 1 2 3 4 5; do awk -v r=$r 'int((NR - 1) / 9) == r' "$view" >>board-lines.txt; echo >>board-lines.txt; done
for c in 0 1 2 3 4 5 6 7 8; do awk -v c=$c '(NR - 1) % 9 == c' "$view" >>board-lines.txt; echo >>board-lines.txt; done
out=$("$zeltrim" lens radial board-lines.txt --image-size 640x480 2>&1)
if awk '/^before:/ { b = $8 } /^after:/ { a = $8 } END { exit !(a > 0 && a < b / 4) }' <<<"$out"; then
  echo "ok   lens-radial-straightens-a-real-board"; passed=$((passed + 1))
else echo "FAIL lens-radial-straightens-a-real-board: $out"; failed=$((failed + 1)); fi
printf '1 2\n3 4\n5 6\n\n7 8\n\n' >one-point-set.txt
check lens-radial-one-point-set 2 "line 5: a set of 1 point" -- "$zeltrim" lens radial one-point-set.txt
check lens-radial-bad-flags 2 "--flags needs a sum of" -- "$zeltrim" lens radial bent.txt --flags 128
check lens-radial-bad-size 2 "--image-size needs WxH" -- "$zeltrim" lens radial bent.txt --image-size 640
check lens-radial-no-file 2 "needs one LINES_FILE" -- "$zeltrim" lens radial
check lens-radial-save-text 1 "saves no file of that extension" -- "$zeltrim" lens radial bent.txt --save bent.dat
check lens-unknown-kind 2 "unknown lens kind 'conic'" -- "$zeltrim" lens conic
check convert-revert 0 "" -- "$zeltrim" convert bent.tRad --revert 150,880
check convert-camera-refused 2 "does not convert points" -- "$zeltrim" convert tri3.tCAL 1,2
check convert-no-file 2 "needs a calibration FILE" -- "$zeltrim" convert
check convert-bad-point 2 "expected x y or x y z" -- "$zeltrim" convert bent.tRad 1,2,3,4
check convert-missing-file 2 "cannot load" -- "$zeltrim" convert nowhere.xml 1,2
# lens fisheye: a 90 degree view (t = tan 45 = 1) of 1000 x 700 on a 180 degree lens
# centred at (1000, 800) with radii 400 and 300. Pixel (500, 349) has a = b = 1/2: the ray
# on the axis lands on the centre. Pixel (0, 349) is the ray (-1, 1, 0), 45 degrees off:
# r = 45 / 90, x = 1000 - 400 / 2. Pixel (500, 699), the last row, is (0, 1, 0.7): below
# the centre of the fisheye picture by 300 atan(0.7) / (pi / 2).
fish=(--param PerspectiveFOV=90 --param FisheyeCenterX=1000 --param FisheyeCenterY=800
      --param FisheyeRadiusX=400 --param FisheyeRadiusY=300)
check fisheye-help 0 "--map FILE" -- "$zeltrim" lens fisheye --help
check fisheye-map-csv 0 "fisheye x from 800.000000 to" -- "$zeltrim" lens fisheye "${fish[@]}" --map fish.csv
if [ "$(head -1 fish.csv)" = "u,v,x,y" ] && [ "$(wc -l <fish.csv)" -eq 700001 ] &&
  grep -qx '500,349,1000.000000,800.000000' fish.csv && grep -qx '0,349,800.000000,800.000000' fish.csv &&
  awk -F, '$1 == 500 && $2 == 699 { want = 800 + 300 * atan2(0.7, 1) / (atan2(1, 0)); ok = ($3 - 1000)^2 + ($4 - want)^2 < 1e-10 }
    END { exit !ok }' fish.csv; then echo "ok   fisheye-map-values"; passed=$((passed + 1))
else echo "FAIL fisheye-map-values"; sed -n '1,2p' fish.csv; failed=$((failed + 1)); fi
# Names not given keep their values: the radii do not take the centre's coordinates.
check fisheye-others-keep-defaults 0 "FisheyeRadiusY           350" -- "$zeltrim" lens fisheye --param FisheyeFOV=170 --map fish.csv
check fisheye-fov-fraction-dropped 0 "PerspectiveFOV           90" -- "$zeltrim" lens fisheye --param PerspectiveFOV=90.7 --map fish.csv
check fisheye-width-made-even 0 "map: 40 x 30 perspective pixels" -- "$zeltrim" lens fisheye --param PerspectiveImageWidth=41 --param PerspectiveImageHeight=30 --map fish.pgm
# 16-bit PGM: header, then 2 bytes a pixel; the pixel of the axis ray, (20, 14), is black.
header=$'P5\n40 30\n65535\n'
if head -c ${#header} fish.pgm | cmp -s - <(printf '%s' "$header") && [ "$(wc -c <fish.pgm)" -eq $((${#header} + 40 * 30 * 2)) ] &&
  [ "$(od -An -tu1 -j $((${#header} + (14 * 40 + 20) * 2)) -N2 fish.pgm | tr -s ' ')" = " 0 0" ]; then
  echo "ok   fisheye-pgm"; passed=$((passed + 1))
else echo "FAIL fisheye-pgm"; failed=$((failed + 1)); fi
check fisheye-save-xml 0 "saved" -- "$zeltrim" lens fisheye "${fish[@]}" --save fish.xml
if [ "$(head -c 2 fish.xml | od -An -tx1 | tr -d ' ')" = "fffe" ]; then echo "ok   fisheye-xml-mark"; passed=$((passed + 1));
else echo "FAIL fisheye-xml-mark"; failed=$((failed + 1)); fi
check fisheye-save-folder 0 "saved" -- "$zeltrim" lens fisheye "${fish[@]}" --map fish.csv --save fish.tFish
check fisheye-unknown-parameter 2 "unknown parameter 'FisheyeRadius'" -- "$zeltrim" lens fisheye --param FisheyeRadius=3 --map fish.csv
check fisheye-bad-value 2 "k2 needs a number, got '0.1x'" -- "$zeltrim" lens fisheye --param k2=0.1x --map fish.csv
check fisheye-fractional-size 2 "FisheyeImageWidth needs a whole number" -- "$zeltrim" lens fisheye --param FisheyeImageWidth=10.5 --map fish.csv
check fisheye-param-without-value 2 "--param needs NAME=VALUE" -- "$zeltrim" lens fisheye --param k1 --map fish.csv
check fisheye-map-form 2 "--map needs a .csv or .pgm" -- "$zeltrim" lens fisheye --map fish.txt
check fisheye-no-output 2 "needs --map FILE" -- "$zeltrim" lens fisheye --param k1=2
check fisheye-too-large 2 "at most 50000000" -- "$zeltrim" lens fisheye --param PerspectiveImageWidth=100000 --param PerspectiveImageHeight=100000 --map fish.csv
check fisheye-save-form 2 "--save needs a .xml or .t..." -- "$zeltrim" lens fisheye --save fish.dat
# lens polynomial: a 4 x 3 grid mapped by x -> 2x + 1, y -> 3y - 1. Every row and column
# curve passes through its nodes, so each node converts to its target: errors 0.
for y in 0 10 20; do for x in 0 10 20 30; do echo "$x $y"; done; done >grid-src.txt
awk '{ print 2 * $1 + 1, 3 * $2 - 1 }' grid-src.txt >grid-dst.txt
check lens-help 0 "polynomial" -- "$zeltrim" lens --help
check lens-polynomial-help 0 "--grid CxR" -- "$zeltrim" lens polynomial --help
check lens-polynomial-fit 0 "grid 4 columns x 3 rows (12 points)" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4x3
check lens-polynomial-exact 0 "largest 0  standard deviation 0" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4x3
check lens-polynomial-lagrange 0 "curves: Lagrange polynomials" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4x3
check lens-polynomial-spline 0 "order: 2, curves: natural cubic splines" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4x3 --order 2
# y -> y + 0.1 x: the node (0, 0) lies on the first column, so it converts through the
# last column's curve, y + 3: its error, 3, is the largest.
awk '{ print $1, $2 + 0.1 * $1 }' grid-src.txt >grid-shear.txt
check lens-polynomial-first-column 0 "largest 3  " -- "$zeltrim" lens polynomial grid-src.txt grid-shear.txt --grid 4x3 --order 1
check lens-polynomial-save 0 "saved" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4x3 --order 1 --save grid.tCalPoly
check show-polynomial-grid 0 "grid: 4 columns x 3 rows (12 points)" -- "$zeltrim" show grid.tCalPoly
check show-polynomial-order 0 "order: 1, curves: broken lines" -- "$zeltrim" show grid.tCalPoly
check show-polynomial-errors 0 "fit errors: largest 0  standard deviation 0" -- "$zeltrim" show grid.tCalPoly
check lens-polynomial-save-xml 2 "has no XML form" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4x3 --save grid.xml
if [ ! -e grid.xml ]; then echo "ok   lens-polynomial-save-xml-writes-nothing"; passed=$((passed + 1));
else echo "FAIL lens-polynomial-save-xml-writes-nothing"; failed=$((failed + 1)); fi
check lens-polynomial-save-unknown 1 "cannot save" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4x3 --save grid.dat
check lens-polynomial-grid-mismatch 2 "the grid 3x3 has 9 points, the files hold 12" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 3x3
check lens-polynomial-below-six 2 "a grid needs at least 6 points (2x2 is 4)" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 2x2
check lens-polynomial-one-column 2 "--grid needs 2 to 65536 columns and rows (got 1x12)" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 1x12
head -5 grid-dst.txt >grid-short.txt
check lens-polynomial-length-mismatch 2 "differ in length: 12 and 5" -- "$zeltrim" lens polynomial grid-src.txt grid-short.txt --grid 4x3
check lens-polynomial-no-grid 2 "needs --grid" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt
check lens-polynomial-bad-grid 2 "--grid needs COLUMNSxROWS" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4by3
check lens-polynomial-bad-order 2 "--order needs a whole number" -- "$zeltrim" lens polynomial grid-src.txt grid-dst.txt --grid 4x3 --order two
check lens-polynomial-one-file 2 "needs a SOURCE and a TARGET" -- "$zeltrim" lens polynomial grid-src.txt --grid 4x3
check lens-polynomial-missing-file 2 "cannot read" -- "$zeltrim" lens polynomial nowhere.txt grid-dst.txt --grid 4x3
check lens-unknown-kind 2 "unknown lens kind 'bogus'" -- "$zeltrim" lens bogus

# Property pages of the translation fitted above (out.tCAL): the info block, edited as a
# frame edits it, and the forward matrix (points are rows, so the shift is the last row).
check pages-info 0 "Type: Best Fit" -- "$zeltrim" pages out.tCAL
check pages-edit 0 "Units: mm" -- "$zeltrim" pages out.tCAL --set Name=Belt --set Units=mm --save edited.tCAL
check pages-edit-saved-name 0 "Name: Belt" -- "$zeltrim" pages edited.tCAL
check pages-edit-saved-units 0 "Units: mm" -- "$zeltrim" pages edited.tCAL
check pages-edit-xml-warns 0 "keeps only the name" -- "$zeltrim" pages out.tCAL --set Units=mm --save edited.xml
check pages-matrix-shift 0 "   20.000000" -- "$zeltrim" pages out.tCAL --page matrix --svg matrix.svg
if [ "$("$zeltrim" pages out.tCAL --page matrix | sed -n '13p;14p' | tr '\n' '|')" = "   10.000000|   20.000000|" ] &&
   grep -qF ">   10.000000</text>" matrix.svg; then echo "ok   pages-matrix-last-row"; passed=$((passed + 1))
else echo "FAIL pages-matrix-last-row"; failed=$((failed + 1)); fi
if ! command -v xmllint >/dev/null || xmllint --noout matrix.svg; then echo "ok   pages-svg-well-formed"; passed=$((passed + 1))
else echo "FAIL pages-svg-well-formed"; failed=$((failed + 1)); fi
check pages-read-only 2 "entry Device is read-only" -- "$zeltrim" pages out.tCAL --set Device=other
check pages-unknown-entry 2 "no entry Bogus on the info page" -- "$zeltrim" pages out.tCAL --set Bogus=1
check pages-unknown-page 2 "unknown page bogus" -- "$zeltrim" pages out.tCAL --page bogus
check pages-not-a-calibration 2 "cannot load" -- "$zeltrim" pages src.txt
check pages-matrix-no-edit 2 "--set edits the info page only" -- "$zeltrim" pages out.tCAL --page matrix --set Name=x
# collection: calibration files made above kept by name in a collection file of each form,
# with the active slots in FILE.active beside it.
check collection-help 0 "FILE.active" -- "$zeltrim" collection --help
for form in xml tcol; do
  col=station.$form
  check "collection-$form-add-creates" 0 "added Floor (CameraLinearCalibration)" -- "$zeltrim" collection $col add Floor lin.xml
  check "collection-$form-add-fit" 0 "added Wall (CalibrationBestFit)" -- "$zeltrim" collection $col add Wall out.tCAL
  check "collection-$form-add-radial" 0 "added Lens (CalibrationDistortionRadial)" -- "$zeltrim" collection $col add Lens bent.tRad
  check "collection-$form-add-camera" 0 "added Camera (Camera3DTrinsic)" -- "$zeltrim" collection $col add Camera cam.tCAL
  # Sorted by name; lin.xml was saved as "Bench", and the member is named by its entry.
  rows=$("$zeltrim" collection $col list 2>&1 | awk 'NR > 1 { print $1, $2 }')
  if [ "$rows" = $'Camera Camera3DTrinsic\nFloor CameraLinearCalibration\nLens CalibrationDistortionRadial\nWall CalibrationBestFit' ]; then
    echo "ok   collection-$form-list"; passed=$((passed + 1))
  else echo "FAIL collection-$form-list: $rows"; failed=$((failed + 1)); fi
  check "collection-$form-list-type" 0 "Radial Distortion" -- "$zeltrim" collection $col list
  check "collection-$form-duplicate" 2 "already has a member Floor" -- "$zeltrim" collection $col add floor lin.tLin
  check "collection-$form-activate-lens" 0 "active lens: Lens" -- "$zeltrim" collection $col activate lens Lens
  check "collection-$form-activate-alignment" 0 "active alignment: Floor" -- "$zeltrim" collection $col activate alignment Floor
  check "collection-$form-activate-location" 0 "location: Wall" -- "$zeltrim" collection $col activate location Wall
  check "collection-$form-activate-camera" 2 "is a Camera3DTrinsic, which converts no points" -- "$zeltrim" collection $col activate lens Camera
  if [ "$(grep -v '^#' $col.active)" = $'lens Lens\nalignment Floor\nlocation Wall' ]; then
    echo "ok   collection-$form-side-file"; passed=$((passed + 1))
  else echo "FAIL collection-$form-side-file"; cat $col.active; failed=$((failed + 1)); fi
  # A rename follows into the saved entry, the name lookup and the slot holding the member.
  check "collection-$form-rename" 0 "renamed Floor to Ground" -- "$zeltrim" collection $col rename Floor Ground
  rows=$("$zeltrim" collection $col show 2>&1)
  if grep -q '^Ground  *CameraLinearCalibration' <<<"$rows" && ! grep -q '^Floor' <<<"$rows" &&
    grep -qx 'active alignment: Ground' <<<"$rows" && grep -qx 'active lens: Lens' <<<"$rows" &&
    grep -qx 'location: Wall' <<<"$rows" && grep -qx 'alignment Ground' $col.active; then
    echo "ok   collection-$form-rename-shown"; passed=$((passed + 1))
  else echo "FAIL collection-$form-rename-shown: $rows"; failed=$((failed + 1)); fi
  if [ $form = xml ]; then  # the saved entry itself carries the new name
    if iconv -f UTF-16 -t UTF-8 $col | grep -q '^  <Ground>' && ! iconv -f UTF-16 -t UTF-8 $col | grep -q '<Floor>'; then
      echo "ok   collection-xml-rename-saved"; passed=$((passed + 1))
    else echo "FAIL collection-xml-rename-saved"; failed=$((failed + 1)); fi
  fi
  check "collection-$form-old-name-gone" 2 "has no member Floor" -- "$zeltrim" collection $col remove Floor
  check "collection-$form-rename-onto-member" 2 "already has a member Wall" -- "$zeltrim" collection $col rename Ground wall
  check "collection-$form-remove" 0 "removed Wall" -- "$zeltrim" collection $col remove Wall
  rows=$("$zeltrim" collection $col show 2>&1)
  if grep -qx 'members: 3' <<<"$rows" && ! grep -q '^Wall' <<<"$rows" && grep -qx 'location: (none)' <<<"$rows" &&
    grep -qx 'active alignment: Ground' <<<"$rows" && ! grep -q '^location' $col.active; then
    echo "ok   collection-$form-remove-empties-slot"; passed=$((passed + 1))
  else echo "FAIL collection-$form-remove-empties-slot: $rows"; failed=$((failed + 1)); fi
  "$zeltrim" collection $col remove Ground >/dev/null && "$zeltrim" collection $col remove Lens >/dev/null
  if [ ! -e $col.active ] && [ "$("$zeltrim" collection $col list 2>&1 | awk 'NR > 1 { print $1 }')" = Camera ]; then
    echo "ok   collection-$form-no-slots-no-side-file"; passed=$((passed + 1))
  else echo "FAIL collection-$form-no-slots-no-side-file"; failed=$((failed + 1)); fi
done
check collection-time-kept 0 "" -- "$zeltrim" collection station.tcol add Wall out.tCAL
if "$zeltrim" collection station.tcol list | awk '$1 == "Wall" { ok = $(NF - 1) ~ /^20[0-9][0-9]-[01][0-9]-[0-3][0-9]$/ } END { exit !ok }'; then
  echo "ok   collection-tcol-calibration-time"; passed=$((passed + 1))
else echo "FAIL collection-tcol-calibration-time"; failed=$((failed + 1)); fi
# A side file naming a member that is gone leaves the slot empty and says so.
printf 'location Ghost\n' >station.tcol.active
check collection-stale-slot-note 0 "names Ghost for the slot location" -- "$zeltrim" collection station.tcol show
check collection-stale-slot-empty 0 "location: (none)" -- "$zeltrim" collection station.tcol show
printf 'lens Wall\nlense Wall\n' >station.tcol.active
check collection-bad-side-file 2 "station.tcol.active line 2: unknown slot 'lense'" -- "$zeltrim" collection station.tcol list
rm station.tcol.active
cp station.xml station-before.xml
check collection-xml-refuses-polynomial 2 "has no XML form that loads again" -- "$zeltrim" collection station.xml add Grid grid.tCalPoly
if cmp -s station.xml station-before.xml; then echo "ok   collection-refused-add-keeps-file"; passed=$((passed + 1));
else echo "FAIL collection-refused-add-keeps-file"; failed=$((failed + 1)); fi
check collection-tcol-keeps-polynomial 0 "added Grid (CalibrationPolynomial)" -- "$zeltrim" collection station.tcol add Grid grid.tCalPoly
check collection-of-calibration-file 2 "holds a CameraLinearCalibration, not a CalibrationsCollection" -- "$zeltrim" collection lin.xml list
check collection-of-fit-folder 2 "holds a CalibrationBestFit, not a CalibrationsCollection" -- "$zeltrim" collection out.tCAL add X lin.xml
check collection-junk-folder 2 "not a folder stream" -- "$zeltrim" collection junk.tCAL show
check collection-junk-xml 2 "not well-formed XML at line 1" -- "$zeltrim" collection junk.xml list
check collection-cut-folder 2 "truncated folder stream" -- "$zeltrim" collection cut.tCAL list
check collection-missing 2 "cannot read it" -- "$zeltrim" collection nowhere.tcol list
check collection-add-bad-calibration 2 "not a folder stream" -- "$zeltrim" collection fresh.tcol add A junk.tCAL
if [ ! -e fresh.tcol ]; then echo "ok   collection-failed-add-creates-nothing"; passed=$((passed + 1));
else echo "FAIL collection-failed-add-creates-nothing"; failed=$((failed + 1)); fi
check collection-add-collection 2 "is a collection itself" -- "$zeltrim" collection station.xml add Nested station.tcol
check collection-filename-name 2 "kept for the collection's own file name" -- "$zeltrim" collection station.tcol add FileName lin.xml
check collection-unknown-verb 2 "unknown collection verb 'drop'" -- "$zeltrim" collection station.tcol drop Wall
check collection-unknown-slot 2 "unknown slot 'focus'" -- "$zeltrim" collection station.tcol activate focus Wall
check collection-no-member 2 "has no member Nobody" -- "$zeltrim" collection station.tcol activate lens Nobody
check collection-no-verb 2 "needs a FILE and a verb" -- "$zeltrim" collection station.tcol
check collection-add-arguments 2 "add needs a NAME and a CALIBRATION_FILE" -- "$zeltrim" collection station.tcol add Wall
check collection-extension 2 "needs the extension .xml" -- "$zeltrim" collection station.dat list

# An installation without the geometry peer: the module reports the missing module and
# the command fails cleanly instead of crashing.
bin_dir=$(dirname "$zeltrim")
mkdir -p partial/_binlinux
cp "$zeltrim" partial/
for so in "$bin_dir"/_binlinux/*.so; do
  case "$(basename "$so")" in Geometry.so) ;; *) cp "$so" partial/_binlinux/ ;; esac
done
check missing-peer 1 "Module not available ./_binlinux/Geometry.so" -- partial/zeltrim linear 1,2

echo "$passed passed, $failed failed"
[ "$failed" -eq 0 ]
