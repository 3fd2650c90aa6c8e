#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Plots what the inertial unit measures: acceleration and angular rate against time, with a mark for each
frame.

    examples/imu_plot.py rtsp://localhost:30000/stereo --seconds 5 --save imu.png

Without --save it opens a window. A recorded file is read to its end, or for so many of its seconds.
"""
import argparse
import sys

import matplotlib
import numpy as np

import vistrel


def collect(address, seconds):
    """The packets of the first seconds, and the times of the frames (ns since 1970)."""
    packets, times = [], []
    with vistrel.open(address) as camera:
        for frame in camera:
            packets.append(frame.imu)
            times.append(frame.time_ns)
            if times[-1] - times[0] >= seconds * 1e9:
                break
    return np.concatenate(packets), np.array(times, np.uint64)


def plot(packets, times):
    """The figure."""
    from matplotlib import pyplot

    begin = min(times[0], packets["time_ns"][0])
    seconds = (packets["time_ns"] - begin) / 1e9
    figure, axes = pyplot.subplots(2, sharex=True, figsize=(10, 6), layout="constrained")
    for axis, field, label in zip(axes, ("acceleration", "angular_rate"),
                                  ("acceleration, m/s²", "angular rate, rad/s")):
        for values, name in zip(packets[field].T, "xyz"):
            axis.plot(seconds, values, label=name, linewidth=1.2)
        axis.set_ylabel(label)
        axis.grid(alpha=0.3)
        # The frames, as marks at the bottom edge.
        axis.plot((times - begin) / 1e9, np.zeros(len(times)), "|", color="gray", label="frames",
                  transform=axis.get_xaxis_transform(), clip_on=False)
    axes[0].legend(loc="lower right", bbox_to_anchor=(1, 1), ncol=4, frameon=False)
    axes[1].set_xlabel("s")
    return figure


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("address", help="rtsp:// address, or FILE.ts")
    parser.add_argument("--seconds", type=float, default=5, metavar="N", help="default %(default)s")
    parser.add_argument("--save", metavar="FILE", help="write a picture (PNG, SVG, PDF) and end")
    options = parser.parse_args()
    if options.save:
        matplotlib.use("agg")
    packets, times = collect(options.address, options.seconds)
    if not len(packets):
        sys.exit("imu_plot.py: the stream has no inertial data")
    rate = (len(packets) - 1) / max(1e-9, (packets["time_ns"][-1] - packets["time_ns"][0]) / 1e9)
    print(f"{len(packets)} packets, {rate:.1f} per second, {len(times)} frames")
    figure = plot(packets, times)
    if options.save:
        figure.savefig(options.save)
    else:
        from matplotlib import pyplot
        pyplot.show()


if __name__ == "__main__":
    try:
        main()
    except (vistrel.Error, KeyboardInterrupt, OSError) as problem:
        sys.exit(f"imu_plot.py: {problem}")
