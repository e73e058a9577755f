"""The catalogue of log lines (docs/log-lines.txt), and what the headers say about them.

Behind its introduction the catalogue is made of groups ("== name") of stanzas. A stanza has a line
(the text of the format behind its prefix), its kind (see PREFIXES), the values in it, the functions
that write it, what it means and what to do. That of a check has a row for each operand instead:

    operand: text | functions | meaning | action, unless the stanza has one for all of its rows

A function is named as the line names it. Where a daemon may have called another one, all exported
functions that it may have called follow, the named one only if it is among them: "lh_close for
lh_close lh_poll_ctx_close_all", "create_file for lh_inotify_include_file lh_vrrp_info_init". One
line may have several stanzas.
"""
import re
from dataclasses import dataclass, field
from pathlib import Path

# What stands before the text of a line, by the catalogue's word for its kind.
PREFIXES = {
    "error": "<%s(%lu):%s:%d> ",
    "early error": "<%s:%d> ",
    "early debug": "<%s:%d> ",
    "INOTIFY_DBG <%s>": "%%%s-%s-%s: <%s(%lu)> <%s> ",
    "INOTIFY_DBG <%s:%d>": "%%%s-%s-%s: <%s(%lu)> <%s:%d> ",
    "VRRP_DBG <%s>": "%%%s-%s-%s: <%s(%lu)> <%s> ",
    "VRRP_DBG <%s:%d>": "%%%s-%s-%s: <%s(%lu)> <%s:%d> ",
    "VRRP_DBG": "%%%s-%s-%s: <%s(%lu)> ",
}
KEYS = ("line", "kind", "values", "function", "operand", "meaning", "action")
EXAMPLE_PREFIX = re.compile(r"^<mydaemon\(1234\):\w+:\d+> ")


@dataclass
class Source:
    """The function that a line names, and the exported ones that the daemon may have called."""

    shown: str
    spoken_for: list[str]

    @property
    def is_alone(self) -> bool:
        return self.spoken_for == [self.shown]


@dataclass
class Line:
    """One line: for a check, one operand of it."""

    template: str  # as in the source, without its prefix
    kind: str
    operand: str
    values: str
    sources: list[Source]
    meaning: str
    action: str
    group: str

    @property
    def format(self) -> str:
        return PREFIXES[self.kind] + self.template

    @property
    def text(self) -> str:
        return self.template.replace("%s", self.operand, 1) if self.operand else self.template

    @property
    def functions(self) -> list[str]:
        return [name for source in self.sources for name in source.spoken_for]

    def is_said_by(self, span: str) -> bool:
        """Is it the line that a header's words show, with values or their conversions?"""
        span = EXAMPLE_PREFIX.sub("", span)
        shown = [self.text.replace("<%s>", f"<{source.shown}>") for source in self.sources]
        if span in (self.text, self.template, self.format, *shown):
            return True
        pieces = re.split(r"(%l[du])", self.text)
        pattern = "".join(
            rf"(?:-?\d+|{piece})" if i % 2 else re.escape(piece) for i, piece in enumerate(pieces)
        )
        return re.fullmatch(pattern, span) is not None


@dataclass
class Catalogue:
    title: str
    intro: list[tuple]  # blocks
    lines: list[Line] = field(default_factory=list)

    @property
    def groups(self) -> list[str]:
        return list(dict.fromkeys(line.group for line in self.lines))


class CatalogueError(Exception):
    pass


# The catalogue ----------------------------------------------------------------------------------


def read_sources(text: str) -> list[Source]:
    """`a, b for c d`: a speaks for itself, b for c and d."""
    sources = []
    for item in text.split(","):
        shown, *others = item.split()
        if others and (others[0] != "for" or others[1:] in ([], [shown])):
            raise CatalogueError(f"nobody to speak for: {item.strip()}")
        sources.append(Source(shown, others[1:] or [shown]))
    return sources


def read_operand(row: str, common: dict[str, str], action: str) -> Line:
    operand, functions, meaning, *own_action = (part.strip() for part in row.split(" | "))
    if not own_action and not action:
        raise CatalogueError(f"{common['template']}: {operand}: no action")
    return Line(
        operand=operand,
        sources=read_sources(functions),
        meaning=meaning,
        action=own_action[0] if own_action else action,
        **common,
    )


