"""Draws time against number of routes as SVG: a panel for each phase, a line for each program, both axes logarithmic."""

import math
from xml.sax.saxutils import escape

PANEL_WIDTH, PANEL_HEIGHT, GAP = 300, 300, 70
LEFT, TOP, BOTTOM, LEGEND = 70, 60, 60, 130
COLOURS = ("#0b5fa5", "#c8442b", "#e0952b", "#5b8c3a", "#7b4ea3", "#3f9aa3", "#666666")


class Axis:
    """Whole decades around the values, on so many pixels from a place on."""

    def __init__(self, values, start, length):
        self.low = math.floor(math.log10(min(values)) + 1e-9)
        self.high = max(math.ceil(math.log10(max(values)) - 1e-9), self.low + 1)
        self.start, self.length = start, length

    def place(self, value):
        return self.start + self.length * (math.log10(value) - self.low) / (self.high - self.low)

    def decades(self):
        return [10.0 ** power for power in range(self.low, self.high + 1)]


def text(x, y, words, anchor="middle", size=12, more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" {more}>{escape(words)}</text>'


def line(x1, y1, x2, y2, colour, width=1.0):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" stroke-width="{width}"/>'


def seconds_label(value):
    return f"{value:g} s" if value >= 1 else f"{value * 1000:g} ms"


def frame(title, x, y):
    """Grid, labels and title of a panel; y grows downwards, so its axis has a negative length."""
    right, top = x.start + x.length, y.start + y.length
    shapes = [text((x.start + right) / 2, top - 12, title, size=14)]
    for value in x.decades():
        shapes += [line(x.place(value), y.start, x.place(value), top, "#dddddd"),
                   text(x.place(value), y.start + 18, f"{value:,.0f}")]
    for value in y.decades():
        shapes += [line(x.start, y.place(value), right, y.place(value), "#dddddd"),
                   text(x.start - 6, y.place(value) + 4, seconds_label(value), anchor="end")]
    return [*shapes, text((x.start + right) / 2, y.start + 40, "routes")]


def curve(points, x, y, colour):
    places = [(x.place(count), y.place(seconds)) for count, seconds in points]
    joined = " ".join(f"{across:.1f},{down:.1f}" for across, down in places)
    return [f'<polyline points="{joined}" fill="none" stroke="{colour}" stroke-width="2"/>',
            *(f'<circle cx="{across:.1f}" cy="{down:.1f}" r="3" fill="{colour}"/>' for across, down in places)]


def legend(names, left):
    shapes = []
    for row, (name, colour) in enumerate(names.items()):
        y = TOP + 14 + 22 * row
        shapes += [line(left, y, left + 24, y, colour, 3), text(left + 32, y + 4, name, anchor="start")]
    return shapes


def svg(title, panels):
    """panels: phase -> program -> [(routes, seconds)]."""
    names = dict(zip(dict.fromkeys(name for programs in panels.values() for name in programs), COLOURS))
    points = [point for programs in panels.values() for curves in programs.values() for point in curves]
    width = LEFT + len(panels) * (PANEL_WIDTH + GAP) + LEGEND
    height = TOP + PANEL_HEIGHT + BOTTOM
    shapes = [text(LEFT, 24, title, anchor="start", size=16)]
    for number, (phase, programs) in enumerate(panels.items()):
        x = Axis([count for count, _ in points], LEFT + number * (PANEL_WIDTH + GAP), PANEL_WIDTH)
        y = Axis([seconds for _, seconds in points], TOP + PANEL_HEIGHT, -PANEL_HEIGHT)
        shapes += frame(phase, x, y)
        for name, curves in programs.items():
            shapes += curve(curves, x, y, names[name])
    shapes += legend(names, width - LEGEND - GAP + 20)
    body = "\n".join(shapes)
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}" '
            f'font-family="sans-serif">\n<rect width="100%" height="100%" fill="white"/>\n{body}\n</svg>\n')
