#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Draws the time line of one pair, from two sensors to a decoded picture, to standard output.

Times are ms after the left eye's capture: eyes of 1920 x 1200 on the machine of docs/performance.md. The
copies are a third each of what it gives for all three, encoder and decoder took their least time
there, and the sum is its median of ten minutes."""
from xml.sax.saxutils import escape

INK, SOFT, LINE, BAND, BAND_EDGE = "#1f2933", "#56606b", "#c3ccd4", "#eef2f6", "#d5dde5"
LEFT, RIGHT, BOTH, DATA = "#c2410c", "#1565a8", "#5b4b8a", "#2f7d4f"
BEGIN, PER_MS, TOP, STEP, HEIGHT = 190, 31, 88, 58, 40
LANES = [("sensors", "two cameras"), ("capture workers", "a thread per camera"),
         ("main thread", "its event queue"), ("streamer", "a thread per pair"),
         ("encoder", "threads of the SDK"), ("network", "RTP"), ("receiver", "decoder")]
# Lane, begin, end, upper or lower half or all of the lane, colour, words beside it.
BARS = [(1, 0.6, 1.03, "upper", LEFT, "copy into the pool"), (1, 1.1, 1.53, "lower", RIGHT, ""),
        (2, 1.1, 1.53, "upper", LEFT, "copy into the queue of its side"), (2, 1.6, 2.03, "lower", RIGHT, ""),
        (3, 2.1, 2.53, "all", BOTH, ""), (3, 2.53, 3.4, "all", BOTH, "pair, join; YUYV to 4:2:0"),
        (4, 3.4, 17.0, "all", BOTH, "H.264"), (5, 3.4, 3.55, "all", DATA, "frame record, with the "
        "exact time"), (5, 17.0, 18.0, "all", BOTH, "packets of the picture"),
        (6, 18.0, 22.3, "all", BOTH, "decode")]
INSIDE = {"H.264", "decode"}


def at(ms):
    return BEGIN + ms * PER_MS


def text(x, y, words, size=13, colour=INK, anchor="start", weight="normal"):
    # Words lie on lines; the halo has the lane's colour.
    halo = f'stroke="{BAND}" stroke-width="4" paint-order="stroke"' if colour == INK and size == 13 else ""
    return (f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" fill="{colour}" text-anchor="{anchor}" '
            f'font-weight="{weight}" {halo}>{escape(words)}</text>')


def line(x1, y1, x2, y2, colour, width=1.0, dash=""):
    dashes = f' stroke-dasharray="{dash}"' if dash else ""
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-width="{width}"{dashes}/>')


def box(x, y, width, height, fill, edge="none", corner=3.0):
    return (f'<rect x="{x:.1f}" y="{y:.1f}" width="{width:.1f}" height="{height:.1f}" rx="{corner}" '
            f'fill="{fill}" stroke="{edge}"/>')


def lane(index):
    return TOP + index * STEP


def bar(index, begin, end, half, colour, words):
    y, height = lane(index) + 6, HEIGHT - 12
    if half != "all":
        y, height = y + (height / 2 + 1 if half == "lower" else 0), height / 2 - 1
    parts = [box(at(begin), y, (end - begin) * PER_MS, height, colour, corner=2)]
    if words in INSIDE:
        parts.append(text(at((begin + end) / 2), y + height / 2 + 4.5, words, colour="white",
                          anchor="middle"))
    elif words and end > 15:
        parts.append(text(at(begin) - 7, y + height / 2 + 4.5, words, anchor="end"))
    elif words:
        # The words of a left eye's bar stand beside the right eye's, which comes half a millisecond later.
        parts.append(text(at(end + (0.5 if half == "upper" else 0)) + 7, lane(index) + HEIGHT / 2 + 4.5,
                          words))
    return parts


def capture(ms, half, colour, words):
    y = lane(0) + (13 if half == "upper" else 28)
    return [f'<circle cx="{at(ms):.1f}" cy="{y}" r="5" fill="{colour}"/>',
            text(at(ms) + 12, y + 4.5, words)]


def main():
    width, bottom = at(24) + 16, lane(len(LANES)) - STEP + HEIGHT
    parts = [text(20, 32, "One pair, from two sensors to a decoded picture", 17, weight="bold"),
             text(20, 54, "ms after the capture of the left eye; eyes of 1920 × 1200, H.264 by x264, sender and "
                  "receiver on two cores", 13, SOFT)]
    for index, (name, what) in enumerate(LANES):
        y = lane(index)
        parts += [box(12, y, width - 24, HEIGHT, BAND, BAND_EDGE, 6), text(24, y + 18, name),
                  text(24, y + 33, what, 11, SOFT)]
    for ms in range(0, 25, 5):
        parts += [line(at(ms), TOP - 8, at(ms), bottom + 8, LINE),
                  text(at(ms) - (0 if ms else 6), bottom + 24, f"{ms} ms", 12, SOFT, "middle" if ms else "end")]
    parts += [line(at(0), lane(0) + 13, at(0), bottom + 44, LEFT, 1.4, "4 3"),
              line(at(22.3), lane(6), at(22.3), bottom + 44, SOFT, 1.4, "4 3"),
              line(at(0), bottom + 40, at(22.3), bottom + 40, SOFT, 1.4),
              text(at(11), bottom + 57, "22 ms from capture to picture. Packets, record and picture all carry the "
                   "left eye's time of capture.", 14, INK, "middle")]
    for one in BARS:
        parts += bar(*one)
    parts += capture(0, "upper", LEFT, "left eye: this is the time of the pair")
    parts += capture(0.5, "lower", RIGHT, "right eye, at most 5 ms before or after, or it is no partner")
    height = bottom + 76
    print(f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
          f'viewBox="0 0 {width} {height}" font-family="sans-serif" role="img" '
          f'aria-label="Time line of one pair">')
    print(f'<rect width="{width}" height="{height}" fill="white"/>', *parts, "</svg>", sep="\n")


if __name__ == "__main__":
    main()
