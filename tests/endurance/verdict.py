# SPDX-License-Identifier: Apache-2.0
"""Whether what a process holds is in the end what it was after five minutes."""
import statistics

SETTLED = 300.0  # seconds after which values are compared with the last ones
SPAN = 600.0  # seconds; as many viewers come in one such time as in another
SHARE = 0.1
KEYS = ("memory", "threads", "descriptors", "shared_files", "shared_bytes")


TEXTURES = {"large": 2 * 1920 * 1080 * 2 / 2 ** 20, "small": 2 * 960 * 600 * 2 / 2 ** 20}  # MB


def without_textures(rows):
    """The rows with the memory less the previews' textures of former sizes. The window keeps one for
    each camera and change of size; with software OpenGL they are in main memory."""
    kept, size = 0.0, "small"
    for row in rows:
        if row["size"] != size:
            kept, size = kept + TEXTURES[size], row["size"]
        yield {**row, "memory": row["memory"] - kept}


def level(rows, key, begin, end):
    """The mean of a column between two times, at the small size, which most samples see. What viewers
    take while they look on comes and goes; what is kept for good raises the mean."""
    values = [row[key] for row in rows if begin <= row["seconds"] < end and row["size"] == "small"]
    return statistics.mean(values) if values else None


def judge(rows, visitors, operator, alive):
    """Everything that is reported, as a dictionary."""
    rows = list(without_textures(rows))
    last = rows[-1]["seconds"] if rows else 0.0
    values, faults = {}, []
    for key in KEYS:
        early = level(rows, key, SETTLED, SETTLED + SPAN)
        late = level(rows, key, max(0.0, last - SPAN), last + 1)
        values[key] = {"after five minutes": early and round(early, 1),
                       "in the end": late and round(late, 1)}
        if early is None or late is None:
            faults.append(f"{key}: too short to tell")
        elif late > (1 + SHARE) * early:
            faults.append(f"{key} grew from {early:.1f} to {late:.1f}")
    if not alive:
        faults.append("the program ended")
    if visitors.failed:
        faults.append(f"{visitors.failed} of {visitors.came} viewers got no frame, first: "
                      f"{visitors.reasons[0]}")
    return {"minutes": round(last / 60, 1), "held": not faults, "faults": faults, "values": values,
            "viewers": visitors.came, "without a frame": visitors.failed, "frames": visitors.frames,
            "slowest first frame": round(visitors.slowest, 2), "changes of the size": operator.changes}


def lines(result):
    """The same for people."""
    yield (f"{result['minutes']} minutes, {result['viewers']} viewers, {result['frames']} frames, slowest "
           f"first frame {result['slowest first frame']} s, size changed {result['changes of the size']} times")
    for key, value in result["values"].items():
        yield f"{key:13} {value['after five minutes']} after five minutes, {value['in the end']} in the end"
    yield from result["faults"]
    yield "held" if result["held"] else "NOT held"
