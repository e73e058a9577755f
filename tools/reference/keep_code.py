#!/usr/bin/env python3
"""Doxygen's input filter: writes a header to standard output with its code spans out of harm's way.

Doxygen reads percent signs, quotes, angle brackets and backslashes inside `code` as commands of its
own. They are exchanged for characters of a private range here, and taken back by restore().
"""
import re
import sys

PRIVATE = 0xE000
SPAN = re.compile(r"(``?)(?!`)(.+?)(?<!`)\1(?!`)", re.DOTALL)
COMMENT = re.compile(r"/\*\*.*?\*/", re.DOTALL)
LINE_START = re.compile(r"(\n *\* *)")


def hide(text: str) -> str:
    return "".join(
        chr(PRIVATE + ord(c)) if c.isascii() and not c.isalnum() and c not in "_ \n" else c
        for c in text
    )


def restore(text: str) -> str:
    return "".join(chr(ord(c) - PRIVATE) if PRIVATE <= ord(c) < PRIVATE + 128 else c for c in text)


def keep_span(span: re.Match[str]) -> str:
    parts = LINE_START.split(span[2])
    return "`" + "".join(part if i % 2 else hide(part) for i, part in enumerate(parts)) + "`"


def keep_code(header: str) -> str:
    def keep_comment(comment: re.Match[str]) -> str:
        text = SPAN.sub(keep_span, comment[0])
        return text.replace("%", hide("%"))

    return COMMENT.sub(keep_comment, header)


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as file:
        sys.stdout.write(keep_code(file.read()))
