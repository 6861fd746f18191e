#!/usr/bin/env bash
# Checks an installation as a user meets it, from a build folder that is already built.
# usage: check-install.sh BUILD [--examples] [--deb]
#   always      cmake --install BUILD into a scratch prefix; the installed zeltrim run from
#               another folder (objects, calibrate on the bundled sample); the prefix moved
#               elsewhere and zeltrim run again
#   --examples  examples/minimal-host built against the prefix with find_package and with
#               pkg-config, both run from another folder
#   --deb       cpack -G DEB in BUILD, the package unpacked with dpkg-deb -x into a scratch
#               root, and ROOT/usr/bin/zeltrim run from another folder
# Prints one line a check; exits 1 at the first failure.
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:?usage: check-install.sh BUILD [--examples] [--deb]}" && pwd)
shift
examples=0 deb=0
for a in "$@"; do
  case $a in
    --examples) examples=1 ;;
    --deb) deb=1 ;;
    *) echo "check-install: unknown option $a" >&2; exit 2 ;;
  esac
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
elsewhere=$scratch/elsewhere  # a working folder with no _binlinux/ in it
mkdir -p "$elsewhere"

fail() { echo "FAIL $1"; [ -n "${2:-}" ] && head -n 20 <<<"$2"; exit 1; }
# expect NAME TEXT -- command...: the command succeeds, run from $elsewhere, and prints TEXT.
expect() {
  local name=$1 text=$2 out
  shift 3
  out=$(cd "$elsewhere" && "$@" 2>&1) || fail "$name: exit $?" "$out"
  grep -qF -- "$text" <<<"$out" || fail "$name: output lacks '$text'" "$out"
  echo "ok   $name"
}
# The installed zeltrim under ROOT (a prefix): its objects, and the bundled sample found
# under ROOT itself, with the focal lengths of that sample.
check_zeltrim() {
  local label=$1 root
  root=$(cd "$2" && pwd -P)  # zeltrim names the sample's folder with no symbolic links
  expect "$label objects" "CameraLinearCalibration      provided" -- "$root/bin/zeltrim" objects
  expect "$label calibrate sample" "($root/share/zeltrim/data/opencv-left-w7)" -- "$root/bin/zeltrim" calibrate
  expect "$label calibrate fx" "fx        550.5" -- "$root/bin/zeltrim" calibrate
}

prefix=$scratch/prefix
out=$(cmake --install "$build" --prefix "$prefix" 2>&1) || fail "cmake --install: exit $?" "$out"
for f in bin/zeltrim lib/zeltrim/_binlinux/Zeltrim.so lib/zeltrim/_binlinux/CollectionsEx.so \
         include/zeltrim/frame/ModuleInterfaces.h include/zeltrim/host/client/ModuleHost.h \
         lib/libzeltrim_client.a lib/cmake/Zeltrim/ZeltrimConfig.cmake \
         lib/cmake/Zeltrim/ZeltrimConfigVersion.cmake lib/pkgconfig/zeltrim.pc \
         share/zeltrim/data/opencv-left-w7/model.txt; do
  [ -e "$prefix/$f" ] || fail "install: no $f"
done
echo "ok   install layout"
check_zeltrim installed "$prefix"

# Nothing in the installation may name the prefix it was installed to.
moved=$scratch/moved
mv "$prefix" "$moved"
check_zeltrim moved "$moved"
mv "$moved" "$prefix"

if [ "$examples" = 1 ]; then
  want="(3, 4, 0) -> (16, 28, 0)"
  host_build=$scratch/minimal-host-cmake
  out=$(cmake -S "$source_dir/examples/minimal-host" -B "$host_build" -DCMAKE_PREFIX_PATH="$prefix" 2>&1 &&
        cmake --build "$host_build" 2>&1) || fail "minimal-host (find_package): build failed" "$out"
  expect "minimal-host (find_package)" "$want" -- "$host_build/minimal-host"

  if command -v pkg-config >/dev/null 2>&1; then
    # The command of examples/minimal-host/README.md.
    out=$(cd "$source_dir/examples/minimal-host" && export PKG_CONFIG_PATH="$prefix/lib/pkgconfig" &&
          g++ -std=c++17 -O2 main.cpp -o "$scratch/minimal-host-pc" \
            -DZELTRIM_MODULE_DIR="\"$(pkg-config --variable=moduledir zeltrim)\"" \
            $(pkg-config --cflags --libs zeltrim) 2>&1) || fail "minimal-host (pkg-config): build failed" "$out"
    expect "minimal-host (pkg-config)" "$want" -- "$scratch/minimal-host-pc"
  else
    echo "note: pkg-config is not installed; the pkg-config build of minimal-host is left out"
  fi
fi

if [ "$deb" = 1 ]; then
  # cpack writes the package into the build folder; only this run's package is unpacked.
  rm -f "$build"/zeltrim_*.deb
  out=$(cd "$build" && cpack -G DEB 2>&1) || fail "cpack -G DEB: exit $?" "$out"
  package=$(ls "$build"/zeltrim_*.deb)
  [ "$(dpkg-deb -f "$package" Package)" = zeltrim ] || fail "package: not named zeltrim"
  echo "ok   cpack -G DEB: $(basename "$package")"
  root=$scratch/root
  dpkg-deb -x "$package" "$root"
  check_zeltrim "package" "$root/usr"
fi
