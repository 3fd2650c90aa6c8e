# SPDX-License-Identifier: Apache-2.0
"""Tables and plots of docs/performance.md are those of its figures; when a figure counts as worse."""
import copy
import json
import subprocess
import sys

import pytest
from conftest import SOURCE

sys.path.append(str(SOURCE / "benchmarks"))
import ratios  # noqa: E402

PAGE = {
    "cpu": {"960x600@20": {"figures": {"GStreamer, a": [10.0], "ffmpeg, b": [8.0, 9.0, 30.0], "KOR Vistrel": [6.0]}}},
    "latency": {"960x600@30": {"figures": {name: [{"p50": value, "p99": 2 * value}] for name, value in
                                           (("GStreamer", 20), ("ffmpeg", 30), ("KOR Vistrel", 10))}}},
    "start": {"figures": {"GStreamer": [0.5], "ffmpeg": [0.4], "KOR Vistrel": [0.3]}},
    "scale": {"cameras": {"1": {"cpu": 10, "memory": 100}, "8": {"cpu": 80, "memory": 400}},
              "receivers": {"1": {"cpu": 30, "memory": 100}, "64": {"cpu": 36.3, "memory": 106.3}}},
    "pairs": {"in step": {"possible": 120, "delivered": 100, "found": 100}},
}


def test_generated():
    subprocess.run([SOURCE / "benchmarks/page", "--check"], check=True)


def test_ratios():
    assert ratios.ratios(PAGE) == pytest.approx({
        "CPU, 960x600@20": 6 / 9, "latency p50, 960x600@30": 0.5, "start": 0.75, "CPU of one of many cameras": 1,
        "memory of one of many cameras": 0.5, "receiver, % of a core": 0.1, "receiver, MB": 0.1})


def change(path, value):
    changed = copy.deepcopy(PAGE)
    place = changed
    for key in path[:-1]:
        place = place[key]
    place[path[-1]] = value
    return changed


@pytest.mark.parametrize("path,good,bad", [
    (("cpu", "960x600@20", "figures", "KOR Vistrel"), [7.1], [7.3]),
    (("latency", "960x600@30", "figures", "KOR Vistrel"), [{"p50": 11.9}], [{"p50": 12.1}]),
    (("start", "figures", "KOR Vistrel"), [0.35], [0.37]),
    (("scale", "cameras", "8", "cpu"), 95, 97),
    (("scale", "receivers", "64", "cpu"), 30 + 63 * 1.1, 30 + 63 * 1.3),
    (("pairs", "in step", "found"), 99, 98)], ids=lambda value: value[0] if isinstance(value, tuple) else "")
def test_worse_by_a_fifth(path, good, bad):
    assert not ratios.worse(PAGE, change(path, good))
    assert len(ratios.worse(PAGE, change(path, bad))) == 1


def test_other_settings_are_left_alone():
    assert not ratios.worse({}, PAGE)
    assert not ratios.worse(PAGE, {"machine": "another"})


def test_page_keeps_what_was_measured():
    page = json.loads((SOURCE / "benchmarks/performance.json").read_text())
    assert set(page) == {"machine", "cpu", "latency", "start", "scale", "pairs"}
