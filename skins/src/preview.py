"""What the door paints over a skin, as ANSI bytes, for preview pictures.

It follows the item view of the reader with its preset colours: the text box
cleared to light grey, a title centred from row 3, the date two rows below,
the wrapped body from column 14, the counter at row 1 column 74 and the
command line centred on row 25.
"""

from skinlib import ESC, _sgr

SAMPLE_TITLE = "Node 4 comes back after the great modem fire"
SAMPLE_DATE = "Mon, 23 Nov 2026 08:15:00 +0000"
SAMPLE_BODY = (
    "After three weeks on the shelf, Node 4 of the Lantern Hollow BBS answers "
    "the phone again.\n"
    "Sysop Marguerite \"Mags\" Olsson found the culprit: a 14.4 modem that had "
    "been sitting on top of the space heater since 1994. \"It smelled like "
    "toast for a month,\" she said. The replacement is a rack of four modems "
    "donated by a reader in Ontario.\n"
    "Callers who lost their place in the door games will find their scores "
    "restored from the Sunday backup. Anyone still missing gold in the tavern "
    "should leave a note for the sysop."
)
COMMANDS = "[A]bout   [N]ext   [P]revious   [Q]uit"


def word_wrap(s, width):
    lines, line, j = [], "", 0
    while j < len(s):
        word = ""
        while j < len(s) and ord(s[j]) > 0x20:
            word += s[j]
            j += 1
        while j < len(s) and ord(s[j]) <= 0x20 and s[j] not in "\r\n":
            word += s[j]
            j += 1
        if len(word) + len(line) > width and line:
            lines.append(line)
            line = ""
        line += word
        if j < len(s) and s[j] in "\r\n":
            if line:
                lines.append(line)
            line = ""
            while j < len(s) and s[j] in "\r\n":
                j += 1
    if line:
        lines.append(line)
    return lines


def _at(x, y):
    return ESC + b"[%d;%dH" % (y, x)


def _centred(y, s):
    return _at((82 - len(s)) // 2, y) + s.encode("ascii")


def overlay(index=2, total=12, box_bg=7, title_fg=15, date_fg=11, body_fg=14,
            command_fg=14, page_fg=15, page_bg=1):
    out = b""
    out += _sgr(7, box_bg)
    for y in range(2, 23):
        out += _at(13, y) + b" " * 56
    y = 3
    out += _sgr(title_fg, box_bg)
    for line in word_wrap(SAMPLE_TITLE, 54)[:2]:
        out += _centred(y, line.strip())
        y += 1
    y += 1
    out += _sgr(date_fg, box_bg) + _centred(y, SAMPLE_DATE)
    y += 2
    out += _sgr(body_fg, box_bg)
    for line in word_wrap(SAMPLE_BODY, 55)[:16]:
        out += _at(14, y) + line.lstrip()[:54].encode("ascii")
        y += 1
    out += _sgr(7, box_bg) + _at(74, 1) + b" " * 7
    n = index + 1
    counter = ("(0%d/%d)" if n < 10 else "(%d/%d)") % (n, total)
    out += _at(74, 1) + _sgr(page_fg, page_bg) + counter.encode("ascii")
    out += _sgr(command_fg, 0) + _centred(25, COMMANDS)
    return out + ESC + b"[0m"
