"""The zeltrim extension against the zeltrim command and against NumPy."""
import json
import os
import subprocess
import threading

import numpy as np
import pytest

import zeltrim

SOURCE = os.environ.get("ZELTRIM_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
BINARY = os.environ.get("ZELTRIM_BINARY", "")
SAMPLE = os.path.join(SOURCE, "data", "opencv-left-w7")


def sample():
    model = np.loadtxt(os.path.join(SAMPLE, "model.txt"))
    names = sorted(n for n in os.listdir(SAMPLE) if n.startswith("view") and n.endswith(".txt"))
    return model, [np.loadtxt(os.path.join(SAMPLE, n)) for n in names]


def command(*args):
    if not BINARY:
        pytest.skip("ZELTRIM_BINARY not set")
    return subprocess.run([BINARY, *args], capture_output=True, text=True, check=True).stdout


def camera_matrix():
    """P = K [R | t], a camera 10 units from the origin, turned about all three axes."""
    k = np.array([[800.0, 0.5, 320.0], [0.0, 780.0, 240.0], [0.0, 0.0, 1.0]])
    a, b, c = 0.2, -0.3, 0.1
    rx = np.array([[1, 0, 0], [0, np.cos(a), -np.sin(a)], [0, np.sin(a), np.cos(a)]])
    ry = np.array([[np.cos(b), 0, np.sin(b)], [0, 1, 0], [-np.sin(b), 0, np.cos(b)]])
    rz = np.array([[np.cos(c), -np.sin(c), 0], [np.sin(c), np.cos(c), 0], [0, 0, 1]])
    return k @ np.hstack([rz @ ry @ rx, [[0.3], [-0.2], [10.0]]])


def image_of(p, world):
    h = np.hstack([world, np.ones((len(world), 1))]) @ p.T
    return h[:, :2] / h[:, 2:]


# ---------------------------------------------------------------- against the command


def test_calibration_matches_the_command():
    expected = json.loads(command("calibrate", "--json"))
    model, views = sample()
    camera = zeltrim.calibrate(model, views, image_size=(640, 480))
    for name in ("fx", "fy", "skew", "cx", "cy", "k1", "k2", "max_error", "sd_error"):
        assert getattr(camera, name) == pytest.approx(expected[name], rel=1e-9, abs=1e-9), name
    for name in ("intrinsic", "extrinsic", "combined"):
        np.testing.assert_allclose(getattr(camera, name), expected[name], rtol=1e-9, atol=1e-9, err_msg=name)
    assert [(v["view"], v["max_error"], v["sd_error"]) for v in camera.views] == [
        (v["view"], v["max_error"], v["sd_error"]) for v in expected["views"]
    ]
    # The camera maps the model through its matrix P.
    np.testing.assert_allclose(camera.project(model), image_of(camera.combined, np.c_[model, np.zeros(len(model))]))


def test_calibration_mode_0_matches_the_command():
    model, views = sample()
    files = [os.path.join(SAMPLE, "view%02d.txt" % i) for i in range(1, 5)]
    expected = json.loads(command("calibrate", "--model", os.path.join(SAMPLE, "model.txt"), *files, "--mode", "0",
                                  "--image-size", "800x600", "--json"))
    camera = zeltrim.calibrate(model, views[:4], image_size=(800, 600), mode=0)
    for name in ("fx", "fy", "cx", "cy", "sd_error"):
        assert getattr(camera, name) == pytest.approx(expected[name], rel=1e-9), name


def test_objects_as_the_command_lists_them():
    lines = command("objects").splitlines()[:-1]
    listed = {line.split()[0]: line.split(None, 1)[1].strip() == "provided" for line in lines}
    assert zeltrim.objects() == listed


def test_saved_calibration_converts_as_the_command_does(tmp_path):
    rng = np.random.default_rng(1)
    source = rng.uniform(-50, 50, (20, 3))
    target = source @ np.array([[0.9, 0.1, 0.0], [-0.1, 0.9, 0.05], [0.0, -0.05, 1.1]]) + [3.0, -4.0, 5.0]
    fitted = zeltrim.fit(source, target, method=0)
    path = tmp_path / "fit.tCAL"
    fitted.save(path)
    loaded = zeltrim.load(path)
    assert loaded.kind == "CalibrationBestFit"
    points = rng.uniform(-10, 10, (5, 3))
    printed = command("convert", str(path), *(",".join(repr(v) for v in p) for p in points))
    np.testing.assert_allclose(loaded.convert(points), np.loadtxt(printed.splitlines()), rtol=1e-8, atol=1e-8)
    np.testing.assert_allclose(loaded.convert(points), fitted.convert(points))


# ---------------------------------------------------------------- against NumPy


def test_convert_then_revert_of_a_large_array():
    rng = np.random.default_rng(2)
    a = np.array([[1.2, 0.3, 0.0], [-0.2, 0.8, 0.1], [0.05, 0.0, 0.95]])
    source = rng.uniform(-100, 100, (50, 3))
    fitted = zeltrim.fit(source, source @ a + [10.0, 20.0, -5.0], method=0)
    points = rng.uniform(-1000, 1000, (200_000, 3))
    converted = fitted.convert(points)
    np.testing.assert_allclose(converted, points @ a + [10.0, 20.0, -5.0], rtol=1e-9, atol=1e-7)
    np.testing.assert_allclose(fitted.revert(converted), points, rtol=1e-9, atol=1e-7)
    # Any real dtype and order is taken; an (N, 2) array goes in with z = 0.
    np.testing.assert_allclose(fitted.convert(np.asfortranarray(points.astype(np.float32))),
                               points.astype(np.float32) @ a + [10.0, 20.0, -5.0], rtol=1e-6, atol=1e-4)
    flat = fitted.convert(points[:100, :2])
    assert flat.shape == (100, 2)
    np.testing.assert_allclose(flat, (np.c_[points[:100, :2], np.zeros(100)] @ a + [10.0, 20.0, -5.0])[:, :2])


def test_resect_and_triangulate_recover_a_known_camera():
    rng = np.random.default_rng(3)
    p = camera_matrix()
    world = rng.uniform(-2, 2, (40, 3))
    camera = zeltrim.resect(image_of(p, world), world)
    assert camera.kind == "Camera3DTransform" and camera.fx is None
    np.testing.assert_allclose(camera.combined / camera.combined[2, 3], p / p[2, 3], rtol=1e-6, atol=1e-9)
    np.testing.assert_allclose(camera.project(world), image_of(p, world), atol=1e-6)

    shifted = p @ np.array([[1, 0, 0, 2.0], [0, 1, 0, 0], [0, 0, 1, 0], [0, 0, 0, 1]])
    other = zeltrim.resect(image_of(shifted, world), world)
    inside = rng.uniform(-1, 1, (30, 3))
    found = zeltrim.triangulate([camera, other], [image_of(p, inside), image_of(shifted, inside)])
    np.testing.assert_allclose(found, inside, atol=1e-6)
    # One camera twice: its rays fix no point.
    assert np.isnan(zeltrim.triangulate([camera, camera], [image_of(p, inside)] * 2)).all()


# ---------------------------------------------------------------- bad input


@pytest.fixture(scope="module")
def fitted():
    square = np.array([[0, 0], [1, 0], [1, 1], [0, 1], [0.5, 0.5]], dtype=float)
    return zeltrim.fit(square, square * 3 + 1)


@pytest.mark.parametrize("points, words", [
    (np.zeros((4, 4)), "shape (4, 4)"),
    (np.zeros(3), "shape (3,)"),
    (np.zeros((0, 2)), "no points"),
    (np.zeros((3, 2), dtype=complex), "dtype complex128"),
    (np.array([["a", "b"]]), "dtype <U1"),
    (np.array([[1.0, np.nan]]), "row 0 holds a value that is not finite"),
    (np.array([[1.0, 2.0], [np.inf, 0.0]]), "row 1 holds a value that is not finite"),
    (None, "is None"),
    ([[1, 2], [3]], "not an array of numbers"),
])
def test_bad_points_are_refused(fitted, points, words):
    with pytest.raises(zeltrim.InputError, match=words.replace("(", r"\(").replace(")", r"\)")) as raised:
        fitted.convert(points)
    assert raised.value.code == zeltrim.E_INVALIDARG and raised.value.status == 2
    assert isinstance(raised.value, ValueError) and isinstance(raised.value, RuntimeError)


def test_bad_calls_say_what_zeltrim_says(tmp_path):
    model, views = sample()
    with pytest.raises(zeltrim.InputError, match="a flat target needs at least 4"):
        zeltrim.calibrate(model[:3], [v[:3] for v in views])
    with pytest.raises(zeltrim.InputError, match="view 2 holds 53 points, the model 54"):
        zeltrim.calibrate(model, [views[0], views[1][:53]])
    with pytest.raises(zeltrim.InputError, match="view 1 has shape"):
        zeltrim.calibrate(model, [np.c_[views[0], views[0]]])
    with pytest.raises(zeltrim.InputError, match="--mode 0 needs at least 3 views"):
        zeltrim.calibrate(model, views[:2], mode=0)
    with pytest.raises(zeltrim.InputError, match="--method must be 0 to 4"):
        zeltrim.fit(model, model, method=7)
    with pytest.raises(zeltrim.InputError, match="lie in one plane"):
        zeltrim.resect(views[0], np.c_[model, np.zeros(len(model))])
    with pytest.raises(zeltrim.InputError, match="cannot load .*missing.xml: cannot read it"):
        zeltrim.load(tmp_path / "missing.xml")
    broken = tmp_path / "broken.tCAL"
    broken.write_bytes(b"\x00garbage" * 10)
    with pytest.raises(zeltrim.InputError, match="cannot load .*broken.tCAL"):
        zeltrim.load(broken)
    # A model without extent in Y passes the checks and fails in the module.
    line = np.c_[np.arange(54.0), np.zeros(54)]
    with pytest.raises(zeltrim.Error, match="the calibration failed with 0x80070057") as raised:
        zeltrim.calibrate(line, views)
    assert raised.value.status == 1 and raised.value.code == 0x80070057
    assert not isinstance(raised.value, zeltrim.InputError)


# ---------------------------------------------------------------- the working folder, objects, threads


def test_working_folder_is_the_callers(tmp_path, monkeypatch, fitted):
    monkeypatch.chdir(tmp_path)
    fitted.save("relative.xml")
    assert (tmp_path / "relative.xml").is_file() and os.getcwd() == str(tmp_path)
    np.testing.assert_allclose(zeltrim.load("relative.xml").convert(np.array([[1.0, 1.0]])), [[4.0, 4.0]])
    assert os.getcwd() == str(tmp_path)


def resident_kib():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024


def test_objects_are_released():
    square = np.array([[0, 0], [1, 0], [1, 1], [0, 1]], dtype=float)
    base = zeltrim._live_objects()

    def cycle(n):
        for _ in range(n):
            f = zeltrim.fit(square, square + 1)
            f.convert(square)
            del f

    cycle(1000)  # warms the allocator
    before = resident_kib()
    cycle(10_000)
    grown = resident_kib() - before
    assert zeltrim._live_objects() == base
    # A fit holds its collections and matrices: a leak of one a cycle is megabytes here.
    assert grown < 1024, f"{grown} KiB more after 10,000 fits"


def test_two_threads_calibrate_at_once():
    model, views = sample()
    alone = zeltrim.calibrate(model, views)
    results, errors = [], []

    def work(subset):
        try:
            for _ in range(3):
                c = zeltrim.calibrate(model, subset)
                results.append((len(subset), c.fx, c.fy, c.cx, c.cy, c.sd_error, len(c.views)))
        except Exception as e:  # noqa: BLE001 - reported by the assertion below
            errors.append(e)

    cwd = os.getcwd()
    threads = [threading.Thread(target=work, args=(views,)), threading.Thread(target=work, args=(views[:6],))]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not errors and len(results) == 6 and os.getcwd() == cwd
    six = zeltrim.calibrate(model, views[:6])
    for n, fx, fy, cx, cy, sd, nviews in results:
        ref = alone if n == len(views) else six
        assert (fx, fy, cx, cy, sd, nviews) == (ref.fx, ref.fy, ref.cx, ref.cy, ref.sd_error, len(ref.views))
    assert six.fx != alone.fx
