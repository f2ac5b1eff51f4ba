"""A picture of a terminal: text with its colours, as `tmux capture-pane -e` gives it, drawn by Chromium."""

import html
import pathlib
import re
import shutil
import subprocess
import tempfile

_ROW, _COLUMN = 19, 8.43          # pixels of a character at 14px in the font below
_PAGE = """<!doctype html><meta charset="utf-8"><style>
html, body { margin: 0; background: %s }
pre { margin: 8px; font: 14px/%dpx "DejaVu Sans Mono", monospace; color: %s }
</style><pre>%s</pre>"""
_PAPER, _INK = "#3b224c", "#a4a0e8"       # Helix's own theme leaves nothing to the terminal; this is its background
_SGR = re.compile(r"\x1b\[([\d;:]*)m")


def _colour(numbers):
    """A colour and what is left after its numbers, which begin behind 38 or 48."""
    if numbers[0] == 2:
        return "rgb(%d,%d,%d)" % tuple(numbers[1:4]), numbers[4:]
    return "var(--c%d)" % numbers[1], numbers[2:]


def _apply(style, numbers):
    while numbers:
        number, numbers = numbers[0], numbers[1:]
        if number == 0:
            style.clear()
        elif number == 1:
            style["font-weight"] = "bold"
        elif number == 3:
            style["font-style"] = "italic"
        elif number in (38, 48):
            style["color" if number == 38 else "background"], numbers = _colour(numbers)
        elif number in (39, 49):
            style.pop("color" if number == 39 else "background", None)
        elif number in (22, 23):
            style.pop("font-weight" if number == 22 else "font-style", None)


def to_html(text):
    parts, style = [], {}
    for index, part in enumerate(_SGR.split(re.sub(r"\x1b\(B|\x0f|\x0e", "", text))):
        if index % 2:
            _apply(style, [int(each or 0) for each in re.split("[;:]", part)])
        elif part:
            shown = ";".join("%s:%s" % each for each in style.items())
            parts.append('<span style="%s">%s</span>' % (shown, html.escape(part)))
    return "".join(parts)


def save(text, path):
    """Nothing, where Chromium is not here."""
    chromium = shutil.which("chromium")
    if chromium is None:
        return
    lines = text.rstrip("\n").split("\n")
    width = max(len(_SGR.sub("", line)) for line in lines)
    with tempfile.TemporaryDirectory() as folder:
        page = pathlib.Path(folder, "page.html")
        page.write_text(_PAGE % (_PAPER, _ROW, _INK, to_html("\n".join(lines))), encoding="utf-8")
        subprocess.run([chromium, "--headless", "--no-sandbox", "--hide-scrollbars", "--screenshot=%s" % path,
                        "--window-size=%d,%d" % (width * _COLUMN + 20, len(lines) * _ROW + 16), page.as_uri()],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
