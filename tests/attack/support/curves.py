"""Curves of samples over time as an SVG: one panel for each quantity, all over the same time."""

from xml.sax.saxutils import escape

WIDTH, PANEL, GAP, LEFT, RIGHT, TOP, BOTTOM = 760, 100, 30, 70, 20, 44, 34
LINE = "#1f77b4"
TEXT = 'font-family="sans-serif" font-size="11"'


def draw(title, minutes, panels):
    """`minutes`: the times of the samples; `panels`: {label: samples}. Returns: the SVG."""
    height = TOP + len(panels) * (PANEL + GAP) - GAP + BOTTOM
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}">',
             f'<rect width="{WIDTH}" height="{height}" fill="white"/>',
             f'<text x="{LEFT}" y="16" {TEXT} font-weight="bold">{escape(title)}</text>']
    for place, (label, samples) in enumerate(panels.items()):
        parts += _panel(label, minutes, samples, TOP + place * (PANEL + GAP))
    for share in range(5):
        x = LEFT + share * (WIDTH - LEFT - RIGHT) / 4
        parts.append(f'<text x="{x:.0f}" y="{height - 14}" {TEXT} text-anchor="middle">{minutes[-1] * share / 4:.1f}</text>')
    parts.append(f'<text x="{WIDTH - RIGHT}" y="{height - 2}" {TEXT} text-anchor="end">minutes</text>')
    return "\n".join(parts + ["</svg>\n"])


def _panel(label, minutes, samples, top):
    most = max(samples) * 1.1 or 1
    width = WIDTH - LEFT - RIGHT

    def point(minute, sample):
        return f"{LEFT + width * minute / (minutes[-1] or 1):.1f},{top + PANEL * (1 - sample / most):.1f}"

    line = " ".join(map(point, minutes, samples))
    axis = [f'<path d="M{LEFT},{top} V{top + PANEL} H{WIDTH - RIGHT}" fill="none" stroke="#888"/>']
    axis += [f'<text x="{LEFT - 6}" y="{top + PANEL * (1 - share) + 4:.0f}" {TEXT} text-anchor="end">{most * share:.3g}</text>'
             for share in (0, 0.5, 1)]
    return [*axis, f'<text x="{LEFT}" y="{top - 5}" {TEXT}>{escape(label)}</text>',
            f'<polyline points="{line}" fill="none" stroke="{LINE}" stroke-width="1.2"/>']