def read_stanza(entries: list[tuple[str, str]], group: str) -> list[Line]:
    single = {key: text for key, text in entries if key != "operand"}
    operands = [text for key, text in entries if key == "operand"]
    wanted = ("line", "kind") + (() if operands else ("function", "meaning", "action"))
    missing = [key for key in wanted if not single.get(key)]
    if missing:
        raise CatalogueError(f"{single.get('line')}: no {', '.join(missing)}")
    if single["kind"] not in PREFIXES:
        raise CatalogueError(f"{single['line']}: there is no kind {single['kind']}")
    common = {
        "template": single["line"],
        "kind": single["kind"],
        "values": single.get("values", ""),
        "group": group,
    }
    if operands:
        return [read_operand(row, common, single.get("action", "")) for row in operands]
    sources = read_sources(single["function"])
    meaning, action = single["meaning"], single["action"]
    return [Line(operand="", sources=sources, meaning=meaning, action=action, **common)]


def read_intro(text: str) -> list[tuple]:
    blocks = []
    for paragraph in re.split(r"\n\s*\n", text.strip("\n")):
        if paragraph.startswith("    "):
            blocks.append(("code", re.sub(r"^    ", "", paragraph, flags=re.M)))
        else:
            words = re.split(r"`([^`]*)`", " ".join(paragraph.split()))
            kinds = ("text", "code")
            blocks.append(("para", [(kinds[i % 2], word) for i, word in enumerate(words) if word]))
    return blocks


def read_catalogue(path: Path) -> Catalogue:
    head, *parts = re.split(r"^== (.*)$", path.read_text(encoding="utf-8"), flags=re.M)
    title, _, intro = head.partition("\n")
    catalogue = Catalogue(title.strip(), read_intro(intro))
    for group, body in zip(parts[::2], parts[1::2]):
        for stanza in re.split(r"\n\s*\n", body.strip("\n")):
            entries: list[tuple[str, str]] = []
            for row in stanza.splitlines():
                key, _, text = row.partition(":")
                if row.startswith(" ") and entries:
                    entries[-1] = (entries[-1][0], f"{entries[-1][1]} {row.strip()}")
                elif key in KEYS:
                    entries.append((key, text.strip()))
                else:
                    raise CatalogueError(f"not understood: {row}")
            catalogue.lines += read_stanza(entries, group.strip())
    return catalogue


# The headers ------------------------------------------------------------------------------------


@dataclass
class Promise:
    """What a function's comment says about its lines, and about errno behind them."""

    function: str
    header: str
    parameters: list[str]
    spans: list[str]  # the words in code type
    referred: list[str]  # functions whose lines may come, too
    errno: str


PARAMETER = re.compile(r"\b(\w+)(?:\[\w*\])*(?=[,)])")
COMMENT = re.compile(r"/\*\*((?:(?!\*/).)*)\*/\s*((?:(?!/\*)[^;])*;)", re.DOTALL)
FIELD = re.compile(r"^@(errno|log)\s+(.*?)(?=\n@|\Z)", re.DOTALL | re.MULTILINE)
# lh_bf.h says once what each of its functions checks.
BIT_FIELD = "the lines about a record that is not valid"
BIT_FIELD_LINES = [
    "PTR_IS_NULL: {0}",
    "PTR_IS_NULL: ({0})->base",
    "IS_EQ check failed: ({0})->size (0 == 0) !!!",
]


def promise_of(header: str, comment: str, declaration: str) -> Promise | None:
    name = re.search(r"(\w+)\s*\(", declaration)
    text = re.sub(r"^ *\* ?", "", comment, flags=re.M)
    fields = {key: " ".join(words.split()) for key, words in FIELD.findall(text)}
    if not name or "log" not in fields or "typedef" in declaration:
        return None
    words = fields["log"]
    spans = re.findall(r"`([^`]*)`", words)
    if BIT_FIELD in words:
        for record in ("dst", "src") if name[1] == "lh_bf_and" else ("bf",):
            spans += [line.format(record) for line in BIT_FIELD_LINES]
        spans = [span for span in spans if not span.endswith("...")]
    referred = re.findall(r"\b(\w+)\(\)", re.sub(r"`[^`]*`", "", words))
    parameters = PARAMETER.findall(declaration)
    return Promise(name[1], header, parameters, spans, referred, fields.get("errno", ""))


def read_promises(include: Path) -> dict[str, Promise]:
    promises = {}
    for path in sorted(include.glob("*.h")):
        if path.name == "lh_check.h":
            continue  # the checks log what their callers say
        for comment, declaration in COMMENT.findall(path.read_text(encoding="utf-8")):
            promise = promise_of(path.name, comment, declaration)
            if promise:
                promises[promise.function] = promise
    return promises


def referred_to(promise: Promise, promises: dict[str, Promise]) -> set[str]:
    """The functions whose lines a comment refers to, and those that they refer to."""
    found: set[str] = set()
    waiting = list(promise.referred)
    while waiting:
        name = waiting.pop()
        if name not in found and name in promises:
            found.add(name)
            waiting += promises[name].referred
    return found
