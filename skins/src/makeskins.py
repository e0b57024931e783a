#!/usr/bin/env python3
"""Draws the bundled skins of Tamblin Reader into skins/*.ans.

Usage:
  python3 skins/src/makeskins.py             write skins/*.ans and check them
  python3 skins/src/makeskins.py --preview DIR [FILE.ans ...]
                                             also write DIR/skin-<name>.png for
                                             the given skins (default: every
                                             skins/*.ans), each with a sample
                                             item painted over it (needs the
                                             ansilove package)
  python3 skins/src/makeskins.py --check FILE.ans ...
                                             check skins drawn by other means

Every skin frames the door's text box (rows 2-22, columns 13-68) with a
border on columns 12 and 69 and rows 1 and 23, leaves row 1 from column 74
to the item counter (which paints over whatever stands there) and keeps row 25
free for the command line.
"""

import math
import os
import random
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from skinlib import (  # noqa: E402
    BOX_X1, BOX_X2, BOX_Y1, BOX_Y2, Canvas, Pixels, check, encode)
import preview  # noqa: E402

BLACK, BLUE, GREEN, CYAN, RED, MAGENTA, BROWN, GREY = range(8)
DGREY, LBLUE, LGREEN, LCYAN, LRED, LMAGENTA, YELLOW, WHITE = range(8, 16)


def grey_box(cv):
    """The box as the door clears it with its preset background, so that the
    screen looks whole while the feed is being fetched."""
    for x, y in cv.box_area():
        cv.set(x, y, " ", GREY, GREY)


# ---------------------------------------------------------------- newsstand

def wood(cv, rnd, x1, y1, x2, y2):
    """Brown boards with dark grain streaks running along them."""
    for y in range(y1, y2 + 1):
        x = x1
        while x <= x2:
            run = rnd.randint(2, 7)
            ch = rnd.choice("░░─") if rnd.random() < 0.45 else " "
            for i in range(x, min(x + run, x2 + 1)):
                cv.set(i, y, ch, BLACK, BROWN)
            x += run


