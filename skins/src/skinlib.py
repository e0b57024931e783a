"""Canvas, encoder and checker for Tamblin Reader skins.

A skin is drawn on an 80x25 grid of cells (CP437 byte, foreground 0-15,
background 0-7) and written out as an ANSI file that the door can send line by
line without ever making the caller's screen scroll: every row starts with an
explicit cursor position, no line ever reaches column 80 before its line end,
and the file stops on row 24 with no line end at all. The checker replays a
file the way the door sends it and refuses anything that would break a
caller's screen or be eaten as a colour code on the way.
"""

import re

W, H = 80, 25

# The text box that the door clears on every item, and the other cells the
# door paints over the skin. Inclusive, 1-based.
BOX_X1, BOX_Y1, BOX_X2, BOX_Y2 = 13, 2, 68, 22
COUNTER_X, COUNTER_Y = 74, 1
COMMAND_Y = 25

ESC = b"\x1b"

# PC colour number -> ANSI colour digit.
_ANSI = [0, 4, 2, 6, 1, 5, 3, 7]


def enc(text):
    """Text in Unicode drawing characters -> CP437 bytes."""
    if isinstance(text, bytes):
        return text
    return text.encode("cp437")


class Canvas:
    def __init__(self):
        # rows[y][x], 1-based; index 0 unused.
        self.rows = [[(0x20, 7, 0) for _ in range(W + 1)] for _ in range(H + 1)]

    def inside(self, x, y):
        return 1 <= x <= W and 1 <= y <= H

    def cell(self, x, y):
        return self.rows[y][x]

    def set(self, x, y, ch, fg=None, bg=None):
        """One cell; fg/bg None keep what is there."""
        if not self.inside(x, y):
            return
        och, ofg, obg = self.rows[y][x]
        if isinstance(ch, str):
            ch = enc(ch)[0]
        self.rows[y][x] = (
            och if ch is None else ch,
            ofg if fg is None else fg,
            obg if bg is None else bg,
        )

    def text(self, x, y, s, fg=None, bg=None):
        for i, b in enumerate(enc(s)):
            self.set(x + i, y, b, fg, bg)

    def fill(self, x1, y1, x2, y2, ch=" ", fg=None, bg=None):
        for y in range(y1, y2 + 1):
            for x in range(x1, x2 + 1):
                self.set(x, y, ch, fg, bg)

    def sprite(self, x, y, lines, palette):
        """Draw lines of key letters; palette maps a key to (char, fg, bg).

        A key missing from the palette (a blank, usually) leaves the cell
        alone, so sprites can have holes."""
        for dy, line in enumerate(lines):
            for dx, key in enumerate(line):
                if key in palette:
                    ch, fg, bg = palette[key]
                    self.set(x + dx, y + dy, ch, fg, bg)

    def box_area(self):
        """Cells of the text box, for a skin that wants them filled."""
        for y in range(BOX_Y1, BOX_Y2 + 1):
            for x in range(BOX_X1, BOX_X2 + 1):
                yield x, y


class Pixels:
    """Half-block pixel layer: 80 columns x 50 pixel rows, two per text row.

    Colours are PC colours 0-15 or None (leave the cell alone). Rendering
    picks upper/lower half blocks so that a dark colour sits in the
    background; where both halves are bright the lower one is dimmed."""

    def __init__(self):
        self.p = [[None] * (W + 1) for _ in range(2 * H + 2)]

    def set(self, x, py, c):
        if 1 <= x <= W and 0 <= py < 2 * H:
            self.p[py][x] = c

    def get(self, x, py):
        if 1 <= x <= W and 0 <= py < 2 * H:
            return self.p[py][x]
        return None

    def render(self, cv, rows=range(1, H + 1)):
        for y in rows:
            for x in range(1, W + 1):
                t, b = self.p[2 * (y - 1)][x], self.p[2 * (y - 1) + 1][x]
                if t is None and b is None:
                    continue
                # A half left unset shows what the cell had behind it.
                under = cv.cell(x, y)[2]
                if t is None:
                    t = under
                if b is None:
                    b = under
                if t == b:
                    if t < 8:
                        cv.set(x, y, " ", 7, t)
                    else:
                        cv.set(x, y, "█", t, 0)
                elif b < 8:
                    cv.set(x, y, "▀", t, b)
                elif t < 8:
                    cv.set(x, y, "▄", b, t)
                else:
                    cv.set(x, y, "▀", t, b - 8)


