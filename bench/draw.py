#!/usr/bin/env python3
"""Draws the hop suite of norvo_bench as an SVG picture.

    norvo_bench --filter '^hop/' --csv hop.csv && bench/draw.py hop.csv > hop.svg

Two panels over the message size, both axes logarithmic: one-way latency (median, with its lowest
and highest repetition) and one-way streaming.
"""
import csv
import html
import math
import sys

PANELS = [("p50", "one-way latency, µs"), ("MB/s", "streaming, MB/s")]
COLOURS = ["#0b6e99", "#b5651d", "#5b8c2a", "#7a4fa3", "#c0392b", "#6b6b6b", "#2a9d8f", "#c9a227",
           "#e377c2", "#17202a"]
WIDTH, HEIGHT, LEFT, TOP, GAP = 460, 360, 70, 60, 90
OURS = "segment"


def read(path):
    """{metric: {kind: [(bytes, median, low, high)]}} of the hop suite."""
    found = {metric: {} for metric, _ in PANELS}
    with open(path, newline="") as file:
        for row in csv.DictReader(file):
            size = size_of(row["group"])
            if row["record"] == "measured" and row["suite"] == "hop" and size \
                    and row["metric"] in found:
                values = tuple(float(row[key]) for key in ("median", "min", "max"))
                found[row["metric"]].setdefault(row["name"], []).append((size, *values))
    return found


def size_of(label):
    parts = label.split()
    units = {"B": 1, "KiB": 1 << 10, "MiB": 1 << 20}
    return int(parts[0]) * units[parts[1]] if len(parts) == 2 and parts[1] in units else None


def label_of(size):
    for unit, name in ((1 << 20, "MiB"), (1 << 10, "KiB")):
        if size >= unit:
            return f"{size // unit} {name}"
    return f"{size} B"


class Axis:
    """A logarithmic scale onto [start, start + length]."""

    def __init__(self, values, start, length):
        self.low, self.high = math.log10(min(values)), math.log10(max(values))
        self.start, self.length = start, length

    def __call__(self, value):
        share = (math.log10(value) - self.low) / ((self.high - self.low) or 1)
        return self.start + share * self.length

    def decades(self):
        return [10.0 ** e for e in range(math.ceil(self.low), math.floor(self.high) + 1)]


def text(x, y, words, anchor="middle", weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-weight="{weight}">'
            f'{html.escape(words)}</text>')


def panel(title, kinds, left, colours):
    points = [point for series in kinds.values() for point in series]
    across = Axis([p[0] for p in points], left, WIDTH)
    up = Axis([v for p in points for v in p[2:] if v > 0], TOP + HEIGHT, -HEIGHT)
    out = [text(left + WIDTH / 2, TOP - 14, title, weight="bold")]
    for size in sorted({p[0] for p in points}):
        x = across(size)
        out.append(f'<line class="grid" x1="{x:.1f}" y1="{TOP}" x2="{x:.1f}" y2="{TOP + HEIGHT}"/>')
        out.append(text(x, TOP + HEIGHT + 18, label_of(size)))
    for value in up.decades():
        y = up(value)
        out.append(f'<line class="grid" x1="{left}" y1="{y:.1f}" x2="{left + WIDTH}" y2="{y:.1f}"/>')
        out.append(text(left - 8, y + 4, f"{value:g}", "end"))
    for kind, series in kinds.items():
        out += curve(sorted(series), across, up, colours[kind], 3.5 if kind == OURS else 1.6)
    return out


def curve(series, across, up, colour, width):
    path = " ".join(f"{across(p[0]):.1f},{up(p[1]):.1f}" for p in series)
    out = [f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="{width}"/>']
    for size, median, low, high in series:
        x = across(size)
        out.append(f'<line x1="{x:.1f}" y1="{up(low):.1f}" x2="{x:.1f}" y2="{up(high):.1f}" '
                   f'stroke="{colour}" stroke-opacity="0.4" stroke-width="1"/>')
        out.append(f'<circle cx="{x:.1f}" cy="{up(median):.1f}" r="{width}" fill="{colour}"/>')
    return out


def legend(colours):
    left = LEFT + len(PANELS) * (WIDTH + GAP) - GAP + 30
    out = []
    for row, (kind, colour) in enumerate(colours.items()):
        y = TOP + 10 + 24 * row
        out.append(f'<line x1="{left}" y1="{y}" x2="{left + 24}" y2="{y}" stroke="{colour}" '
                   f'stroke-width="{3.5 if kind == OURS else 1.6}"/>')
        out.append(text(left + 32, y + 4, kind, "start", "bold" if kind == OURS else "normal"))
    return out


def picture(found):
    kinds = sorted({kind for series in found.values() for kind in series})
    colours = {kind: COLOURS[i % len(COLOURS)] for i, kind in enumerate(kinds)}
    body = legend(colours)
    for index, (metric, title) in enumerate(PANELS):
        body += panel(title, found[metric], LEFT + index * (WIDTH + GAP), colours)
    width = LEFT + len(PANELS) * (WIDTH + GAP) + 160
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {TOP + HEIGHT + 50}">',
        '<style>text{font:13px sans-serif;fill:#222}.grid{stroke:#ddd}</style>',
        '<rect width="100%" height="100%" fill="white"/>', *body, "</svg>", ""])


def main():
    if len(sys.argv) != 2 or sys.argv[1].startswith("-"):
        sys.exit(__doc__)
    try:
        found = read(sys.argv[1])
    except (OSError, KeyError, ValueError) as error:
        sys.exit(f"draw.py: {sys.argv[1]}: {error}")
    if not any(found.values()):
        sys.exit(f"draw.py: {sys.argv[1]} has no figures of the hop suite")
    sys.stdout.write(picture(found))


if __name__ == "__main__":
    main()
