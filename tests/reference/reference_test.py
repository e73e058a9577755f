#!/usr/bin/env python3
"""Holds the finished reference, VYT_REFERENCE_DIR, against the exports and the headers."""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from html.parser import HTMLParser
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tools" / "reference"))

import log_lines
import model
from boundary import exports

REFERENCE = Path(os.environ["VYT_REFERENCE_DIR"])
MAN, HTML = REFERENCE / "man", REFERENCE / "html"
HEADERS = sorted(path.name for path in (SOURCE / "include").glob("*.h"))


def checks() -> set[str]:
    text = (SOURCE / "include" / "lh_check.h").read_text()
    return set(re.findall(r"^#define ([A-Z_]*[A-Z])\(", text, flags=re.M))


EXPORTS = exports(SOURCE)
DOCUMENTED = {**EXPORTS, **{name: "lh_check.h" for name in checks()}}
OBJECTS = {"garp_delay", "shmem_init_err_t"}


def pages(section: int, links: bool = False) -> set[str]:
    return {
        path.name.removesuffix(f".{section}")
        for path in (MAN / f"man{section}").iterdir()
        if path.is_symlink() == links
    }


def sections(name: str) -> dict[str, str]:
    text = (MAN / "man3" / f"{name}.3").read_text()
    parts = re.split(r"^\.SH (.*)\n", text, flags=re.M)
    return dict(zip(parts[1::2], parts[2::2]))


class TheManualPages(unittest.TestCase):
    def test_ThereIsOneForEachExportCheckAndHeaderAndForNothingElse(self) -> None:
        self.assertEqual(pages(3), set(DOCUMENTED) | set(HEADERS))
        self.assertEqual(pages(7), {"libVYThelpers", "vyt-log-lines"})

    def test_TypesLeadToTheirHeader(self) -> None:
        links = pages(3, links=True)
        self.assertIn("lh_poll_ctx", links)
        for name in links:
            header = (MAN / "man3" / f"{name}.3").readlink().name.removesuffix(".3")
            self.assertRegex((SOURCE / "include" / header).read_text(), rf"\b{name}\b")

    def test_EveryFunctionHasEverySection(self) -> None:
        wanted = {
            "NAME",
            "SYNOPSIS",
            "DESCRIPTION",
            "ERRORS",
            "LOG LINES",
            "ATTRIBUTES",
            "EXAMPLE",
            "SEE ALSO",
        }
        for name in set(DOCUMENTED) - OBJECTS:
            found = sections(name)
            prototype = found["SYNOPSIS"].partition(name)
            expected = set(wanted)
            if not prototype[0].endswith("void "):
                expected.add("RETURN VALUE")
            if "\\fI" in prototype[2].partition(")")[0]:
                expected.add("PARAMETERS")
            with self.subTest(function=name):
                self.assertEqual(expected - set(found), set())
                self.assertEqual([title for title, text in found.items() if not text.strip()], [])

    def test_TheSynopsisNamesTheHeaderOfTheBoundary(self) -> None:
        for name, header in DOCUMENTED.items():
            self.assertIn(f"#include <{header}>", sections(name)["SYNOPSIS"], name)

    def test_EveryExampleUsesWhatThePageIsAbout(self) -> None:
        for name in DOCUMENTED:
            code = re.sub(r"/\*.*?\*/", "", sections(name)["EXAMPLE"], flags=re.S)
            self.assertRegex(code, rf"\b{name}\b", name)

    def test_NothingAboutThemIsOdd(self) -> None:
        files = sorted(str(path.relative_to(MAN)) for path in MAN.glob("man*/*"))
        for command in (
            ["mandoc", "-Tlint", "-W", "warning"],
            ["groff", "-man", "-Tutf8", "-ww", "-z"],
        ):
            run = subprocess.run([*command, *files], cwd=MAN, capture_output=True, text=True)
            self.assertEqual(run.stdout + run.stderr, "")

    def test_EachCanBeFoundByItsName(self) -> None:
        paths = {
            MAN / f"man{section}" / f"{name}.{section}": name
            for section in (3, 7)
            for name in pages(section)
        }
        run = subprocess.run(["lexgrog", *paths], capture_output=True, text=True)
        self.assertEqual(run.returncode, 0, run.stdout)
        found = set(re.findall(r'^(.*): "(\S+) - ', run.stdout, flags=re.M))
        self.assertLessEqual({(str(path), name) for path, name in paths.items()}, found)

    def test_TheLogPageNamesEveryFunctionAsItsLinesDo(self) -> None:
        page = (MAN / "man7" / "vyt-log-lines.7").read_text()
        catalogue = log_lines.read_catalogue(SOURCE / "docs" / "log-lines.txt")
        shown = {source.shown for line in catalogue.lines for source in line.sources}
        self.assertEqual([name for name in sorted(shown) if f"\\fB{name}\\fR" not in page], [])


