# SPDX-License-Identifier: Apache-2.0
"""Plots as SVG, written by hand: dots per row, lines over time."""
import math
from xml.sax.saxutils import escape

INK, SOFT, GRID, PAPER = "#1f2933", "#66727f", "#dfe4e8", "#ffffff"
BEFORE, AFTER, LIMIT = "#c2410c", "#1d6fb8", "#9aa5b1"
FONT = 'font-family="DejaVu Sans, Helvetica, Arial, sans-serif"'


def text(x, y, content, size=12, colour=INK, anchor="start", weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" fill="{colour}" text-anchor="{anchor}" '
            f'font-weight="{weight}">{escape(str(content))}</text>')


def line(x1, y1, x2, y2, colour=GRID, width=1.0, dash=""):
    dashes = f' stroke-dasharray="{dash}"' if dash else ""
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-width="{width}"{dashes}/>')


def dot(x, y, colour, filled=True):
    fill = colour if filled else PAPER
    return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4.5" fill="{fill}" stroke="{colour}" stroke-width="2"/>'


def cross(x, y, colour):
    return line(x - 4, y - 4, x + 4, y + 4, colour, 2.2) + line(x - 4, y + 4, x + 4, y - 4, colour, 2.2)


def document(width, height, parts):
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
        f'viewBox="0 0 {width} {height}" {FONT}>',
        f'<rect width="{width}" height="{height}" fill="{PAPER}"/>', *parts, "</svg>", ""])


def dots(title, subtitle, rows, ticks, limit=None, beyond=None):
    """A row for each name with the value before and after; a value that is `beyond` is a cross at
    the right edge. rows: (name, before, after), None where nothing was measured. Logarithmic."""
    left, right, top, step = 210, 760, 92, 20
    height = top + step * len(rows) + 44
    low, high = math.log(ticks[0][0]), math.log(ticks[-1][0])

    def place(value):
        share = (math.log(max(value, ticks[0][0])) - low) / (high - low)
        return left + min(1.0, share) * (right - left)

    parts = [text(20, 30, title, 17, weight="bold"), text(20, 50, subtitle, 12, SOFT),
             dot(left + 4, 68, BEFORE, False), text(left + 14, 72, "before"), dot(left + 84, 68, AFTER),
             text(left + 94, 72, "after")]
    if beyond:
        parts += [cross(left + 154, 68, SOFT), text(left + 164, 72, beyond)]
    bottom = top + step * len(rows)
    for value, label in ticks:
        parts += [line(place(value), top - 6, place(value), bottom),
                  text(place(value), bottom + 18, label, 11, SOFT, "middle")]
    if limit:
        parts.append(line(place(limit), top - 6, place(limit), bottom, LIMIT, 1.5, "5 3"))
    for index, (name, before, after) in enumerate(rows):
        y = top + step * index + step / 2
        parts += [line(left, y, right, y), text(left - 12, y + 4, name, 12, anchor="end")]
        for value, colour, shift in ((before, BEFORE, -2.5), (after, AFTER, 2.5)):
            if value == math.inf:
                parts.append(cross(right + 18, y + 2 * shift, colour))
            elif value is not None:
                parts.append(dot(place(value), y + shift, colour, colour == AFTER))
    return document(right + 50, height, parts)


def round_up(value):
    """The next value that is good at the end of an axis."""
    power = 10 ** math.floor(math.log10(max(value, 1)))
    return next(step * power for step in (1, 1.5, 2, 3, 4, 5, 6, 8, 10) if step * power >= value)


