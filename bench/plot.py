"""A plot as SVG text, for a page and for print."""

WIDTH, HEIGHT = 760, 440
LEFT, RIGHT, TOP, BOTTOM = 84, 150, 46, 62
# Told apart by colour, by lightness in grey print, and by the mark.
STYLES = [("#b22222", "circle"), ("#1f4e9c", "square"), ("#2e7d32", "triangle"), ("#8a6d00", "diamond")]
FONT = 'font-family="sans-serif" font-size="13" fill="#222"'
STEPS = (1, 2, 2.5, 5, 10)
MOST_LINES = 6  # across the plot


def round_step(top):
    """The smallest round distance that needs no more than MOST_LINES lines up to `top`."""
    unit = 1
    while True:
        for step in STEPS:
            if top <= step * unit * MOST_LINES:
                return step * unit
        unit *= 10


def mark(shape, x, y, colour):
    points = {"square": [(-4, -4), (4, -4), (4, 4), (-4, 4)], "triangle": [(0, -5), (5, 4), (-5, 4)],
              "diamond": [(0, -6), (5, 0), (0, 6), (-5, 0)]}.get(shape)
    if points is None:
        return f'<circle cx="{x:.1f}" cy="{y:.1f}" r="4.5" fill="{colour}"/>'
    corners = " ".join(f"{x + dx:.1f},{y + dy:.1f}" for dx, dy in points)
    return f'<polygon points="{corners}" fill="{colour}"/>'


def text(x, y, content, anchor="middle", more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {FONT} {more}>{content}</text>'


def spread(positions, distance):
    """The same positions, moved down as far as is needed to keep a distance between neighbours."""
    placed = {}
    last = float("-inf")
    for name, y in sorted(positions.items(), key=lambda item: item[1]):
        last = placed[name] = max(y, last + distance)
    return placed


def throughput(sizes, rates, warning=""):
    """`rates`: name -> requests a second for each of `sizes`, which stand at even distances."""
    top = max(max(values) for values in rates.values())
    step = round_step(top)
    ceiling = step * -(-top // step)
    inner_width, inner_height = WIDTH - LEFT - RIGHT, HEIGHT - TOP - BOTTOM

    def place(index, rate):
        return LEFT + inner_width * index / (len(sizes) - 1), TOP + inner_height * (1 - rate / ceiling)

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" width="{WIDTH}" '
             f'height="{HEIGHT}" role="img">',
             "<title>Look-ups a second against the number of connections</title>",
             f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#fff"/>',
             text(LEFT, 24, "Cached look-ups a second", "start", 'font-weight="bold"'),
             text(WIDTH - 20, 24, warning, "end", 'font-style="italic"'),
             text(LEFT + inner_width / 2, HEIGHT - 16, "connections, each with one question under way")]
    for line in range(int(ceiling / step) + 1):
        x, y = place(0, line * step)
        parts.append(f'<line x1="{x:.1f}" y1="{y:.1f}" x2="{x + inner_width:.1f}" y2="{y:.1f}" stroke="#ccc"/>')
        parts.append(text(x - 10, y + 4, f"{line * step:,.0f}", "end"))
    for index, size in enumerate(sizes):
        parts.append(text(place(index, 0)[0], HEIGHT - BOTTOM + 22, f"{size:,}"))
    labels = spread({name: place(0, values[-1])[1] for name, values in rates.items()}, 18)
    for (name, values), (colour, shape) in zip(rates.items(), STYLES):
        points = [place(index, value) for index, value in enumerate(values)]
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        parts.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
        parts += [mark(shape, x, y, colour) for x, y in points]
        x = points[-1][0] + 24
        parts += [mark(shape, x, labels[name], colour), text(x + 12, labels[name] + 4, name, "start")]
    return "\n".join([*parts, "</svg>"]) + "\n"