class Links(HTMLParser):
    def __init__(self, path: Path) -> None:
        super().__init__()
        self.ids: list[str] = []
        self.targets: list[str] = []
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag: str, attrs: list[tuple[str, str | None]]) -> None:
        for key, value in attrs:
            if key == "id":
                self.ids.append(value or "")
            elif key in ("href", "src"):
                self.targets.append(value or "")


class TheHtmlPages(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        cls.pages = {path.name: Links(path) for path in HTML.glob("*.html")}

    def test_ThereIsOneForEachHeaderAndTwoMore(self) -> None:
        families = {header.removesuffix(".h") + ".html" for header in HEADERS}
        self.assertEqual(set(self.pages), families | {"index.html", "log-lines.html"})

    def test_EveryExportAndCheckStandsOnThePageOfItsHeaderAlone(self) -> None:
        for name, header in DOCUMENTED.items():
            where = [file for file, page in self.pages.items() if name in page.ids]
            self.assertEqual(where, [header.removesuffix(".h") + ".html"], name)

    def test_NoNameStandsOnAPageTwice(self) -> None:
        for file, page in self.pages.items():
            self.assertEqual(len(page.ids), len(set(page.ids)), file)

    def test_EveryLinkLeadsSomewhereWithin(self) -> None:
        files = {path.name for path in HTML.iterdir()}
        for file, page in self.pages.items():
            for target in page.targets:
                name, _, anchor = target.partition("#")
                self.assertIn(name or file, files, f"{file}: {target}")
                if anchor:
                    self.assertIn(anchor, self.pages[name or file].ids, f"{file}: {target}")

    def test_TheSearchKnowsEveryExportAndEveryLogLine(self) -> None:
        text = (HTML / "index.js").read_text()
        entries = json.loads(text[text.index("[") : text.rindex("]") + 1])
        found = {entry[0] for entry in entries}
        catalogue = log_lines.read_catalogue(SOURCE / "docs" / "log-lines.txt")
        self.assertLessEqual(set(DOCUMENTED) | {line.text for line in catalogue.lines}, found)
        for entry in entries:
            file, _, anchor = entry[3].partition("#")
            self.assertTrue(not anchor or anchor in self.pages[file].ids, entry)


class TheSource(unittest.TestCase):
    """What is incomplete fails the build."""

    def gaps_after(self, header: str, old: str, new: str) -> list[str]:
        with tempfile.TemporaryDirectory() as directory:
            copy = Path(directory)
            shutil.copytree(SOURCE / "include", copy / "include")
            path = copy / "include" / header
            text = path.read_text()
            self.assertIn(old, text)
            path.write_text(text.replace(old, new, 1))
            try:
                xml = model.run_doxygen(copy, copy / "out")
            except subprocess.CalledProcessError:
                return ["doxygen"]
            families = model.read_families(xml)
            return [gap for family in families for gap in model.gaps_of(family)]

    def test_NothingIsMissingNow(self) -> None:
        self.assertEqual(self.gaps_after("lh_close.h", "@file", "@file"), [])

    def test_AMissingParameterIsFound(self) -> None:
        self.assertEqual(self.gaps_after("lh_timer.h", "@param s ", "@param seconds "), ["doxygen"])

    def test_AnUndocumentedFunctionIsFound(self) -> None:
        gaps = self.gaps_after("lh_close.h", "int lh_close(", "int lh_open(int fd);\nint lh_close(")
        self.assertNotEqual(gaps, [])

    def test_AMissingFieldOfTheContractIsFound(self) -> None:
        gaps = self.gaps_after("lh_close.h", " * @blocking as `close` does.\n", "")
        self.assertEqual(
            [re.sub(":\\d+", "", gap) for gap in gaps], ["lh_close.h: lh_close has no @blocking"]
        )

    def test_NoLineOfAHeaderIsOverlong(self) -> None:
        """The formatter does not touch comments. Rows of tables cannot be folded."""
        for header in HEADERS:
            text = (SOURCE / "include" / header).read_text()
            for number, line in enumerate(text.splitlines(), 1):
                if not line.startswith(" * |"):
                    self.assertLessEqual(len(line), 102, f"{header}:{number}")

    def test_AnUndocumentedConstantIsFound(self) -> None:
        gaps = self.gaps_after("syslog_ipsec.h", ' /**< "tls" */', "")
        self.assertEqual(len(gaps), 1, gaps)


if __name__ == "__main__":
    unittest.main(verbosity=2)
