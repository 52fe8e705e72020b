#!/usr/bin/env python3
"""Plots the soak's CSV (seconds, iterations, private_bytes, handles, threads, heap_bytes,
log_pool_bytes) as an
SVG of stacked panels, one per resource, written by hand so that no package is needed.

usage: soak_plot.py soak.csv [soak.svg]   (default: the CSV's name with .svg)
"""
import csv
import sys

WIDTH, PANEL, MARGIN = 760, 170, 60
SERIES = [("private_bytes", "private memory (MiB)", 1 / (1024 * 1024), "#1f77b4"),
          ("handles", "handles", 1, "#d62728"),
          ("threads", "threads", 1, "#2ca02c"),
          ("heap_bytes", "live heap blocks (MiB)", 1 / (1024 * 1024), "#9467bd"),
          ("log_pool_bytes", "of which the log's message pool (MiB)", 1 / (1024 * 1024), "#8c564b")]


def read(path):
    with open(path, newline="") as f:
        rows = list(csv.DictReader(f))
    if not rows:
        raise SystemExit(f"{path}: no samples")
    return rows


def panel(rows, top, field, title, scale, colour):
    xs = [float(r["seconds"]) for r in rows]
    ys = [float(r[field]) * scale for r in rows]
    x0, x1 = min(xs), max(xs)
    y0, y1 = min(ys), max(ys)
    if x1 == x0:
        x1 = x0 + 1
    if y1 == y0:
        y0, y1 = y0 - 1, y1 + 1
    plot_w, plot_h = WIDTH - 2 * MARGIN, PANEL - 50
    def px(x):
        return MARGIN + (x - x0) / (x1 - x0) * plot_w
    def py(y):
        return top + 30 + (y1 - y) / (y1 - y0) * plot_h
    points = " ".join(f"{px(x):.1f},{py(y):.1f}" for x, y in zip(xs, ys))
    bottom = top + 30 + plot_h
    return "\n".join([
        f'<text x="{MARGIN}" y="{top + 20}" font-size="14">{title}</text>',
        f'<rect x="{MARGIN}" y="{top + 30}" width="{plot_w}" height="{plot_h}" fill="none" stroke="#999"/>',
        f'<text x="{MARGIN - 5}" y="{top + 35}" font-size="11" text-anchor="end">{y1:.6g}</text>',
        f'<text x="{MARGIN - 5}" y="{bottom}" font-size="11" text-anchor="end">{y0:.6g}</text>',
        f'<text x="{MARGIN}" y="{bottom + 14}" font-size="11">{x0:.0f} s</text>',
        f'<text x="{WIDTH - MARGIN}" y="{bottom + 14}" font-size="11" text-anchor="end">{x1:.0f} s</text>',
        f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="1.5"/>',
    ])


def main(argv):
    if len(argv) not in (2, 3):
        raise SystemExit(__doc__)
    source = argv[1]
    target = argv[2] if len(argv) == 3 else source.rsplit(".", 1)[0] + ".svg"
    rows = read(source)
    height = PANEL * len(SERIES) + 20
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
             f'font-family="sans-serif">',
             f'<rect width="{WIDTH}" height="{height}" fill="white"/>']
    for i, (field, title, scale, colour) in enumerate(SERIES):
        parts.append(panel(rows, i * PANEL, field, title, scale, colour))
    parts.append("</svg>")
    with open(target, "w") as f:
        f.write("\n".join(parts) + "\n")
    print(target)


if __name__ == "__main__":
    main(sys.argv)
