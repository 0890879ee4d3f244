"""The ratios as a picture: a line for each figure, a dot for each case, whiskers for the spread."""
import html
import math

from side_by_side import figures

WIDTH, LEFT, RIGHT, TOP, ROW, BOTTOM = 960, 330, 40, 100, 44, 64
COLOURS = ["#1b6ca8", "#7fb2d9", "#b5482a", "#e5a48f"]
TEXT, FAINT, GOAL = "#222222", "#d5d5d5", "#2e8b57"


def scale(least, most):
    """Position of a ratio, logarithmic; everything outside stands at the edge."""
    low, high = math.log10(least), math.log10(most)

    def position(ratio):
        place = (math.log10(max(ratio, least)) - low) / (high - low)
        return LEFT + min(max(place, 0), 1) * (WIDTH - LEFT - RIGHT)
    return position


def text(x, y, words, size=13, anchor="start", colour=TEXT, weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" text-anchor="{anchor}" fill="{colour}" '
            f'font-weight="{weight}">{html.escape(words)}</text>')


def line(x1, y1, x2, y2, colour, width=1.0, dash=""):
    dashes = f' stroke-dasharray="{dash}"' if dash else ""
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-width="{width}"{dashes}/>')


def grid(position, least, most, bottom):
    marks = [ratio for ratio in (1 / 100, 1 / 50, 1 / 20, 1 / 10, 1 / 5, 1 / 2, 1, 2, 5, 10, 20, 50, 100)
             if least <= ratio <= most]
    for ratio in marks:
        x = position(ratio)
        yield line(x, TOP - 12, x, bottom, "#888888" if ratio == 1 else FAINT, 1.6 if ratio == 1 else 1)
        yield text(x, TOP - 20, figures.fraction(ratio) if ratio < 1 else f"{ratio:g}", 12, "middle")
    yield text(position(1), bottom + 18, "as much as the loop", 12, "middle")


def legend(cases):
    x = LEFT
    for case, colour in zip(cases, COLOURS):
        name = figures.case_name(case)
        yield f'<circle cx="{x:.1f}" cy="56" r="5" fill="{colour}"/>'
        yield text(x + 10, 60, name, 12)
        x += 34 + 7.2 * len(name)
    yield line(x, 50, x, 62, GOAL, 3)
    yield text(x + 8, 60, "goal: at most", 12)


def dots(figure, cases, position, middle):
    step = ROW * 0.72 / max(len(cases), 1)
    for number, (case, colour) in enumerate(zip(cases, COLOURS)):
        y = middle + (number - (len(cases) - 1) / 2) * step
        result = figures.compare(figure, case["pairs"], case["files"])
        goal = figure.goal.get(case["tls"])
        if goal is not None:
            yield line(position(goal), y - step / 2, position(goal), y + step / 2, GOAL, 3)
        yield line(position(result.least), y, position(result.most), y, colour, 2)
        yield f'<circle cx="{position(result.ratio):.1f}" cy="{y:.1f}" r="4" fill="{colour}"/>'


def draw(cases, title="The service beside a shell loop of find, fuser, curl and chmod"):
    """The whole picture, SVG."""
    results = [figures.compare(figure, case["pairs"], case["files"]) for figure in figures.FIGURES for case in cases]
    least = min([0.02, *(result.least for result in results if result.least > 0)]) * 0.8
    most = max([2.0, *(result.most for result in results if result.most < math.inf)]) * 1.25
    position = scale(least, most)
    bottom = TOP + ROW * len(figures.FIGURES)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{bottom + BOTTOM}" '
             f'viewBox="0 0 {WIDTH} {bottom + BOTTOM}" font-family="DejaVu Sans, Arial, sans-serif">',
             f'<rect width="{WIDTH}" height="{bottom + BOTTOM}" fill="#ffffff"/>',
             text(20, 28, title, 17, weight="bold"), *legend(cases), *grid(position, least, most, bottom)]
    for number, figure in enumerate(figures.FIGURES):
        middle = TOP + ROW * (number + 0.5)
        parts += [line(20, middle - ROW / 2, WIDTH - RIGHT, middle - ROW / 2, FAINT), text(20, middle + 4, figure.title, 12),
                  *dots(figure, cases, position, middle)]
    parts += [line(20, bottom, WIDTH - RIGHT, bottom, FAINT),
              text(20, bottom + 44, "Ratio service by loop, logarithmic; dot: median of the rounds, bar: smallest to "
                   "largest. To the left is less.", 12), "</svg>"]
    return "\n".join(parts) + "\n"