def lines(title, subtitle, minutes, panels, mark=None, bands=()):
    """Panels below one another over the same time. panels: (name, unit, values); `mark`: a minute to
    mark; bands: (from, to) in minutes, shaded."""
    left, right, top, tall, gap = 165, 890, 74, 100, 26
    height = top + len(panels) * (tall + gap) + 30
    last = max(minutes)

    def across(minute):
        return left + (right - left) * minute / last

    parts = [text(20, 30, title, 17, weight="bold"), text(20, 50, subtitle, 12, SOFT)]
    for index, (name, unit, values) in enumerate(panels):
        base, most = top + index * (tall + gap) + tall, round_up(max(values) * 1.02)
        for begin, end in bands:
            parts.append(f'<rect x="{across(begin):.1f}" y="{base - tall}" fill="#f3e9dc" height="{tall}" '
                         f'width="{max(1.0, across(end) - across(begin)):.1f}"/>')
        for share in (0, 0.5, 1):
            parts += [line(left, base - share * tall, right, base - share * tall),
                      text(left - 8, base - share * tall + 4, f"{share * most:g}", 11, SOFT, "end")]
        parts += [text(20, base - tall / 2 - 4, name, 12, weight="bold"),
                  text(20, base - tall / 2 + 11, unit, 11, SOFT)]
        points = " ".join(f"{across(minute):.1f},{base - tall * value / most:.1f}"
                          for minute, value in zip(minutes, values))
        parts.append(f'<polyline points="{points}" fill="none" stroke="{AFTER}" stroke-width="1.6"/>')
        if mark and mark < last:
            parts.append(line(across(mark), base - tall, across(mark), base, LIMIT, 1.5, "5 3"))
    step = next(step for step in (1, 2, 5, 10, 15, 20, 30) if last / step <= 12 or step == 30)
    for minute in range(0, int(last) + 1, step):
        parts.append(text(across(minute), height - 22, minute, 11, SOFT, "middle"))
    parts.append(text(right, height - 6, "minutes", 11, SOFT, "end"))
    return document(right + 30, height, parts)


COLOURS = ("#9aa5b1", "#66727f", AFTER)


def bars(title, subtitle, groups):
    """Groups of bars. groups: (name, [(kind, value, marked value)]), the same kinds in each."""
    left, right, top, tall = 60, 60 + 190 * max(1, len(groups)), 100, 200
    most = round_up(max(value for _, bar in groups for _, value, _ in bar) * 1.02)
    parts = [text(20, 30, title, 17, weight="bold"), text(20, 50, subtitle, 12, SOFT)]
    for share in (0, 0.5, 1):
        parts += [line(left, top + tall * (1 - share), right, top + tall * (1 - share)),
                  text(left - 8, top + tall * (1 - share) + 4, f"{share * most:g}", 11, SOFT, "end")]
    for number, (kind, _, _) in enumerate(groups[0][1]):
        parts += [f'<rect x="{left + 110 * number}" y="66" width="12" height="12" fill="{COLOURS[number]}"/>',
                  text(left + 110 * number + 18, 77, kind)]
    for place, (name, bar) in enumerate(groups):
        begin = left + 190 * place + 20
        for number, (_, value, marked) in enumerate(bar):
            x, high = begin + 50 * number, tall * value / most
            parts += [f'<rect x="{x}" y="{top + tall - high:.1f}" width="40" height="{high:.1f}" '
                      f'fill="{COLOURS[number]}"/>',
                      line(x - 3, top + tall - tall * marked / most, x + 43, top + tall - tall * marked / most, INK, 2),
                      text(x + 20, top + tall - high - 5, f"{value:.1f}", 11, anchor="middle")]
        parts.append(text(begin + 70, top + tall + 18, name, 12, anchor="middle"))
    return document(max(right + 20, 560), top + tall + 36, parts)


def curves(title, subtitle, panels):
    """Panels side by side, two in a row. panels: (name, name across, [(count, value)]); dashed: in
    proportion to the count."""
    parts = [text(20, 30, title, 17, weight="bold"), text(20, 50, subtitle, 12, SOFT)]
    for number, (name, across, points) in enumerate(panels):
        left, top, wide, tall = 60 + 380 * (number % 2), 90 + 230 * (number // 2), 300, 150
        farthest, per_one = points[-1][0], points[0][1] / points[0][0]
        most = round_up(max(value for _, value in points) * 1.02)
        for share in (0, 0.5, 1):
            parts += [line(left, top + tall * (1 - share), left + wide, top + tall * (1 - share)),
                      text(left - 8, top + tall * (1 - share) + 4, f"{share * most:g}", 11, SOFT, "end")]

        def place(count, value):
            return left + wide * count / farthest, top + tall * (1 - value / most)

        end = min(farthest, most / per_one)
        parts.append(line(*place(points[0][0], points[0][1]), *place(end, per_one * end), LIMIT, 1.5, "5 3"))
        joined = " ".join("{:.1f},{:.1f}".format(*place(*point)) for point in points)
        parts.append(f'<polyline points="{joined}" fill="none" stroke="{AFTER}" stroke-width="1.6"/>')
        parts += [dot(*place(*point), AFTER) for point in points]
        parts += [text(place(count, 0)[0], top + tall + 16, count, 11, SOFT, "middle") for count, _ in points]
        parts += [text(left, top - 10, name, 12, weight="bold"), text(left + wide, top + tall + 32, across, 11, SOFT, "end")]
    return document(800, 90 + 230 * ((len(panels) + 1) // 2), parts)
