"""Manual pages: one for each function, check, data object and header, and two overviews."""
import re
import textwrap
from pathlib import Path

import texts
from log_lines import Catalogue, Line, Source
from model import Blocks, Family, Member, Spans
from snippets import Snippet

SPECIAL = {"\\": "\\e", "'": "\\(aq", "`": "\\(ga", "^": "\\(ha", "~": "\\(ti", "-": "\\-"}
FONTS = {"code": "\\fB", "strong": "\\fI"}


def escape_code(text: str) -> str:
    return "".join(SPECIAL.get(c, c) for c in text)


def escape_text(text: str) -> str:
    """Apostrophes and hyphens are those of prose, but a minus sign is one."""
    text = (
        text.replace("\\", "\\e").replace("`", "\\(ga").replace("^", "\\(ha").replace("~", "\\(ti")
    )
    return re.sub(r"(^|[\s(\"])-(?=\d)", r"\1\\-", text)


class Page:
    def __init__(
        self,
        name: str,
        section: int,
        about: str,
        version: str,
        date: str,
        aliases: list[str] | None = None,
    ) -> None:
        names = ", ".join([name, *(aliases or [])])
        self.lines = [
            f'.TH {name} {section} {date} "libVYThelpers {version}" "libVYThelpers"',
            ".ad l",
            ".nh",
            ".nr HY 0",
            ".SH NAME",
            f"{names} \\- {escape_text(about)}",
        ]
        self.file = f"man{section}/{name}.{section}"

    def section(self, title: str) -> None:
        self.lines.append(f".SH {title.upper()}")

    def subsection(self, title: str) -> None:
        self.lines.append(f".SS {escape_code(title)}")

    def macro(self, line: str) -> None:
        self.lines.append(line)

    def text(self, words: str) -> None:
        """Words with their escapes, folded; a line must not start as a request does."""
        for line in textwrap.wrap(words, 78, break_long_words=False, break_on_hyphens=False):
            self.lines.append("\\&" + line if line[0] in ".'" else line)

    def code(self, code: str) -> None:
        self.lines += [
            ".EX",
            *(
                "\\&" + line if line[:1] in (".", "'") else line
                for line in map(escape_code, code.split("\n"))
            ),
            ".EE",
        ]

    def write(self, directory: Path) -> None:
        path = directory / self.file
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("\n".join(self.lines) + "\n", encoding="utf-8")


