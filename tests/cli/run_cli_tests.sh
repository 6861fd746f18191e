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
check calibrate-unwritable 1 "cannot save" -- "$zeltrim" calibrate synth --save /nonexistent-folder/cam.xml
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
