"""Bar charts in one SVG image, for light and dark backgrounds."""

from xml.sax.saxutils import escape

_WIDTH, _LABELS, _BAR, _GAP, _TITLE = 820, 320, 22, 6, 34
_STYLE = """
  text { font: 13px system-ui, sans-serif; fill: #24292f; }
  .title { font-weight: 600; }
  .own { fill: #0969da; }
  .peer { fill: #8c959f; }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3; }
    .own { fill: #4493f8; }
    .peer { fill: #6e7681; }
  }
"""


def _panel(title, unit, bars, top):
    pieces = [f'<text class="title" x="0" y="{top + 20}">{escape(title)}</text>']
    longest = max(value for _, value, _ in bars)
    room = _WIDTH - _LABELS - 110
    y = top + _TITLE
    for label, value, own in bars:
        width = max(1.0, room * value / longest)
        middle = y + _BAR - 6
        pieces += [
            f'<text x="{_LABELS - 10}" y="{middle}" text-anchor="end">{escape(label)}</text>',
            f'<rect class="{"own" if own else "peer"}" x="{_LABELS}" y="{y}" '
            f'width="{width:.1f}" height="{_BAR}" rx="3"/>',
            f'<text x="{_LABELS + width + 8:.1f}" y="{middle}">{value:.3g} {escape(unit)}</text>',
        ]
        y += _BAR + _GAP
    return pieces, y + 14


def draw(panels):
    """Returns the SVG text. A panel is (title, unit, bars), a bar (label, value, is the program)."""
    pieces, top = [], 4
    for title, unit, bars in panels:
        drawn, top = _panel(title, unit, bars, top)
        pieces += drawn
    return "\n".join(
        [
            f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {_WIDTH} {top}" '
            f'width="{_WIDTH}" height="{top}" role="img">',
            "<title>The program and its peers, medians; shorter is better</title>",
            f"<style>{_STYLE}</style>",
            *pieces,
            "</svg>",
            "",
        ]
    )
