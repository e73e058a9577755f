"""The public headers as Doxygen's XML tells them: families, their members, and their texts.

A text is a list of blocks, a block's words a list of spans. Both are plain tuples:

    ("para", spans)  ("code", text)  ("list", [blocks, ...])  ("table", [[spans, ...], ...])
    ("text", text)   ("code", text)  ("strong", text)
"""
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass, field
from pathlib import Path

from keep_code import restore

Spans = list[tuple]
Blocks = list[tuple]
BLOCK_TAGS = {"programlisting", "verbatim", "itemizedlist", "table", "simplesect", "parameterlist"}
CONTRACT = ("return", "errno", "log", "blocking", "threads")


@dataclass
class Member:
    """A function, macro, data object, callback type, record, enumeration or constant."""

    kind: str
    name: str
    line: int
    type: str = ""
    arguments: list[tuple[str, str]] = field(
        default_factory=list
    )  # type with %s for the name; name
    brief: Spans = field(default_factory=list)
    detail: Blocks = field(default_factory=list)
    params: list[tuple[str, Blocks]] = field(default_factory=list)
    fields: dict[str, Blocks] = field(default_factory=dict)  # by name, those of CONTRACT
    notes: list[Blocks] = field(default_factory=list)
    parts: list["Member"] = field(default_factory=list)  # of a record or an enumeration
    value: str = ""


@dataclass
class Family:
    header: str
    brief: Spans
    detail: Blocks
    members: list[Member]

    @property
    def name(self) -> str:
        return self.header.removesuffix(".h")

    def of_kind(self, *kinds: str) -> list[Member]:
        return [member for member in self.members if member.kind in kinds]

    def titled(self) -> list[tuple[str, list[Member]]]:
        """What the family has of each kind, below the kind's title."""
        kinds = {"Macros": "macro", "Functions": "function", "Data objects": "object"}
        return [(title, self.of_kind(kind)) for title, kind in kinds.items() if self.of_kind(kind)]

    @property
    def pages(self) -> list[Member]:
        """What has a page of its own."""
        return self.of_kind("function", "macro", "object")

    @property
    def types(self) -> list[Member]:
        return self.of_kind("callback", "record", "enum")


# Reading ----------------------------------------------------------------------------------------


def plain(element: ElementTree.Element | None) -> str:
    return restore("".join(element.itertext())) if element is not None else ""


def squeeze(text: str) -> str:
    return re.sub(r"\s+", " ", restore(text))


def code_of(listing: ElementTree.Element) -> str:
    def line_text(element: ElementTree.Element) -> str:
        text = " " if element.tag == "sp" else (element.text or "")
        return text + "".join(line_text(child) + (child.tail or "") for child in element)

    lines = [line_text(line) for line in listing.findall("codeline")]
    return restore("\n".join(lines).strip("\n"))


def spans_of(element: ElementTree.Element) -> Spans:
    """The words of a paragraph that holds no block."""
    spans: Spans = []

    def add(kind: str, text: str) -> None:
        if text:
            spans.append((kind, squeeze(text)))

    add("text", element.text or "")
    for child in element:
        kinds = {"computeroutput": "code", "bold": "strong", "emphasis": "strong", "ref": "text"}
        if child.tag not in kinds:
            raise ValueError(f"a text holds <{child.tag}>, which no page can show yet")
        text = "".join(child.itertext())
        if child.tag == "ref" and "::" in text:  # a field of a record
            add("code", text.rpartition("::")[2])
        else:
            add(kinds[child.tag], text)
        add("text", child.tail or "")
    return trimmed(spans)


def trimmed(spans: Spans) -> Spans:
    if spans and spans[0][0] == "text":
        spans[0] = ("text", spans[0][1].lstrip())
    if spans and spans[-1][0] == "text":
        spans[-1] = ("text", spans[-1][1].rstrip())
    return [span for span in spans if span[1]]


def block_of(element: ElementTree.Element) -> Blocks:
    if element.tag == "programlisting":
        return [("code", code_of(element))]
    if element.tag == "verbatim":
        return [("code", plain(element).strip("\n"))]
    if element.tag == "itemizedlist":
        return [("list", [blocks_of(item) for item in element.findall("listitem")])]
    if element.tag == "table":
        rows = [[spans_of(para) for para in row.iter("para")] for row in element.findall("row")]
        return [("table", rows)]
    return []  # the contract's fields are read by themselves


def blocks_of(element: ElementTree.Element | None) -> Blocks:
    """The paragraphs of a description. Doxygen nests other blocks in them; here they follow."""
    blocks: Blocks = []
    for para in element.findall("para") if element is not None else []:
        rest = ElementTree.Element("para")
        rest.text = para.text

        def flush() -> None:
            spans = spans_of(rest)
            if spans:
                blocks.append(("para", spans))

        for child in para:
            if child.tag not in BLOCK_TAGS:
                rest.append(child)
                continue
            flush()
            blocks.extend(block_of(child))
            rest = ElementTree.Element("para")
            rest.text = child.tail
        flush()
    return blocks


def brief_of(element: ElementTree.Element) -> Spans:
    blocks = blocks_of(element.find("briefdescription"))
    return blocks[0][1] if blocks else []


