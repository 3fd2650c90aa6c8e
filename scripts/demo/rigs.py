# SPDX-License-Identifier: Apache-2.0
"""Rigs of the demonstration: which two cameras are paired, and how a recording is played."""
import json
import pathlib
import struct

VIRTUAL_SERIAL = "101234567"
# Size of an eye unless asked for another, by family.
SIZES = {"KOR T Solo GS": (960, 600), "KOR T Solo UHD": (1920, 1080)}


class Failed(Exception):
    """What went wrong, for the user."""


def demand(condition, *reason):
    if not condition:
        raise Failed(": ".join(map(str, reason)))


def pair(path, size, fps, port):
    """The configuration of one virtual camera made of the first two cameras of one family in a rig,
    and the rig's stream object. What else is wrong with a rig the program says."""
    try:
        rig = json.loads(path.read_text(encoding="utf-8"))
        families, stream = {}, {**rig.get("stream", {})}
        for camera in rig["cameras"]:
            if type(camera["serial"]) is int and camera["model"] in SIZES:
                families.setdefault(camera["model"], []).append(camera)
    except OSError:
        raise Failed(f"{path}: cannot be read") from None
    except (AttributeError, LookupError, TypeError, ValueError) as error:
        raise Failed(f"{path}: not a rig file: {error}") from None
    pairs = [cameras[:2] for cameras in families.values() if len(cameras) > 1]
    demand(pairs, path, "has no two cameras of the same family")
    left, right = pairs[0]
    width, height = size or SIZES[left["model"]]
    imu = left.get("imu")
    return {VIRTUAL_SERIAL: {
        "Left": left["serial"], "Right": right["serial"], "Width": width, "Height": height, "FPS": fps,
        "HDR": 0, "IMU": isinstance(imu, dict) and imu.get("type", "none") != "none", "Port": port,
    }}, stream


def frames(index):
    """Time in nanoseconds and file name of each frame that an index lists."""
    rows = [line.replace(" ", "").split(",") for line in index.read_text().splitlines()
            if line[:1].isdigit()]
    return [(int(row[0]), row[1]) for row in rows if len(row) > 1]


def play(path, imu, once):
    """The rig that plays the two cameras of a recording."""
    return {"cameras": [
        {"serial": 30000001 + index, "model": "KOR T Solo GS", "imu": {"type": kind},
         "source": {"type": "recording", "path": str(path), "camera": f"cam{index}",
                    "loop": not once}}
        for index, kind in enumerate(("recorded" if imu else "none", "none"))]}


def play_file(path, statistics, once=False):
    """The rig that plays a recorded stream with these statistics, the size of an eye and the rate."""
    demand(statistics.get("frameRecords", 0) > 1 and statistics.get("fps", 0) > 0.5,
           f"{path} is no recording of a stream with its data")
    size = statistics["eyeWidth"], statistics["eyeHeight"]
    return play(path, statistics["imuPackets"] > 1, once), size, round(statistics["fps"])


def record(folder, once=False):
    """The rig that plays a stereo recording in the ASL layout, the size of an eye and the rate."""
    demand(folder.is_dir(), f"{folder} is not a folder")
    mav = folder / "mav0" if (folder / "mav0").is_dir() else folder
    for camera in "cam0", "cam1":
        index = pathlib.Path(camera, "data.csv")
        layout = f"{folder} is no recording in the ASL layout"
        demand((mav / index).is_file(), layout, f"{index} is missing")
        listed = frames(mav / index)
        demand(listed, f"{mav / index} lists no frames")
        picture = pathlib.Path(camera, "data", listed[0][1])
        demand((mav / picture).is_file(), layout, f"{picture} is missing")

    listed = frames(mav / "cam0/data.csv")
    picture = mav / "cam0/data" / listed[0][1]
    header = picture.read_bytes()[:24]
    demand(len(header) == 24 and header.startswith(b"\x89PNG\r\n\x1a\n"), f"{picture} is no PNG picture")
    size = struct.unpack(">II", header[16:])
    duration = listed[-1][0] - listed[0][0]
    demand(duration > 0, f"{mav}/cam0/data.csv lists fewer than two frames")
    fps = round((len(listed) - 1) * 1e9 / duration)
    demand(fps > 0, f"{mav}/cam0/data.csv lists less than one frame per second")

    return play(folder, (mav / "imu0/data.csv").is_file(), once), size, fps
