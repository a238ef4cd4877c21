"""Latency over load as an SVG 1.1 picture: both axes logarithmic, one line for each service and percentile."""

import html
import math

WIDTH, HEIGHT, LEFT, TOP, RIGHT, BOTTOM = 900, 520, 80, 50, 220, 70
COLOURS = ("#1b6ca8", "#c0392b", "#2e8b57", "#8e44ad", "#d68910", "#5d6d7e")


class Axis:
    """Values on pixels, in whole decades."""

    def __init__(self, values, first_pixel, last_pixel):
        self.low = math.floor(math.log10(min(values)))
        self.high = max(math.ceil(math.log10(max(values))), self.low + 1)
        self._first, self._last = first_pixel, last_pixel

    def pixel(self, value):
        part = (math.log10(value) - self.low) / (self.high - self.low)
        return self._first + part * (self._last - self._first)

    def ticks(self):
        return [10 ** exponent for exponent in range(self.low, self.high + 1)]


def text(x, y, content, anchor="middle", extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" {extra}>{html.escape(content)}</text>'


def grid(across, up):
    for value in across.ticks():
        x = across.pixel(value)
        yield f'<path d="M{x:.1f} {TOP}V{HEIGHT - BOTTOM}" stroke="#ddd"/>'
        yield text(x, HEIGHT - BOTTOM + 20, f"{value:g}")
    for value in up.ticks():
        y = up.pixel(value)
        yield f'<path d="M{LEFT} {y:.1f}H{WIDTH - RIGHT}" stroke="#ddd"/>'
        yield text(LEFT - 8, y + 4, f"{value:g}", "end")


def line(number, name, points, across, up):
    """Points: requests per second, latency in microseconds, and what stands beside it."""
    colour = COLOURS[number % len(COLOURS)]
    dashes = 'stroke-dasharray="6 4"' if "p99" in name else ""
    places = [(across.pixel(x), up.pixel(y), label) for x, y, label in points]
    path = "L".join(f"{x:.1f} {y:.1f}" for x, y, _ in places)
    yield f'<path d="M{path}" fill="none" stroke="{colour}" stroke-width="2" {dashes}/>'
    for x, y, label in places:
        yield f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="{colour}"/>'
        yield text(x, y - 8, label, extra='font-size="10"')
    y = TOP + 20 + 22 * number
    yield f'<path d="M{WIDTH - RIGHT + 15} {y - 4}h30" stroke="{colour}" stroke-width="2" {dashes}/>'
    yield text(WIDTH - RIGHT + 52, y, name, "start")


def picture(title, lines):
    """Lines: name -> points, as above."""
    points = [point for member in lines.values() for point in member]
    across = Axis([x for x, _, _ in points], LEFT, WIDTH - RIGHT)
    up = Axis([y for _, y, _ in points], HEIGHT - BOTTOM, TOP)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT}" font-family="sans-serif" '
             f'font-size="13"><rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
             text((LEFT + WIDTH - RIGHT) / 2, 28, title, extra='font-size="16"'),
             text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 22, "requests per second (small numbers: requests in flight)"),
             text(0, 0, "latency in microseconds", extra=f'transform="translate(22 {HEIGHT / 2}) rotate(-90)"'),
             *grid(across, up)]
    for number, (name, member) in enumerate(lines.items()):
        parts += line(number, name, member, across, up)
    return "\n".join(parts) + "\n</svg>\n"


def latency_over_load(results):
    """Of 4 KiB files beside the fewest idle peers; the floors of the first backend stand for all."""
    lines = {}
    for number, (backend, found) in enumerate(results["backends"].items()):
        fewest = min(entry["idle_peers"] for entry in found["requests"])
        entries = sorted((entry for entry in found["requests"] if (entry["file_bytes"], entry["files"], entry["client"],
                          entry["idle_peers"]) == (4096, "same", "wire", fewest)), key=lambda entry: entry["in_flight"])
        for service in ("daemon", "digest") if number == 0 else ("daemon",):
            name = backend if service == "daemon" else "floor"
            for field in ("p50_us", "p99_us"):
                lines[f"{name}, {field[:3]}"] = [(entry[service]["requests_per_second"], entry[service][field],
                                                  str(entry["in_flight"])) for entry in entries]
    return picture("4 KiB files: latency over load", lines)