def _sgr(fg, bg):
    parts = ["0"]
    if fg >= 8:
        parts.append("1")
    parts.append(str(30 + _ANSI[fg & 7]))
    parts.append(str(40 + _ANSI[bg & 7]))
    return ESC + b"[" + ";".join(parts).encode() + b"m"


def _goto(x, y):
    return ESC + b"[%d;%dH" % (y, x)


def encode(cv, last_row=24):
    """Canvas -> skin bytes.

    Rows 1..last_row, one file line each, joined by CR LF, the last one
    without a line end. Column 80 of a row is written first, before the row
    is positioned again at column 1, so that no line reaches column 80 just
    before its line end; a terminal that wraps at once is put right by the
    next cursor position. The file ends on a reset so that any text the door
    prints before the first item comes out plain."""
    out = []
    for y in range(1, last_row + 1):
        line = b""
        cur = None
        if y == 1:
            line += ESC + b"[0m" + ESC + b"[2J"
        ch, fg, bg = cv.cell(W, y)
        if (ch, bg) != (0x20, 0):
            line += _goto(W, y) + _sgr(fg, bg) + bytes([ch])
            cur = (fg, bg)
        line += _goto(1, y)
        # Trailing blank black cells need no bytes: the clear has made them.
        end = W - 1
        while end >= 1 and cv.cell(end, y)[0] == 0x20 and cv.cell(end, y)[2] == 0:
            end -= 1
        for x in range(1, end + 1):
            ch, fg, bg = cv.cell(x, y)
            if ch == 0x20 or ch == 0xDB:
                # A blank shows only its background, a full block only its
                # foreground: keep the current colours where that suffices.
                if cur is not None and ch == 0x20 and cur[1] == bg:
                    line += b" "
                    continue
                if cur is not None and ch == 0xDB and cur[0] == fg:
                    line += bytes([ch])
                    continue
            if cur != (fg, bg):
                line += _sgr(fg, bg)
                cur = (fg, bg)
            line += bytes([ch])
        if y == last_row:
            line += ESC + b"[0m"
        out.append(line)
    return b"\r\n".join(out)


_PIPE = re.compile(rb"\|[0-9A-Fa-f]{2}")
_CSI = re.compile(rb"\x1b\[([0-9;]*)([A-Za-z])")


def check(data):
    """Problems of a skin file as a list of texts; empty when it is safe."""
    problems = []
    if _PIPE.search(data):
        problems.append("contains a pipe colour code")
    if b"|" in data:
        problems.append("contains a '|' byte")
    if b"`" in data:
        problems.append("contains a backtick")
    if b"\x1a" in data:
        problems.append("contains byte 0x1A (SAUCE or EOF mark)")
    if b"\xff" in data:
        problems.append("contains byte 0xFF (doubled on telnet)")
    if data.endswith(b"\r") or data.endswith(b"\n"):
        problems.append("ends with a line end")
    # Replay the lines as the door sends them: each followed by CR LF except
    # the last, on a terminal that wraps at once after column 80.
    lines = re.split(rb"\r\n|\r|\n", data)
    x, y = 1, 1
    at_edge = False  # the last byte printed went into column 80
    for n, line in enumerate(lines, 1):
        i = 0
        while i < len(line):
            b = line[i]
            if b == 0x1B:
                m = _CSI.match(line, i)
                if not m:
                    problems.append("line %d: bad escape" % n)
                    break
                args, cmd = m.group(1), m.group(2)
                if cmd in (b"H", b"f"):
                    nums = [int(a) if a else 1 for a in args.split(b";")]
                    y = max(nums[0], 1)
                    x = max(nums[1], 1) if len(nums) > 1 else 1
                    at_edge = False
                elif cmd not in (b"m", b"J"):
                    problems.append("line %d: unexpected sequence %r" % (n, m.group(0)))
                i = m.end()
                continue
            if b < 0x20:
                problems.append("line %d: control byte 0x%02X" % (n, b))
            if y >= H:
                problems.append("line %d: draws on row %d" % (n, y))
            at_edge = x == W
            x += 1
            if x > W:
                x = 1
                y += 1
            i += 1
        if n < len(lines):
            if at_edge:
                problems.append("line %d: reaches column 80 before its line end" % n)
            at_edge = False
            x = 1
            y += 1
            if y >= H:
                problems.append("line %d: line end reaches row %d" % (n, y))
    return problems
