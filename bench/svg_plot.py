"""A small writer of line plots as SVG: a logarithmic x axis, a linear y axis from zero."""

import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 780, 400
LEFT, RIGHT, TOP, BOTTOM = 80, 230, 48, 60      # margins; the right one holds the lines' names
COLORS = ("#1f5fa8", "#c2571a", "#3c8a3f", "#7d4aa0", "#8a6d1f")
LABEL_DISTANCE = 16
STYLE = ("text { font: 13px sans-serif; fill: #222 } .title { font-size: 16px; font-weight: bold } "
         ".grid { stroke: #ddd } .axis { stroke: #444 } .line { fill: none; stroke-width: 2 }")


def nice_step(largest, wanted=5):
    """A step of 1, 2 or 5 times a power of ten that divides 0..largest into about `wanted` parts."""
    if largest <= 0:
        return 1
    power = 10 ** math.floor(math.log10(largest / wanted))
    for factor in (1, 2, 5):
        if largest / (power * factor) <= wanted:
            return power * factor
    return power * 10


def short_number(value):
    if value >= 1000 and math.log10(value) % 1 == 0:
        return "%d" % value if value < 10000 else "10^%d" % math.log10(value)
    return "%g" % value


class Axes:
    """Where a value lies on the picture."""

    def __init__(self, series):
        xs = [x for points in series.values() for x, _ in points]
        ys = [y for points in series.values() for _, y in points]
        self.low = math.floor(math.log10(min(xs)))
        self.high = max(math.ceil(math.log10(max(xs))), self.low + 1)
        self.step = nice_step(max(ys))
        self.top = self.step * max(1, math.ceil(max(ys) / self.step))

    def x(self, value):
        return LEFT + (math.log10(value) - self.low) / (self.high - self.low) * (WIDTH - LEFT - RIGHT)

    def y(self, value):
        return HEIGHT - BOTTOM - max(0, value) / self.top * (HEIGHT - TOP - BOTTOM)


def _text(x, y, text, anchor="middle", more=""):
    return '<text x="%.1f" y="%.1f" text-anchor="%s"%s>%s</text>' % (x, y, anchor, more, escape(text))


def _line(x1, y1, x2, y2, css):
    return '<line x1="%.1f" y1="%.1f" x2="%.1f" y2="%.1f" class="%s"/>' % (x1, y1, x2, y2, css)


def _draw_axes(axes, title, x_label, y_label):
    bottom, right = HEIGHT - BOTTOM, WIDTH - RIGHT
    parts = [_text(LEFT, 26, title, "start", ' class="title"')]
    for i in range(round(axes.top / axes.step) + 1):
        y = axes.y(i * axes.step)
        parts += [_line(LEFT, y, right, y, "grid"), _text(LEFT - 8, y + 4, short_number(i * axes.step), "end")]
    for power in range(axes.low, axes.high + 1):
        x = axes.x(10 ** power)
        parts += [_line(x, bottom, x, bottom + 5, "axis"), _text(x, bottom + 20, short_number(10 ** power))]
    parts += [_line(LEFT, TOP, LEFT, bottom, "axis"), _line(LEFT, bottom, right, bottom, "axis"),
              _text((LEFT + right) / 2, HEIGHT - 14, x_label),
              _text(22, (TOP + bottom) / 2, y_label, more=' transform="rotate(-90 22 %d)"' % ((TOP + bottom) / 2))]
    return parts


def _draw_series(axes, series):
    parts, taken = [], []
    ends = sorted(((axes.y(points[-1][1]), i, name) for i, (name, points) in enumerate(series.items())))
    for y, i, name in ends:
        color, points = COLORS[i % len(COLORS)], series[name]
        path = " ".join("%.1f,%.1f" % (axes.x(x), axes.y(value)) for x, value in points)
        parts.append('<polyline class="line" stroke="%s" points="%s"/>' % (color, path))
        parts += ['<circle cx="%.1f" cy="%.1f" r="3" fill="%s"/>' % (axes.x(x), axes.y(value), color)
                  for x, value in points]
        label_y = max([y + 4] + [other + LABEL_DISTANCE for other in taken])    # names do not lie on each other
        taken.append(label_y)
        parts.append(_text(axes.x(points[-1][0]) + 10, label_y, name, "start", ' style="fill: %s"' % color))
    return parts


def write_plot(path, title, x_label, y_label, series):
    """`series` is {name: [(x, y), ...]} with points in the order of x."""
    axes = Axes(series)
    parts = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" viewBox="0 0 %d %d">'
             % (WIDTH, HEIGHT, WIDTH, HEIGHT), "<style>%s</style>" % STYLE,
             '<rect width="%d" height="%d" fill="white"/>' % (WIDTH, HEIGHT)]
    parts += _draw_axes(axes, title, x_label, y_label) + _draw_series(axes, series) + ["</svg>"]
    with open(path, "w") as stream:
        stream.write("\n".join(parts) + "\n")
