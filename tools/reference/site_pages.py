"""The reference as HTML: a front page, a page for each header, and the log lines."""
import html
import json
import re
import shutil
from pathlib import Path
from string import Template

import texts
from log_lines import Catalogue, Line, Source
from man import describe_kind
from model import Blocks, Family, Member, Spans
from snippets import Snippet

WEB = Path(__file__).resolve().parent / "web"
KIND_WORDS = {"object": "data object", "callback": "callback type", "enum": "enumeration"}


def escape(text: str) -> str:
    return html.escape(text, quote=False)


def slug(text: str) -> str:
    return re.sub(r"[^a-z0-9]+", "-", text.lower()).strip("-")


class Site:
    def __init__(
        self, front: texts.Front, snippets: dict[str, Snippet], catalogue: Catalogue, version: str
    ) -> None:
        self.front, self.version = front, version
        self.snippets, self.catalogue = snippets, catalogue
        self.template = Template((WEB / "page.html").read_text(encoding="utf-8"))
        self.families = [family for group in front.groups for family in group.families]
        self.places = {family.header: f"{family.name}.html" for family in self.families}
        for family in self.families:
            for member in family.members:
                parts = member.parts if member.kind == "enum" else []
                for named in [member, *parts]:
                    if named.name[0] != "@":
                        self.places[named.name] = f"{family.name}.html#{named.name}"
        self.anchors = self.line_anchors()

    def line_anchors(self) -> dict[int, str]:
        anchors: dict[int, str] = {}
        for line in self.catalogue.lines:
            name = slug(line.text) or "line"
            taken = sum(
                anchor == name or anchor.startswith(name + "--") for anchor in anchors.values()
            )
            anchors[id(line)] = f"{name}--{taken + 1}" if taken else name
        return anchors

    # Words ------------------------------------------------------------------------------------

    def link(self, name: str, shown: str) -> str:
        return f'<a href="{self.places[name]}">{escape(shown)}</a>'

    def linked(self, text: str, pattern: str = r"\b(\w+(?:\.h)?)\b(?:\(\))?") -> str:
        """Text or code with every known name as a link. A short word is a link only as a call."""
        result, last = "", 0
        for match in re.finditer(pattern, text):
            name = match[1]
            if name in self.places and ("_" in name or match[0] != name):
                result += escape(text[last : match.start()]) + self.link(name, match[0])
                last = match.end()
        return result + escape(text[last:])

    def spans(self, spans: Spans, member: Member | None = None) -> str:
        words = ""
        for kind, text in spans:
            if kind == "text":
                words += self.linked(text)
            elif kind == "strong":
                words += f"<strong>{escape(text)}</strong>"
            else:
                line = self.line_of(member, text) if member else None
                inner = escape(text)
                if line:
                    inner = f'<a href="log-lines.html#{self.anchors[id(line)]}">{inner}</a>'
                elif member is None or member.name not in text:
                    inner = self.linked(text)
                words += f"<code>{inner}</code>"
        return words

    def line_of(self, member: Member, span: str) -> Line | None:
        for line in self.catalogue.lines:
            if member.name in line.functions and line.is_said_by(span):
                return line
        return None

    def code(self, code: str, kind: str = "") -> str:
        attribute = f' class="{kind}"' if kind else ""
        text = self.linked(code, r"\b(\w+\.h|\w+)\b")
        text = re.sub(
            r"(/\*.*?\*/|(?<!:)//[^\n]*)", r'<span class="comment">\1</span>', text, flags=re.S
        )
        return f"<pre{attribute}>{text}</pre>"

    def blocks(self, blocks: Blocks, member: Member | None = None) -> str:
        parts = []
        for kind, content in blocks:
            if kind == "para":
                parts.append(f"<p>{self.spans(content, member)}</p>")
            elif kind == "code":
                parts.append(self.code(content))
            elif kind == "list":
                items = "".join(f"<li>{self.blocks(item, member)}</li>" for item in content)
                parts.append(f"<ul>{items}</ul>")
            else:
                parts.append(self.table(content))
        return "".join(parts)

    def table(self, rows: list[list[Spans]]) -> str:
        head = "".join(f"<th>{self.spans(cell)}</th>" for cell in rows[0])
        body = "".join(
            "<tr>" + "".join(f"<td>{self.spans(cell)}</td>" for cell in row) + "</tr>"
            for row in rows[1:]
        )
        return f"<table><thead><tr>{head}</tr></thead><tbody>{body}</tbody></table>"

    def cell(self, blocks: Blocks, member: Member | None = None) -> str:
        """A single paragraph without its tag."""
        if len(blocks) == 1 and blocks[0][0] == "para":
            return self.spans(blocks[0][1], member)
        return self.blocks(blocks, member)

    # A page -------------------------------------------------------------------------------------

    def page(self, file: str, title: str, body: str) -> str:
        return self.template.substitute(
            title=escape(title),
            version=escape(self.version),
            navigation=self.navigation(file),
            body=body,
        )

    def navigation(self, file: str) -> str:
        def entry(target: str, shown: str) -> str:
            current = ' aria-current="page"' if target == file else ""
            return f'<li><a href="{target}"{current}>{shown}</a></li>'

        parts = [f"<ul>{entry('log-lines.html', 'Log lines')}</ul>"]
        for group in self.front.groups:
            links = "".join(
                entry(f"{family.name}.html", family.header) for family in group.families
            )
            parts.append(f"<h2>{group.name}</h2><ul>{links}</ul>")
        return "\n".join(parts)

    def front_body(self) -> str:
        parts = [
            f"<h1>{self.front.title}</h1>",
            self.blocks(self.front.intro),
            "<p>Something in the system log at night? Look it up among the "
            '<a href="log-lines.html">log lines</a>.</p><div class="map">',
        ]
        for group in self.front.groups:
            parts.append(f"<section><h2>{group.name}</h2><p>{escape(group.brief)}</p><dl>")
            for family in group.families:
                parts.append(
                    f"<dt>{self.link(family.header, family.header)}</dt>"
                    f"<dd>{self.spans(family.brief)}</dd>"
                )
            parts.append("</dl></section>")
        return "".join(parts) + "</div>"

    def family_body(self, family: Family) -> str:
        snippet = self.snippets[family.name]
        description = [("para", family.brief), *family.detail]
        parts = [f"<h1>{family.header}</h1>", self.blocks(description), self.contents(family)]
        if family.types or family.of_kind("constant"):
            parts.append("<h2>Types and constants</h2>")
            parts += [self.type(member) for member in family.types]
            parts += [self.constant(member) for member in family.of_kind("constant")]
        for title, members in family.titled():
            parts.append(f"<h2>{title}</h2>")
            parts += [self.member(member, snippet) for member in members]
        parts.append(
            f'<h2 id="example">Example</h2><p>The whole program, as the tests run it '
            f"(<code>docs/snippets/{snippet.file}</code>):</p>"
            f"{self.code(snippet.program.rstrip())}<p>It prints:</p>"
            f'<pre class="output">{escape(snippet.output.rstrip())}</pre>'
        )
        return "\n".join(parts)

    def contents(self, family: Family) -> str:
        rows = "".join(
            f"<tr><td>{self.link(member.name, member.name)}</td>"
            f"<td>{self.spans(member.brief)}</td></tr>"
            for member in family.pages
        )
        return f'<table class="contents">{rows}</table>'

    # Members ------------------------------------------------------------------------------------

    def member(self, member: Member, snippet: Snippet) -> str:
        signature = escape("\n".join(texts.signature(member)))
        signature = re.sub(r"\{(\w+)\}", r"<i>\1</i>", signature)
        signature = re.sub(
            r"(?<![\w>])(\w+)(?![\w<])", lambda m: self.type_link(m[1], member), signature
        )
        description = texts.description(member.brief, member.detail)
        parts = [
            self.heading(member.name),
            f'<pre class="signature">{signature}</pre>',
            self.blocks(description, member),
        ]
        rows = "".join(
            f"<dt><i>{name}</i></dt><dd>{self.cell(texts.capitalised(blocks), member)}</dd>"
            for name, blocks in member.params
        )
        if rows:
            parts.append(f'<dl class="parameters">{rows}</dl>')
        if member.kind != "object":
            parts.append(self.contract(member))
        parts += [f'<div class="note">{self.blocks(note, member)}</div>' for note in member.notes]
        parts.append(
            "<details><summary>Example</summary>"
            f"{self.code(snippet.excerpt(member.name))}</details>"
        )
        return f'<article id="{member.name}">' + "\n".join(parts) + "</article>"

    def type_link(self, name: str, member: Member) -> str:
        return self.link(name, name) if name in self.places and name != member.name else name

    def heading(self, name: str) -> str:
        return f'<h3><a href="#{name}">{name}</a></h3>'

    def contract(self, member: Member) -> str:
        fields = member.fields
        rows = []
        if "return" in fields:
            rows.append(("Returns", self.cell(texts.capitalised(fields["return"]), member)))
        rows.append(("errno", self.cell(texts.capitalised(fields["errno"]), member)))
        items = [self.spans(item, member) for item in texts.log_items(fields["log"])]
        if texts.logs_nothing(member):
            rows.append(("Log lines", "None."))
        elif len(items) == 1:
            rows.append(("Log lines", items[0]))
        else:
            rows.append(
                ("Log lines", "<ul>" + "".join(f"<li>{item}</li>" for item in items) + "</ul>")
            )
        rows.append(("Blocking", self.cell(texts.capitalised(fields["blocking"]), member)))
        rows.append(("Threads", self.cell(texts.capitalised(fields["threads"]), member)))
        return (
            '<dl class="contract">'
            + "".join(f"<dt>{a}</dt><dd>{b}</dd>" for a, b in rows)
            + "</dl>"
        )

    def type(self, member: Member) -> str:
        named = member.name[0] != "@"
        parts = [self.heading(member.name) if named else "<h3>Constants</h3>"]
        if member.kind == "callback":
            parts.append(self.code(texts.callback_type(member), "signature"))
        parts.append(self.blocks(texts.description(member.brief, member.detail)))
        rows = [(f"<i>{name}</i>", blocks) for name, blocks in member.params]
        if "return" in member.fields:
            rows.append(("Returns", member.fields["return"]))
        for part in member.parts:
            blocks = texts.description(part.brief, part.detail)
            rows.append((self.part_name(part), blocks))
        cells = "".join(f"<dt>{a}</dt><dd>{self.cell(texts.capitalised(b))}</dd>" for a, b in rows)
        if cells:
            parts.append(f'<dl class="fields">{cells}</dl>')
        anchor = f' id="{member.name}"' if named else ""
        return f"<article{anchor}>" + "".join(parts) + "</article>"

    def part_name(self, part: Member) -> str:
        if part.kind == "constant":
            value = f" = {escape(part.value)}" if part.value else ""
            return f'<code id="{part.name}"><b>{part.name}</b>{value}</code>'
        space = "" if part.type.endswith("*") else " "
        return f"<code>{self.linked(part.type)}{space}<b>{part.name}</b>{escape(part.value)}</code>"

    def constant(self, member: Member) -> str:
        text = self.blocks(texts.description(member.brief, member.detail))
        signature = f'<pre class="signature">#define {member.name} {escape(member.value)}</pre>'
        return f'<article id="{member.name}">{self.heading(member.name)}{signature}{text}</article>'

    # The log lines ------------------------------------------------------------------------------

    def log_body(self) -> str:
        parts = [
            "<h1>Log lines</h1>",
            '<div class="filter"><input id="filter" type="search" autocomplete="off" autofocus '
            'placeholder="Paste a line from the log, or type a part of it" aria-label="Filter">'
            '<span id="count"></span></div>',
            f'<details class="about"><summary>How to read a line</summary>'
            f"{self.blocks(self.catalogue.intro)}</details>",
        ]
        for group in self.catalogue.groups:
            lines = [line for line in self.catalogue.lines if line.group == group]
            entries = "\n".join(self.log_entry(line) for line in lines)
            parts.append(f'<section class="lines"><h2>{escape(group)}</h2>{entries}</section>')
        return "\n".join(parts)

    def log_entry(self, line: Line) -> str:
        kind = (
            ""
            if line.kind == "error"
            else f'<span class="kind">{escape(describe_kind(line))}</span>'
        )
        details = (
            f"<p>{self.linked(line.meaning)}</p><p class=action>{self.linked(line.action)}</p>"
        )
        if line.values:
            details += f"<p class=values>Values: {escape(line.values)}.</p>"
        details += f"<p class=from>From {', '.join(map(self.source, line.sources))}.</p>"
        pattern = html.escape(line_pattern(line))
        return (
            f'<article class="line" id="{self.anchors[id(line)]}" data-pattern="{pattern}" '
            f'data-from="{shown_names(line)}">'
            f"<h3><code>{escape(line.text)}</code>{kind}</h3>{details}</article>"
        )

    def source(self, source: Source) -> str:
        whom = " ".join(self.link(name, name) for name in source.spoken_for)
        return whom if source.is_alone else f"<code>{escape(source.shown)}</code> for {whom}"

    # Search -------------------------------------------------------------------------------------

    def index(self) -> str:
        entries = []
        for family in self.families:
            entries.append(
                [
                    family.header,
                    "header",
                    texts.plain_text(family.brief),
                    self.places[family.header],
                ]
            )
            for member in family.members:
                brief = texts.plain_text(member.brief)
                if member.name[0] != "@":
                    kind = KIND_WORDS.get(member.kind, member.kind)
                    entries.append([member.name, kind, brief, self.places[member.name]])
                for part in member.parts if member.kind == "enum" else []:
                    place = self.places[part.name]
                    entries.append([part.name, "constant", texts.plain_text(part.brief), place])
        for line in self.catalogue.lines:
            entries.append(
                [
                    line.text,
                    "log line",
                    line.meaning,
                    f"log-lines.html#{self.anchors[id(line)]}",
                    line_pattern(line),
                    shown_names(line),
                ]
            )
        rows = ",\n".join(json.dumps(entry) for entry in entries)
        return f"const searchIndex = [\n{rows}\n];\n"

    def write(self, directory: Path) -> None:
        directory.mkdir(parents=True, exist_ok=True)
        pages = {
            "index.html": self.page("index.html", "Reference", self.front_body()),
            "log-lines.html": self.page("log-lines.html", "Log lines", self.log_body()),
        }
        for family in self.families:
            file = f"{family.name}.html"
            pages[file] = self.page(file, family.header, self.family_body(family))
        for file, text in pages.items():
            (directory / file).write_text(text, encoding="utf-8")
        (directory / "index.js").write_text(self.index(), encoding="utf-8")
        for file in ("style.css", "search.js"):
            shutil.copy(WEB / file, directory)


def line_pattern(line: Line) -> str:
    """A regular expression for a line as it stands in the log, behind its prefix."""
    pieces = re.split(r"%(?:[a-z]*[dusxXom]|%)", line.text)
    return ".*".join(re.escape(piece).replace("/", "\\/").replace("\\ ", " ") for piece in pieces)


def shown_names(line: Line) -> str:
    """The functions that the line names itself."""
    return " ".join(source.shown for source in line.sources)


def write(
    directory: Path,
    front: texts.Front,
    snippets: dict[str, Snippet],
    catalogue: Catalogue,
    version: str,
) -> None:
    Site(front, snippets, catalogue, version).write(directory)