def read_contract(member: Member, element: ElementTree.Element) -> None:
    detail = element.find("detaileddescription")
    if detail is None:
        return
    member.detail = blocks_of(detail)
    for item in detail.iter("parameteritem"):
        description = blocks_of(item.find("parameterdescription"))
        member.params.append((plain(item.find(".//parametername")), description))
    for section in detail.iter("simplesect"):
        kind = section.get("kind", "")
        if kind == "note":
            member.notes.append(blocks_of(section))
        elif kind == "par":
            member.fields[plain(section.find("title")).lower()] = blocks_of(section)
        else:
            member.fields[kind] = blocks_of(section)


def arguments_of(element: ElementTree.Element) -> list[tuple[str, str]]:
    arguments = []
    for param in element.findall("param"):
        kind = squeeze(plain(param.find("type"))).strip()
        name = plain(param.find("declname")) or plain(param.find("defname"))
        if kind == "void" and not name:
            continue
        if kind == "...":
            kind, name = "", "..."
        if "(*" in kind or not kind:
            arguments.append((kind + "%s", name))
        else:
            array = plain(param.find("array"))
            arguments.append((kind + ("" if kind.endswith("*") else " ") + "%s" + array, name))
    return arguments


KINDS = {
    "function": "function",
    "define": "macro",
    "variable": "object",
    "typedef": "callback",
    "enum": "enum",
}


def member_of(element: ElementTree.Element) -> Member:
    location = element.find("location")
    member = Member(
        kind=KINDS[element.get("kind", "")],
        name=plain(element.find("name")),
        line=int(location.get("line", "0")) if location is not None else 0,
        type=squeeze(plain(element.find("type"))),
        brief=brief_of(element),
        value=squeeze(plain(element.find("initializer"))).strip().removeprefix("= "),
    )
    member.arguments = arguments_of(element)
    if member.kind == "callback":
        member.type = squeeze(plain(element.find("definition")))
        member.value = plain(element.find("argsstring"))
        if "(*" not in member.type:
            member.kind = "record"  # one that callers do not look into
    if member.kind == "macro" and not element.findall("param"):
        member.kind = "constant"
    if member.kind == "enum":
        member.parts = [
            Member(
                "constant",
                plain(value.find("name")),
                member.line,
                brief=brief_of(value),
                detail=blocks_of(value.find("detaileddescription")),
                value=plain(value.find("initializer")).removeprefix("= "),
            )
            for value in element.findall("enumvalue")
        ]
    read_contract(member, element)
    return member


def record_of(compound: ElementTree.Element) -> Member:
    location = compound.find("location")
    record = Member(
        kind="record",
        name=plain(compound.find("compoundname")),
        line=int(location.get("line", "0")) if location is not None else 0,
        brief=brief_of(compound),
        detail=blocks_of(compound.find("detaileddescription")),
    )
    for element in compound.iter("memberdef"):
        part = member_of(element)
        part.value = plain(element.find("argsstring"))
        record.parts.append(part)
    return record


def read_families(xml: Path) -> list[Family]:
    records: dict[str, list[Member]] = {}
    for path in xml.glob("struct*.xml"):
        compound = ElementTree.parse(path).getroot().find("compounddef")
        file = compound.find("location").get("file")
        records.setdefault(Path(file).name, []).append(record_of(compound))
    families = []
    for path in xml.glob("*_8h.xml"):
        compound = ElementTree.parse(path).getroot().find("compounddef")
        header = plain(compound.find("compoundname"))
        members = [member_of(element) for element in compound.iter("memberdef")]
        known = {record.name for record in records.get(header, [])}
        members = [member for member in members if member.name not in known]
        members += records.get(header, [])
        members.sort(key=lambda member: member.line)
        detail = blocks_of(compound.find("detaileddescription"))
        families.append(Family(header, brief_of(compound), detail, members))
    return sorted(families, key=lambda family: family.header)


def run_doxygen(source: Path, output: Path, program: str = "doxygen") -> Path:
    """Writes the XML; raises CalledProcessError where anything public is undocumented."""
    here = Path(__file__).resolve().parent
    settings = (here / "Doxyfile").read_text() + (
        f'INPUT = "{source}/include"\n'
        f'INPUT_FILTER = "\'{sys.executable}\' \'{here}/keep_code.py\'"\n'
        f'OUTPUT_DIRECTORY = "{output}"\n'
        f'STRIP_FROM_PATH = "{source}"\n'
    )
    output.mkdir(parents=True, exist_ok=True)
    subprocess.run([program, "-"], input=settings, text=True, check=True, stderr=subprocess.PIPE)
    return output / "xml"


# Gaps -------------------------------------------------------------------------------------------


def gaps_of(family: Family) -> list[str]:
    """What is missing in a family's comments, beyond what Doxygen looks for itself."""
    gaps = [] if family.brief else [f"{family.header}: no word about the family"]

    def need(member: Member, what: str, there: object) -> None:
        if not there:
            gaps.append(f"{family.header}:{member.line}: {member.name} has no {what}")

    for member in family.members:
        if member.name:
            need(member, "description", member.brief or member.kind == "enum")
        for part in member.parts:
            need(part, "description", part.brief or part.detail)
        if member.kind not in ("function", "macro"):
            continue
        documented = [name for name, blocks in member.params if blocks]
        for _, name in member.arguments:
            if name != "...":
                need(member, f"@param {name}", name in documented)
        for name in CONTRACT:
            if name != "return" or member.type != "void":
                need(member, f"@{name}", member.fields.get(name))
    return gaps
