# SPDX-License-Identifier: Apache-2.0
"""Figures of benchmarks/compare as ratios, as lines, and against those that were taken before."""
import statistics

from cost import OWN, slope

WORSE = 1.2
LEAST_FOUND = 0.99  # of the pairs that there are, whatever was found before
GOALS = {"receiver, % of a core": 1.0, "receiver, MB": 0.5}


def of_run(run, key):
    return run[key] if isinstance(run, dict) else run


def middle(figures, key=None):
    """Median of each program over the rounds."""
    return {name: statistics.median(of_run(run, key) for run in runs) for name, runs in figures.items()}


def against_peers(figures, key=None):
    """Ours against the best peer."""
    found = middle(figures, key)
    return found[OWN] / min(value for name, value in found.items() if name != OWN)


def per_camera(points, key):
    """What one of many cameras costs against a single one."""
    counts = sorted(points, key=int)
    return points[counts[-1]][key] / int(counts[-1]) / points[counts[0]][key]


def found_share(case):
    """Of the pairs among images that came: what a source skips, no streamer can find."""
    return case["found"] / max(1, case["delivered"])


def ratios(results):
    """name -> ratio, larger is worse, of all that was measured. Those of p99 are left out: a quick run
    has too few frames for them."""
    found = {}
    for setting, result in results.get("cpu", {}).items():
        found[f"CPU, {setting}"] = against_peers(result["figures"])
    for setting, result in results.get("latency", {}).items():
        found[f"latency p50, {setting}"] = against_peers(result["figures"], "p50")
    if "start" in results:
        found["start"] = against_peers(results["start"]["figures"])
    if "scale" in results:
        found["CPU of one of many cameras"] = per_camera(results["scale"]["cameras"], "cpu")
        found["memory of one of many cameras"] = per_camera(results["scale"]["cameras"], "memory")
        found["receiver, % of a core"] = slope(results["scale"]["receivers"], "cpu")
        found["receiver, MB"] = slope(results["scale"]["receivers"], "memory")
    return found


def worse(page, results):
    """A line for each ratio that is more than 20 % worse than on the page, and for pairs that are not
    found. What keeps to its goal by itself is not worse: small figures differ by much."""
    before = ratios(page)
    found = [f"{name}: {now:.2f}, the page has {before[name]:.2f}" for name, now in ratios(results).items()
             if name in before and now > WORSE * max(before[name], GOALS.get(name, 0))]
    return found + [f"{name}: {100 * found_share(case):.1f} % of the pairs are found"
                    for name, case in results.get("pairs", {}).items() if found_share(case) < LEAST_FOUND]


def lines(what, result):
    """For the terminal."""
    if what in ("cpu", "latency"):
        for setting, run in result.items():
            for name, values in middle(run["figures"], "p50" if what == "latency" else None).items():
                if what == "cpu":
                    yield f"{setting}  {name:42} {values:6.1f} ms"
                else:
                    p99 = middle(run["figures"], "p99")[name]
                    yield f"{setting}  {name:42} p50 {values:6.1f} ms  p99 {p99:6.1f} ms"
    elif what == "start":
        for name, value in middle(result["figures"]).items():
            yield f"{name:42} {value:6.2f} s"
    elif what == "scale":
        for kind, points in result.items():
            for count, point in points.items():
                yield f"{count:>3} {kind:10} {point['cpu']:7.1f} % of a core {point['memory']:7.1f} MB"
    else:
        for name, case in result.items():
            yield f"{name:30} {case['found']} of {case['delivered']} delivered, {case['possible']} possible"
    for name, ratio in ratios({what: result}).items():
        yield f"{name}: {ratio:.2f}"
