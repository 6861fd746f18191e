#!/usr/bin/env python3
"""Convert of 1,000,000 points through the Python extension, against the same conversion in
C++ (calibration_convert_bench, through the loaded module) and cv2.perspectiveTransform
where OpenCV's Python module is installed.

Run from the source folder after building:  python3 bench/python_convert_bench.py [BUILD]
(BUILD defaults to ./build; the extension is taken from BUILD/python.)
"""
import json
import os
import subprocess
import sys
import time

import numpy as np

BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else "build")
sys.path.insert(0, os.path.join(BUILD, "python"))
import zeltrim  # noqa: E402

REPEATS = 20
N = 1_000_000


def grid_pairs():
    """The 10 x 10 grid and its image under a known homography, as the C++ benchmark has it."""
    x, y = np.meshgrid(100.0 * np.arange(10) - 450, 100.0 * np.arange(10) - 450, indexing="ij")
    x, y = x.ravel(), y.ravel()
    w = 1e-4 * x - 2e-4 * y + 1
    return np.c_[x, y], np.c_[(1.1 * x + 0.2 * y + 30) / w, (-0.1 * x + 0.9 * y - 20) / w]


def best_ms(run):
    run()  # warm
    times = []
    for _ in range(REPEATS):
        start = time.perf_counter()
        run()
        times.append(time.perf_counter() - start)
    return 1000 * min(times), 1000 * float(np.median(times))


def cpp_ms():
    binary = os.path.join(BUILD, "calibration_convert_bench")
    if not os.path.exists(binary):
        return None
    out = subprocess.run([binary, "--benchmark_format=json", "--benchmark_repetitions=5"], cwd=BUILD,
                         capture_output=True, text=True, check=True).stdout
    runs = [b for b in json.loads(out)["benchmarks"] if b.get("run_type") == "iteration"]
    times = sorted(b["real_time"] for b in runs)
    return times[0], times[len(times) // 2]


def main():
    source, target = grid_pairs()
    calibration = zeltrim.fit(source, target, method=0)
    points = np.random.default_rng(5).uniform(-500, 500, (N, 2))
    rows = [("python  zeltrim convert", best_ms(lambda: calibration.convert(points)))]
    cpp = cpp_ms()
    if cpp:
        rows.append(("C++     module Convert loop", cpp))
    try:
        import cv2

        h, _ = cv2.findHomography(source, target, 0)
        shaped = points.reshape(-1, 1, 2)
        rows.append(("python  cv2.perspectiveTransform", best_ms(lambda: cv2.perspectiveTransform(shaped, h))))
        np.testing.assert_allclose(cv2.perspectiveTransform(shaped, h).reshape(-1, 2), calibration.convert(points),
                                   rtol=0, atol=1e-4)
    except ImportError:
        print("(no cv2: apt-get install python3-opencv for the OpenCV column)")
    print(f"convert of {N:,} points, {REPEATS} repeats (ms)")
    print(f"  {'':34s} {'best':>8s} {'median':>8s}")
    for name, (best, median) in rows:
        print(f"  {name:34s} {best:8.2f} {median:8.2f}")
    if cpp:
        print(f"  python / C++ (best): {rows[0][1][0] / cpp[0]:.2f}x")


if __name__ == "__main__":
    main()
