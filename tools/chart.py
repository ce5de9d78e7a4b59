# SPDX-License-Identifier: Apache-2.0
"""Curves over time as an SVG drawing, one panel below the other."""

import html

WIDTH, PANEL, LEFT, TOP, GAP = 960, 110, 90, 30, 34
COLOURS = ("#1f77b4", "#d62728", "#2ca02c", "#9467bd", "#ff7f0e", "#8c564b")


def svg(title, seconds, panels):
    """`panels`: (title, {curve: values}); None among the values is a gap."""
    height = TOP + len(panels) * (PANEL + GAP)
    end = max(seconds) or 1
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" font-family="sans-serif" '
             f'font-size="11"><rect width="100%" height="100%" fill="white"/>'
             f'<text x="{LEFT}" y="18" font-size="14">{html.escape(title)}</text>']
    for number, (name, curves) in enumerate(panels):
        top = TOP + GAP // 2 + number * (PANEL + GAP)
        parts += _panel(top, name, curves, seconds, end)
    return "\n".join(parts) + "\n</svg>\n"


def _panel(top, name, curves, seconds, end):
    values = [value for curve in curves.values() for value in curve if value is not None]
    highest = max(values, default=0) or 1
    inner = WIDTH - LEFT - 20
    yield (f'<rect x="{LEFT}" y="{top}" width="{inner}" height="{PANEL}" fill="none" stroke="#ccc"/>'
           f'<text x="{LEFT}" y="{top - 4}">{html.escape(name)}</text>'
           f'<text x="{LEFT - 6}" y="{top + 10}" text-anchor="end">{highest:g}</text>'
           f'<text x="{LEFT - 6}" y="{top + PANEL}" text-anchor="end">0</text>'
           f'<text x="{WIDTH - 20}" y="{top + PANEL + 13}" text-anchor="end">{end:.0f} s</text>')
    for number, (label, curve) in enumerate(curves.items()):
        colour = COLOURS[number % len(COLOURS)]
        points = " ".join(f"{LEFT + inner * when / end:.1f},{top + PANEL * (1 - value / highest):.1f}"
                          for when, value in zip(seconds, curve) if value is not None)
        yield f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="1.3"/>'
        yield (f'<text x="{LEFT + 170 + 130 * number}" y="{top - 4}" fill="{colour}">{html.escape(label)}</text>')