class Manual:
    def __init__(self, families: list[Family], version: str, date: str) -> None:
        self.families = families
        self.version, self.date = version, date
        self.names = {member.name for family in families for member in family.pages}
        self.headers = {family.header for family in families}

    # Words ------------------------------------------------------------------------------------

    def prose(self, text: str) -> str:
        """Functions in bold, with their section where they have a page."""

        def function(match: re.Match[str]) -> str:
            name = match[1]
            return f"\\fB{name}\\fR(3)" if name in self.names else f"\\fB{name}\\fR()"

        def header(match: re.Match[str]) -> str:
            return f"\\fB{match[0]}\\fR(3)" if match[0] in self.headers else match[0]

        text = re.sub(r"\b(\w+)\(\)", function, escape_text(text))
        return re.sub(r"\b\w+\.h\b", header, text)

    def spans(self, spans: Spans, parameters: tuple[str, ...] = ()) -> str:
        words = ""
        for kind, text in spans:
            if kind == "text":
                words += self.prose(text)
            elif kind == "code" and text in parameters:
                words += f"\\fI{escape_code(text)}\\fR"
            else:
                words += FONTS[kind] + escape_code(text) + "\\fR"
        return words

    def blocks(
        self, page: Page, blocks: Blocks, parameters: tuple[str, ...] = (), between: str = ".P"
    ) -> None:
        for i, (kind, content) in enumerate(blocks):
            if i > 0 and kind not in ("list", "table"):
                page.macro(between)
            if kind == "para":
                page.text(self.spans(content, parameters))
            elif kind == "code":
                page.macro(".RS 4")
                page.code(content)
                page.macro(".RE")
            elif kind == "list":
                for item in content:
                    page.macro(".IP \\(bu 2")
                    self.blocks(page, item, parameters, ".IP")
            else:
                self.table(page, content)

    def table(self, page: Page, rows: list[list[Spans]]) -> None:
        """The first column as tags; the head of the table tells nothing more then."""
        for row in rows[1:]:
            page.macro(".TP")
            page.text("\\fB" + escape_code(texts.plain_text(row[0])) + "\\fR")
            page.text(", ".join(self.spans(cell) for cell in row[1:]))

    def bullets(self, page: Page, items: list[str]) -> None:
        if len(items) == 1:
            page.text(items[0])
            return
        for item in items:
            page.macro(".IP \\(bu 2")
            page.text(item)

    def see_also(self, page: Page, names: list[tuple[str, int]]) -> None:
        page.section("See also")
        for i, (name, section) in enumerate(names):
            comma = " ," if i < len(names) - 1 else ""
            page.macro(f".BR {escape_code(name)} ({section}){comma}")

    # A function, macro or data object -----------------------------------------------------------

    def synopsis(self, page: Page, family: Family, member: Member | None) -> None:
        page.section("Synopsis")
        page.macro(".nf")
        page.macro(f".B #include <{family.header}>")
        if member is not None:
            page.macro(".P")
            for line in texts.signature(member):
                line = re.sub(r"\{(\w+|\.\.\.)\}", r"\\fI\1\\fB", line)
                page.macro(f"\\fB{line}\\fR")
        page.macro(".fi")
        page.macro(".P")
        page.text("Link with \\fI\\-lVYThelpers\\fR.")

    def page_of(self, family: Family, member: Member, snippet: Snippet) -> Page:
        page = Page(member.name, 3, texts.summary(member.brief), self.version, self.date)
        parameters = tuple(name for _, name in member.arguments)
        self.synopsis(page, family, member)
        page.section("Description")
        self.blocks(page, texts.description(member.brief, member.detail), parameters)
        if member.params:
            page.section("Parameters")
            for name, blocks in member.params:
                page.macro(".TP")
                page.macro(f".I {name}")
                self.blocks(page, texts.capitalised(blocks), parameters, ".IP")
        if "return" in member.fields:
            page.section("Return value")
            self.blocks(page, texts.capitalised(member.fields["return"]), parameters)
        if member.kind != "object":
            self.contract(page, member, parameters)
        page.section("Example")
        page.code(snippet.excerpt(member.name))
        others = [(other.name, 3) for other in family.pages if other is not member]
        self.see_also(page, [(family.header, 3), *others, ("vyt-log-lines", 7)])
        return page

    def contract(self, page: Page, member: Member, parameters: tuple[str, ...]) -> None:
        page.section("Errors")
        errno = texts.errno_sentence(member.fields["errno"])
        self.blocks(page, texts.capitalised(errno), parameters)
        page.section("Log lines")
        if texts.logs_nothing(member):
            page.text("None.")
        else:
            self.bullets(
                page,
                [self.spans(item, parameters) for item in texts.log_items(member.fields["log"])],
            )
        page.section("Attributes")
        for name in ("blocking", "threads"):
            page.macro(".TP")
            page.macro(f".B {name.capitalize()}")
            self.blocks(page, texts.capitalised(member.fields[name]), parameters, ".IP")
        if member.notes:
            page.section("Notes")
            for i, note in enumerate(member.notes):
                if i > 0:
                    page.macro(".P")
                self.blocks(page, note, parameters)

    # A header -----------------------------------------------------------------------------------

    def header_page(self, family: Family, snippet: Snippet) -> Page:
        page = Page(
            family.header,
            3,
            texts.summary(family.brief),
            self.version,
            self.date,
            type_names(family),
        )
        self.synopsis(page, family, None)
        page.section("Description")
        self.blocks(page, [("para", family.brief), *family.detail])
        for title, members in family.titled():
            page.section(title)
            for member in members:
                page.macro(".TP")
                page.macro(f".BR {member.name} (3)")
                page.text(self.spans(member.brief))
        self.types(page, family)
        page.section("Example")
        page.code(snippet.program.rstrip())
        page.macro(".P")
        page.text("It prints:")
        page.macro(".P")
        page.code(snippet.output.rstrip("\n"))
        names = [(member.name, 3) for member in family.pages]
        self.see_also(page, [*names, ("libVYThelpers", 7), ("vyt-log-lines", 7)])
        return page

    def types(self, page: Page, family: Family) -> None:
        if family.types:
            page.section("Types")
        for member in family.types:
            page.subsection(member.name if member.name[0] != "@" else "Constants")
            if member.kind == "callback":
                page.code(texts.callback_type(member))
                page.macro(".P")
            self.blocks(page, texts.description(member.brief, member.detail))
            for name, blocks in member.params:
                page.macro(".TP")
                page.macro(f".I {name}")
                self.blocks(page, texts.capitalised(blocks), (), ".IP")
            if "return" in member.fields:
                page.macro(".P")
                page.text("Returns " + self.spans(member.fields["return"][0][1]))
            for part in member.parts:
                self.part(page, part)
        constants = family.of_kind("constant")
        if constants:
            page.section("Constants")
        for constant in constants:
            self.part(page, constant)

    def part(self, page: Page, part: Member) -> None:
        page.macro(".TP")
        if part.kind == "constant":
            value = f" = {escape_code(part.value)}" if part.value else ""
            page.macro(f"\\fB{part.name}\\fR{value}")
        else:
            space = "" if part.type.endswith("*") else " "
            page.macro(f"{escape_code(part.type)}{space}\\fB{part.name}\\fR{part.value}")
        blocks = texts.description(part.brief, part.detail)
        self.blocks(page, texts.capitalised(blocks), (), ".IP")

    # The overviews ------------------------------------------------------------------------------

    def front_page(self, front: texts.Front) -> Page:
        page = Page(
            "libVYThelpers", 7, "the toolbox of the router's daemons", self.version, self.date
        )
        page.section("Description")
        self.blocks(page, front.intro)
        for group in front.groups:
            page.section(group.name)
            page.text(self.prose(group.brief))
            for family in group.families:
                page.macro(".TP")
                page.macro(f".BR {family.header} (3)")
                page.text(self.spans(family.brief))
        self.see_also(page, [("vyt-log-lines", 7)])
        return page

    def log_page(self, catalogue: Catalogue) -> Page:
        page = Page("vyt-log-lines", 7, "every log line of libVYThelpers", self.version, self.date)
        page.section("Description")
        self.blocks(page, catalogue.intro)
        for group in catalogue.groups:
            page.section(group)
            for line in catalogue.lines:
                if line.group == group:
                    self.log_line(page, line)
        self.see_also(page, [("libVYThelpers", 7)])
        return page

    def log_line(self, page: Page, line: Line) -> None:
        page.macro(".TP")
        tag = escape_code(line.text)
        page.macro(f"\\fB{tag}\\fR")
        if line.kind != "error":
            page.text(escape_code(describe_kind(line)) + ".")
            page.macro(".br")
        page.text(self.prose(line.meaning))
        page.macro(".br")
        page.text("\\fIWhat to do:\\fR " + self.prose(line.action))
        if line.values:
            page.macro(".br")
            page.text("\\fIValues:\\fR " + self.prose(line.values) + ".")
        page.macro(".br")
        page.text("\\fIFrom:\\fR " + ", ".join(map(self.source, line.sources)) + ".")

    def source(self, source: Source) -> str:
        whom = " ".join(f"\\fB{name}\\fR(3)" for name in source.spoken_for)
        return whom if source.is_alone else f"\\fB{source.shown}\\fR for {whom}"

    # All of them --------------------------------------------------------------------------------

    def write(
        self,
        directory: Path,
        front: texts.Front,
        snippets: dict[str, Snippet],
        catalogue: Catalogue,
    ) -> None:
        for family in self.families:
            snippet = snippets[family.name]
            self.header_page(family, snippet).write(directory)
            for member in family.pages:
                self.page_of(family, member, snippet).write(directory)
            for name in type_names(family):
                (directory / f"man3/{name}.3").symlink_to(f"{family.header}.3")
        self.front_page(front).write(directory)
        self.log_page(catalogue).write(directory)


def type_names(family: Family) -> list[str]:
    """What the page of a header is found under, too."""
    return [member.name for member in family.types if member.name[0] != "@"]


def describe_kind(line: Line) -> str:
    """Where a line goes that is no error line."""
    if line.kind == "early error":
        return "Early line with the short prefix"
    if line.kind == "early debug":
        return "Early line with the short prefix, at LOG_DEBUG"
    flag, _, place = line.kind.partition(" ")
    return f"Debug line of {flag}" + (f", after {place}" if place else "")
