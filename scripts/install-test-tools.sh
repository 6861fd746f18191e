#!/usr/bin/env bash
# Installs, from Debian's packages, what the tests and benchmarks compare against when it is
# missing: xmllint (libxml2-utils), the outside judge of the XML stream; the optional
# libraries Eigen, OpenCV, cminpack and LAPACKE; Ceres Solver (calibrate --refine); pkg-config (pkgconf), with which CI builds
# the example host against an installation; and what the Python extension and its tests
# need (pybind11, NumPy, pytest, the Python headers; OpenCV's Python module for a benchmark).
# It needs root and apt-get; otherwise it only says what is missing. It is quiet, prints at
# most one line, and never fails: without a package the build still configures and the
# tests that need it skip themselves.
set -u
packages="libxml2-utils libeigen3-dev libopencv-dev libcminpack-dev liblapacke-dev libceres-dev pkgconf
  python3-dev python3-pybind11 python3-numpy python3-pytest python3-opencv"

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "ok installed"; }

command -v dpkg-query >/dev/null 2>&1 || exit 0  # not Debian: CMake finds what there is
missing=""
for p in $packages; do installed "$p" || missing="$missing $p"; done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then
  export DEBIAN_FRONTEND=noninteractive
  apt_install() { apt-get install -y -qq --no-install-recommends "$@" >/dev/null 2>&1; }
  apt-get update -qq >/dev/null 2>&1
  # All at once; when that fails, one by one, so one unavailable package keeps no other out.
  # shellcheck disable=SC2086
  if ! apt_install $missing; then
    for p in $missing; do apt_install "$p"; done
  fi
  left=""
  for p in $missing; do installed "$p" || left="$left $p"; done
  [ -n "$left" ] && echo "note: could not install${left}; the tests and comparisons that need them will skip"
else
  echo "note: not installed (needs root and apt-get):${missing}; the tests and comparisons that need them will skip"
fi
exit 0
