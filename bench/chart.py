"""Line charts with two logarithmic axes, as SVG: for costs over sizes that differ by powers of ten."""

import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 720, 400
LEFT, RIGHT, TOP, BOTTOM = 76, 190, 46, 52
# Told apart in grey as well: dark and full, lighter and dashed, and so on.
STYLES = [("#0b4f8a", ""), ("#c2571a", "7 4"), ("#5b8c3a", "2 3"), ("#8a5aa8", "10 3 2 3")]


def ticks(low, high):
    """The powers of ten around the values, and twice and five times each if they are few."""
    first, last = math.floor(math.log10(low)), math.ceil(math.log10(high))
    steps = (1, 2, 5) if last - first <= 3 else (1,)
    return [s * 10.0 ** e for e in range(first, last + 1) for s in steps
            if low <= s * 10.0 ** e * 1.0001 and s * 10.0 ** e <= high * 1.0001]


def number(value):
    return f"{value:,.0f}" if value >= 1 else f"{value:g}"


def chart(path, title, x_label, y_label, series):
    """`series`: names with their points. Writes the file."""
    points = [point for line in series.values() for point in line]
    x_low, x_high = min(x for x, _ in points), max(x for x, _ in points)
    y_low, y_high = min(y for _, y in points) / 1.4, max(y for _, y in points) * 1.4

    def place(value, low, high, begin, end):
        share = math.log(value / low) / math.log(high / low)
        return begin + share * (end - begin)

    def x_of(value):
        return place(value, x_low, x_high, LEFT, WIDTH - RIGHT)

    def y_of(value):
        return place(value, y_low, y_high, HEIGHT - BOTTOM, TOP)

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
           f'font-family="sans-serif" font-size="12" role="img">',
           f"<title>{escape(title)}</title>",
           f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#ffffff"/>',
           f'<text x="{LEFT}" y="24" font-size="15" fill="#222222">{escape(title)}</text>']
    for value in ticks(y_low, y_high):
        y = y_of(value)
        out.append(f'<path d="M{LEFT} {y:.1f}H{WIDTH - RIGHT}" stroke="#dddddd"/>'
                   f'<text x="{LEFT - 8}" y="{y + 4:.1f}" text-anchor="end" fill="#444444">'
                   f"{number(value)}</text>")
    for value in ticks(x_low, x_high):
        x = x_of(value)
        out.append(f'<path d="M{x:.1f} {TOP}V{HEIGHT - BOTTOM}" stroke="#eeeeee"/>'
                   f'<text x="{x:.1f}" y="{HEIGHT - BOTTOM + 18}" text-anchor="middle" '
                   f'fill="#444444">{number(value)}</text>')
    out.append(f'<text x="{(LEFT + WIDTH - RIGHT) / 2}" y="{HEIGHT - 12}" text-anchor="middle" '
               f'fill="#222222">{escape(x_label)}</text>'
               f'<text transform="translate(18 {(TOP + HEIGHT - BOTTOM) / 2}) rotate(-90)" '
               f'text-anchor="middle" fill="#222222">{escape(y_label)}</text>')
    labels = []
    for (name, line), (colour, dash) in zip(series.items(), STYLES):
        path_data = "L".join(f"{x_of(x):.1f} {y_of(y):.1f}" for x, y in line)
        out.append(f'<path d="M{path_data}" fill="none" stroke="{colour}" stroke-width="2" '
                   f'stroke-dasharray="{dash}"/>')
        out += [f'<circle cx="{x_of(x):.1f}" cy="{y_of(y):.1f}" r="3" fill="{colour}"/>'
                for x, y in line]
        labels.append([y_of(line[-1][1]) + 4, name, colour])
    labels.sort()
    for above, label in zip(labels, labels[1:]):
        label[0] = max(label[0], above[0] + 15)
    out += [f'<text x="{WIDTH - RIGHT + 10}" y="{y:.1f}" fill="{colour}">{escape(name)}</text>'
            for y, name, colour in labels]
    path.write_text("\n".join(out) + "\n</svg>\n")
