"""How the headers' terse words become the sentences of a page; the same for man and HTML."""
import re
from dataclasses import dataclass
from pathlib import Path

from log_lines import read_intro
from model import Blocks, Family, Member, Spans

ABBREVIATION = re.compile(r"^(?:[A-Z][A-Z0-9]|Base64|I\b)")


def plain_text(spans: Spans) -> str:
    return "".join(text for _, text in spans)


def with_first(spans: Spans, change) -> Spans:
    if spans and spans[0][0] == "text":
        first = spans[0][1]
        return [("text", change(first[:1]) + first[1:]), *spans[1:]]
    return spans


def capitalised(blocks: Blocks) -> Blocks:
    if blocks and blocks[0][0] == "para":
        return [("para", with_first(blocks[0][1], str.upper)), *blocks[1:]]
    return blocks


def description(brief: Spans, detail: Blocks) -> Blocks:
    """Doxygen cuts the first sentence off; here it goes back to its paragraph."""
    if not brief:
        return detail
    if detail and detail[0][0] == "para":
        return [("para", [*brief, ("text", " "), *detail[0][1]]), *detail[1:]]
    return [("para", brief), *detail]


def summary(member_brief: Spans) -> str:
    """The words of a NAME section: no capital, no full stop."""
    text = plain_text(member_brief).strip()
    if text.endswith("."):
        text = text[:-1]
    return text if ABBREVIATION.match(text) else text[:1].lower() + text[1:]


def errno_sentence(blocks: Blocks) -> Blocks:
    """@errno kept. -> errno is kept."""
    if not blocks or blocks[0][0] != "para" or blocks[0][1][0][0] != "text":
        return blocks
    spans = blocks[0][1]
    text = spans[0][1]
    if re.match(r"(kept|as |of no meaning|untouched)", text):
        lead = " is "
    elif text.startswith("of "):
        lead = " is that "
    else:
        return blocks
    return [("para", [("code", "errno"), ("text", lead + text), *spans[1:]]), *blocks[1:]]


def log_items(blocks: Blocks) -> list[Spans]:
    """The lines of an @log text one by one: it separates them by semicolons and full stops."""
    items: list[Spans] = [[]]
    depth = 0
    for kind, text in blocks[0][1] if blocks and blocks[0][0] == "para" else []:
        if kind != "text":
            items[-1].append((kind, text))
            continue
        start = 0
        for i, c in enumerate(text):
            depth += (c == "(") - (c == ")")
            stop = c == "." and re.match(r" [A-Z]", text[i + 1 : i + 3])
            if depth == 0 and (c == ";" or stop):
                items[-1].append(("text", text[start:i]))
                items.append([])
                start = i + 1
        items[-1].append(("text", text[start:]))
    return [tidy(item) for item in items if plain_text(item).strip(" .")]


def tidy(item: Spans) -> Spans:
    spans = [span for span in item if span[1]]
    if spans[0][0] == "text":
        spans[0] = ("text", spans[0][1].lstrip())
    if spans[-1][0] == "text":
        spans[-1] = ("text", spans[-1][1].rstrip(" ."))
    return [span for span in spans if span[1]]


def logs_nothing(member: Member) -> bool:
    blocks = member.fields.get("log", [])
    return bool(blocks) and plain_text(blocks[0][1]) in ("none.", "nothing.")


def signature(member: Member) -> list[str]:
    """A prototype in lines of at most 72 characters; {name} stands for a parameter."""
    if member.kind == "macro":
        return [f"{member.name}({', '.join('{%s}' % name for _, name in member.arguments)})"]
    if member.kind == "object":
        return [f"extern {member.type} {member.name};"]
    space = "" if member.type.endswith("*") else " "
    head = f"{member.type}{space}{member.name}("
    arguments = [
        kind % ("{%s}" % name) if name != "..." else "..." for kind, name in member.arguments
    ] or ["void"]
    lines, line = [], head
    for i, argument in enumerate(arguments):
        piece = argument + (");" if i == len(arguments) - 1 else ",")
        glue = "" if line.endswith("(") or not line.strip() else " "
        shown = (line + glue + piece).replace("{", "").replace("}", "")
        if len(shown) > 72 and line.strip() and not line.endswith("("):
            lines.append(line)
            line, glue = " " * (len(head) if len(head) < 40 else 4), ""
        line += glue + piece
    return [*lines, line]


def callback_type(member: Member) -> str:
    text = re.sub(r"\(\* (\w+)\) ", r"(*\1)", member.type)
    return re.sub(r"^(typedef \w+)\(", r"\1 (", text) + ";"


@dataclass
class Group:
    name: str
    brief: str
    families: list[Family]


@dataclass
class Front:
    """docs/reference.txt: what stands before the pages, and their order."""

    title: str
    intro: Blocks
    groups: list[Group]


def read_front(path: Path, families: list[Family]) -> Front:
    by_header = {family.header: family for family in families}
    head, *parts = re.split(r"^== (.*)$", path.read_text(encoding="utf-8"), flags=re.M)
    title, _, intro = head.partition("\n")
    groups = []
    for name, body in zip(parts[::2], parts[1::2]):
        brief, headers = body.strip().splitlines()
        groups.append(Group(name.strip(), brief, [by_header.pop(h) for h in headers.split()]))
    if by_header:
        raise ValueError(f"{path} puts these headers into no group: {', '.join(by_header)}")
    return Front(title.strip(), read_intro(intro), groups)