def newsstand():
    cv = Canvas()
    rnd = random.Random(11)
    wood(cv, rnd, 1, 1, 80, 24)

    # Striped awning along the top, its fringe hanging into the margins.
    for x in range(1, 74):
        red = ((x - 1) // 3) % 2 == 0
        cv.set(x, 1, "█", RED if red else WHITE, BLACK)
    for x in list(range(1, 11)) + list(range(71, 81)):
        red = ((x - 1) // 3) % 2 == 0
        cv.set(x, 2, "▀", RED if red else WHITE, BROWN)
    cv.text(71, 1, "Nº ", YELLOW, BLACK)

    # Window frame around the box: light posts and a sill.
    for y in range(2, 24):
        cv.set(11, y, "▐", YELLOW, BROWN)
        cv.set(12, y, "▓", BROWN, BLACK)
        cv.set(69, y, "▓", BROWN, BLACK)
        cv.set(70, y, "▌", YELLOW, BROWN)
    for x in range(11, 71):
        cv.set(x, 23, "▀", YELLOW, BROWN)
    cv.set(11, 23, "▀", YELLOW, BROWN)
    grey_box(cv)

    # Magazine rack on the left: three covers behind a wire.
    covers = [
        (4, BLUE, YELLOW, "MODEM", [
            (" ▄▄▄▄▄▄ ", DGREY), ("▐▀▀▀▀▀▀▌", GREY), ("  ■ ■ ■ ", LGREEN),
        ], "No.14"),
        (11, RED, WHITE, "ANSI", [
            (" ░▒▓█▓▒░", YELLOW), (" ▀▄▀▄▀▄ ", LCYAN), (" ▄▀▄▀▄▀ ", LMAGENTA),
        ], "ART!"),
        (18, GREEN, YELLOW, "SYSOP", [
            ("  ▄██▄  ", BROWN), ("  ▀▄▄▀  ", YELLOW), (" ▄████▄ ", LBLUE),
        ], "$2.95"),
    ]
    for top, bg, fg, name, pic, foot in covers:
        cv.fill(2, top, 9, top + 4, " ", fg, bg)
        cv.text(2 + (8 - len(name)) // 2, top, name, fg, bg)
        for i, (row, col) in enumerate(pic):
            for j, ch in enumerate(row):
                if ch != " ":
                    cv.set(2 + j, top + 1 + i, ch, col, bg)
        cv.text(10 - len(foot), top + 4, foot, GREY, bg)
        for x in range(1, 11):
            cv.set(x, top + 5, "▀", DGREY, BROWN)
    cv.text(2, 3, "MAGS", YELLOW, BROWN)

    # Newspapers hanging from pegs on the right.
    for top, head, extra in [(4, "DAILY", "EXTRA!"), (14, "POST", "NEWS!")]:
        cv.set(75, top - 1, "▄", YELLOW, BROWN)
        cv.set(76, top - 1, "▄", YELLOW, BROWN)
        cv.fill(72, top, 79, top + 7, " ", BLACK, GREY)
        cv.text(72 + (8 - len(head)) // 2, top, head, BLACK, GREY)
        cv.text(72, top + 1, "════════", DGREY, GREY)
        cv.text(73, top + 2, extra, RED, GREY)
        cv.text(73, top + 3, "▓▓▓ ≡≡≡", DGREY, GREY)
        cv.text(73, top + 4, "▓▓▓ ≡≡≡", DGREY, GREY)
        cv.text(73, top + 5, "≡≡≡≡≡≡", DGREY, GREY)
        cv.text(73, top + 6, "≡≡≡ ≡≡≡", DGREY, GREY)

    # The counter front with the painted sign.
    for x in range(1, 81):
        cv.set(x, 24, "▄" if x % 10 == 5 else " ", BLACK, BROWN)
    sign = " TAMBLIN · READER "
    sx = 41 - len(sign) // 2
    cv.text(sx, 24, sign, YELLOW, BLACK)
    cv.set(sx - 1, 24, "▐", BLACK, BROWN)
    cv.set(sx + len(sign), 24, "▌", BLACK, BROWN)
    return cv


# ------------------------------------------------------------------- valley

def valley():
    cv = Canvas()
    rnd = random.Random(1994)
    px = Pixels()

    # Night sky: black above, deep blue toward the hills, shaded between.
    for y in range(1, 25):
        for x in range(1, 81):
            if y <= 5:
                cv.set(x, y, " ", GREY, BLACK)
            elif y <= 8:
                cv.set(x, y, "░▒▓"[y - 6], BLUE, BLACK)
            else:
                cv.set(x, y, " ", GREY, BLUE)

    # Crescent moon in the upper left.
    for py in range(0, 16):
        for x in range(1, 12):
            d1 = math.hypot(x - 6.0, py - 7.0)
            d2 = math.hypot(x - 7.8, py - 5.6)
            if d1 <= 4.2 and d2 > 3.7:
                px.set(x, py, YELLOW)

    # Far peaks with snow caps, then the valley's near hills.
    peaks = [(8, 25, 1.4), (1, 28, 1.0), (30, 24, 1.2), (55, 25, 1.2),
             (75, 19, 1.5), (80, 26, 1.0)]
    for x in range(1, 81):
        best, cap = 99, 0
        for cx, cy, slope in peaks:
            top = cy + abs(x - cx) * slope
            if top < best:
                best, cap = top, cy + 3
        ridge = int(round(best))
        for py in range(max(ridge, 0), 48):
            px.set(x, py, GREY if py <= cap else DGREY)
        hill = int(round(40 - 2 * math.sin(x / 6.0 + 2) - 1.2 * math.sin(x / 2.7)))
        for py in range(hill, 48):
            px.set(x, py, GREEN)

    # Pines: black tiers on a short brown trunk.
    tiers = [1, 3, 3, 5, 3, 5, 7, 5, 7, 9]

    def pine(cx, base, height):
        rows = tiers[:height]
        for k, width in enumerate(rows):
            for dx in range(-(width // 2), width // 2 + 1):
                px.set(cx + dx, base - 2 - len(rows) + k, BLACK)
        px.set(cx, base - 2, BROWN)
        px.set(cx, base - 1, BROWN)

    for cx, h in [(2, 8), (72, 10), (78, 7)]:
        top = next(py for py in range(48) if px.get(cx, py) == GREEN)
        pine(cx, top + 2, h)

    # A cabin with lit windows in the lower left.
    for py in range(40, 46):
        for x in range(5, 11):
            px.set(x, py, BLACK)
    for k, (x1, x2) in enumerate([(7, 8), (6, 9), (5, 10), (4, 11)]):
        for x in range(x1, x2 + 1):
            px.set(x, 36 + k, BROWN)
    px.set(9, 35, BROWN)
    px.set(6, 42, YELLOW)
    px.set(9, 42, YELLOW)
    px.set(6, 43, YELLOW)
    px.set(9, 43, YELLOW)

    px.render(cv, range(1, 24))

    # The river along the valley floor, with the moon in it.
    for x in range(1, 81):
        r = rnd.random()
        ch = "≈" if r < 0.35 else ("~" if r < 0.6 else " ")
        cv.set(x, 24, ch, WHITE if r < 0.08 else LCYAN, BLUE)
    cv.text(3, 24, "▄▀▄", YELLOW, BLUE)
    for x in range(1, 81):
        if x % 7 == 3 and cv.cell(x, 23)[2] == GREEN:
            cv.set(x, 23, rnd.choice(",'\""), LGREEN, None)

    cv.text(2, 10, "Tamblin", WHITE, None)
    cv.text(4, 11, "Reader", LCYAN, None)

    # Stars on clear sky only, not hard against the words.
    for y in range(1, 17):
        for x in range(1, 81):
            if BOX_X1 - 1 <= x <= BOX_X2 + 1 and y <= BOX_Y2 + 1:
                continue
            ch, fg, bg = cv.cell(x, y)
            if ch != 0x20 or bg not in (BLACK, BLUE):
                continue
            if x <= 10 and y in (10, 11):
                continue
            r = rnd.random()
            if r < 0.07:
                cv.set(x, y, "·", GREY if bg == BLACK else LBLUE, bg)
            elif r < 0.10:
                cv.set(x, y, "∙", WHITE, bg)
            elif r < 0.115:
                cv.set(x, y, "*", YELLOW if rnd.random() < 0.5 else LCYAN, bg)

    # The frame: a thin light border around the box.
    for y in range(2, 23):
        cv.set(12, y, "│", LCYAN, None)
        cv.set(69, y, "│", LCYAN, None)
    for x in range(13, 69):
        cv.set(x, 1, "─", LCYAN, None)
        cv.set(x, 23, "─", LCYAN, None)
    cv.set(12, 1, "┌", LCYAN, None)
    cv.set(69, 1, "┐", LCYAN, None)
    cv.set(12, 23, "└", LCYAN, None)
    cv.set(69, 23, "┘", LCYAN, None)
    grey_box(cv)

    cv.text(71, 1, " ∙»", LCYAN, None)
    return cv


# ------------------------------------------------------------------ console

def window(cv, x1, y1, x2, y2, title, fg, bg, double=True):
    """A framed window with its title in the top edge."""
    h, v, c = ("═", "║", "╔╗╚╝") if double else ("─", "│", "┌┐└┘")
    cv.fill(x1, y1, x2, y2, " ", fg, bg)
    for x in range(x1 + 1, x2):
        cv.set(x, y1, h, fg, bg)
        cv.set(x, y2, h, fg, bg)
    for y in range(y1 + 1, y2):
        cv.set(x1, y, v, fg, bg)
        cv.set(x2, y, v, fg, bg)
    cv.set(x1, y1, c[0], fg, bg)
    cv.set(x2, y1, c[1], fg, bg)
    cv.set(x1, y2, c[2], fg, bg)
    cv.set(x2, y2, c[3], fg, bg)
    if title:
        t = " %s " % title
        cv.text(x1 + (x2 - x1 + 1 - len(t)) // 2, y1, t, fg, bg)


def shadow(cv, x1, y1, x2, y2):
    """Darken cells: what lies there shows through in dark grey on black."""
    for y in range(y1, y2 + 1):
        for x in range(x1, x2 + 1):
            if cv.inside(x, y):
                cv.set(x, y, None, DGREY, BLACK)


def console():
    cv = Canvas()
    cv.fill(1, 1, 80, 24, "░", GREY, BLUE)

    # The main window, a light grey dialog with a shadow, title in its edge.
    window(cv, 12, 1, 69, 23, "", WHITE, GREY)
    shadow(cv, 70, 2, 71, 24)
    shadow(cv, 14, 24, 71, 24)
    cv.text(14, 1, "[", WHITE, GREY)
    cv.text(15, 1, "■", LGREEN, GREY)
    cv.text(16, 1, "]", WHITE, GREY)
    cv.text(33, 1, " Tamblin Reader ", BLACK, GREY)
    cv.text(63, 1, "[", WHITE, GREY)
    cv.text(64, 1, "═", LGREEN, GREY)
    cv.text(65, 1, "]", WHITE, GREY)
    cv.text(60, 23, " RSS ", BLACK, GREY)
    grey_box(cv)

    # A small status window on the left.
    window(cv, 1, 3, 10, 12, "Node", WHITE, BLUE)
    shadow(cv, 11, 4, 11, 13)
    shadow(cv, 3, 13, 11, 13)
    rows = [("Feed", LGREEN), ("Link", LGREEN), ("Time", YELLOW), ("Idle", LGREEN)]
    for k, (label, col) in enumerate(rows):
        cv.text(3, 5 + 2 * k, label, LCYAN, BLUE)
        cv.text(8, 5 + 2 * k, "■", col, BLUE)

    # A desktop icon: the feed symbol, drawn in half-block pixels.
    px = Pixels()
    for j in range(10):
        for i in range(10):
            d = math.hypot(i + 0.5, 9.5 - j)
            lit = d < 2.3 or 4.0 <= d < 5.6 or 7.2 <= d < 8.8
            px.set(1 + i, 2 * 14 + j, WHITE if lit else BROWN)
    px.render(cv, range(15, 20))
    cv.text(1, 20, "   Feed   ", BLACK, CYAN)

    # A key legend on the right.
    window(cv, 72, 5, 80, 14, "Keys", WHITE, CYAN, double=False)
    for k, (key, word) in enumerate([("A", "bout"), ("N", "ext"), ("P", "rev"),
                                     ("Q", "uit")]):
        cv.text(74, 7 + 2 * k, key, YELLOW, CYAN)
        cv.text(75, 7 + 2 * k, word, BLACK, CYAN)

    cv.text(70, 1, "Item", BLACK, CYAN)
    return cv


# ------------------------------------------------------------------ monitor

def monitor():
    cv = Canvas()

    # Dark wall with a faint dotted paper, the desk top along the bottom.
    for y in range(1, 23):
        for x in range(1, 81):
            dot = (x + 2 * y) % 6 == 0
            cv.set(x, y, "·" if dot else " ", DGREY, BLACK)
    for x in range(1, 81):
        cv.set(x, 23, "▄", BROWN, BLACK)
        cv.set(x, 24, "─" if x % 5 == 2 else " ", BLACK, BROWN)

    # The monitor: a light bezel with a dark rim around the screen.
    cv.fill(9, 1, 72, 24, " ", WHITE, GREY)
    for y in range(1, 25):
        cv.set(9, y, "▐", GREY, BLACK)
        cv.set(72, y, "▌", GREY, BLACK)
    for x in range(12, 70):
        cv.set(x, 1, "▄", BLACK, GREY)
        cv.set(x, 23, "▀", BLACK, GREY)
    for y in range(2, 23):
        cv.set(12, y, "▐", BLACK, GREY)
        cv.set(69, y, "▌", BLACK, GREY)
    grey_box(cv)

    # The chin: badge, vents, power lamp.
    cv.text(14, 24, "TAMBLIN", BLACK, GREY)
    cv.text(22, 24, "READER", RED, GREY)
    cv.text(31, 24, "≡≡≡≡≡≡≡≡≡≡≡≡≡≡≡≡≡≡≡≡", DGREY, GREY)
    cv.text(61, 24, "■", LGREEN, GREY)
    cv.text(63, 24, "POWER", DGREY, GREY)

    # A sticker on the wall: the modem's first words.
    cv.fill(2, 3, 7, 8, " ", LGREEN, BLACK)
    for y in range(3, 9):
        cv.set(1, y, "▐", BROWN, BLACK)
        cv.set(8, y, "▌", BROWN, BLACK)
    cv.text(1, 2, " ▄▄▄▄▄▄ ", BROWN, BLACK)
    cv.text(1, 9, " ▀▀▀▀▀▀ ", BROWN, BLACK)
    for k, (line, col) in enumerate([("ATZ", LGREEN), ("OK", GREEN), ("ATDT", LGREEN),
                                     ("RING", GREEN), ("▄", LGREEN)]):
        cv.text(2, 4 + k, line, col, BLACK)

    # A pile of floppies on the desk, two to a row in half blocks.
    disks = [BLUE, RED, GREEN, CYAN, MAGENTA, BLUE, RED, GREEN, CYAN, BROWN]
    for k in range(5):
        y = 18 + k
        x1 = 2 + (k % 2)
        for x in range(x1, x1 + 6):
            cv.set(x, y, "▀", disks[2 * k] + 8, disks[2 * k + 1])
    cv.text(2, 17, "▄▄", GREY, BLACK)

    # On the right: a sticky note, a mug on the modem.
    cv.fill(74, 3, 79, 6, " ", BLACK, BROWN)
    cv.text(74, 4, " RSS ", YELLOW, BROWN)
    cv.text(74, 5, " 4u! ", WHITE, BROWN)
    cv.set(79, 3, "▄", BLACK, BROWN)
    cv.text(75, 14, "≈ ≈", GREY, BLACK)
    cv.text(76, 15, "≈", GREY, BLACK)
    cv.text(74, 16, "▄▄▄▄", WHITE, BLACK)
    cv.text(74, 17, "BBS", RED, GREY)
    cv.text(77, 17, " ▌", WHITE, GREY)
    cv.set(78, 17, "▐", GREY, BLACK)
    cv.text(74, 18, "▀▀▀▀", GREY, BLACK)
    cv.fill(73, 19, 80, 22, " ", BLACK, GREY)
    cv.text(74, 20, "MODEM", BLACK, GREY)
    for i, col in enumerate([LRED, LGREEN, YELLOW, DGREY, LGREEN]):
        cv.text(74 + i, 21, "■", col, GREY)
    cv.text(73, 22, "▀▀▀▀▀▀▀▀", GREY, BROWN)

    cv.text(73, 1, "»", LGREEN, BLACK)
    return cv


SKINS = {
    "newsstand": newsstand,
    "valley": valley,
    "console": console,
    "monitor": monitor,
}


def render_preview(skin_path, png_path):
    """Skin plus a sample item as the door paints it, rendered to PNG."""
    with open(skin_path, "rb") as f:
        data = f.read()
    with tempfile.NamedTemporaryFile(suffix=".ans", delete=False) as t:
        t.write(data + preview.overlay())
    try:
        subprocess.run(["ansilove", "-q", "-o", png_path, t.name], check=True)
    finally:
        os.unlink(t.name)


def check_files(paths):
    bad = False
    for path in paths:
        with open(path, "rb") as f:
            problems = check(f.read())
        for p in problems:
            print("%s: %s" % (path, p), file=sys.stderr)
        bad = bad or bool(problems)
    return bad


def main(argv):
    here = os.path.dirname(os.path.abspath(__file__))
    skin_dir = os.path.dirname(here)
    args = argv[1:]
    if args[:1] == ["--check"]:
        return 1 if check_files(args[1:]) else 0
    preview_dir, only = None, []
    if args[:1] == ["--preview"] and len(args) >= 2:
        preview_dir, only = args[1], args[2:]
    elif args:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    written = []
    for name, draw in SKINS.items():
        path = os.path.join(skin_dir, name + ".ans")
        with open(path, "wb") as f:
            f.write(encode(draw()))
        written.append(path)
        print("%s: %d bytes" % (path, os.path.getsize(path)))
    bad = check_files(written)
    if preview_dir:
        os.makedirs(preview_dir, exist_ok=True)
        for path in only or sorted(
                os.path.join(skin_dir, n) for n in os.listdir(skin_dir)
                if n.endswith(".ans")):
            name = os.path.splitext(os.path.basename(path))[0]
            png = os.path.join(preview_dir, "skin-%s.png" % name)
            render_preview(path, png)
            print("  preview %s" % png)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
