#!/usr/bin/env python3
"""Holds the catalogue of log lines against the shared object, the sources and the headers."""
import os
import re
import struct
import sys
import unittest
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tools" / "reference"))

import call_sites
import log_lines

FORMAT_START = ("<%s(%lu):%s:%d> ", "<%s:%d> ", "%%%s-%s-%s: ")


def section(elf: bytes, wanted: bytes) -> bytes:
    """A section of a little-endian ELF object of 64 bits."""
    (table,) = struct.unpack_from("<Q", elf, 0x28)
    size, count, names = struct.unpack_from("<HHH", elf, 0x3A)
    headers = [struct.unpack_from("<IIQQQQ", elf, table + i * size) for i in range(count)]
    text = headers[names][4]
    for name, _, _, _, offset, length in headers:
        if elf[text + name :].split(b"\0", 1)[0] == wanted:
            return elf[offset : offset + length]
    raise ValueError(f"the object has no section {wanted.decode()}")


def formats_of_the_object() -> set[str]:
    elf = Path(os.environ["VYT_LIBRARY_FILE"]).read_bytes()
    texts = {text.decode("latin-1") for text in section(elf, b".rodata").split(b"\0")}
    # The bare prefix is the beginning of no line by itself.
    return {text for text in texts if text.startswith(FORMAT_START) and text not in FORMAT_START}


CATALOGUE = log_lines.read_catalogue(SOURCE / "docs" / "log-lines.txt")
PROMISES = log_lines.read_promises(SOURCE / "include")


class TheCatalogueAndTheObject(unittest.TestCase):
    def setUp(self) -> None:
        self.in_object = formats_of_the_object()
        self.in_catalogue = {line.format for line in CATALOGUE.lines}

    def test_EveryFormatOfTheObjectIsInTheCatalogue(self) -> None:
        self.assertEqual(sorted(self.in_object - self.in_catalogue), [])

    def test_TheObjectHoldsEveryFormatOfTheCatalogue(self) -> None:
        self.assertEqual(sorted(self.in_catalogue - self.in_object), [])


def unsigned(format: str) -> str:
    """A check has a format for each sign; the operand's type decides, which the sources hide."""
    return format.replace("%ld", "%lu")


class TheCatalogueAndTheSources(unittest.TestCase):
    @classmethod
    def setUpClass(cls) -> None:
        in_object = formats_of_the_object()
        found = call_sites.call_sites(SOURCE, os.environ.get("CXX", "c++"))
        cls.sites = {site for site in found if site.format in in_object}
        cls.by_format: dict[str, list[log_lines.Line]] = {}
        for line in CATALOGUE.lines:
            cls.by_format.setdefault(unsigned(line.format), []).append(line)
        cls.writers: dict[int, set[str]] = {id(line): set() for line in CATALOGUE.lines}
        for site in cls.sites:
            for line in cls.lines_of(site):
                cls.writers[id(line)].add(site.function)

    @classmethod
    def lines_of(cls, site: call_sites.Site) -> list[log_lines.Line]:
        return [
            line
            for line in cls.by_format.get(unsigned(site.format), [])
            if line.kind.startswith(site.flag) and site.text in (line.operand, call_sites.UNKNOWN)
        ]

    def test_EveryLineThatTheSourcesWriteIsInTheCatalogue(self) -> None:
        missing = [site for site in self.sites if not self.lines_of(site)]
        self.assertEqual(missing, [])

    def test_TheSourcesWriteEveryLineOfTheCatalogue(self) -> None:
        never = [line.text for line in CATALOGUE.lines if not self.writers[id(line)]]
        self.assertEqual(never, [])

    def test_TheCatalogueNamesEveryFunctionThatWritesALine(self) -> None:
        for site in self.sites:
            named = {source.shown for line in self.lines_of(site) for source in line.sources}
            if site.function:
                self.assertIn(site.function, named, site)

    def test_WhoeverTheCatalogueNamesWritesTheLine(self) -> None:
        for line in CATALOGUE.lines:
            writers = self.writers[id(line)]
            if "" not in writers:  # else one that is only known when the program runs
                self.assertLessEqual({source.shown for source in line.sources}, writers, line.text)


class TheCatalogueAndTheHeaders(unittest.TestCase):
    def test_EveryFunctionIsRead(self) -> None:
        text = (SOURCE / "src" / "exports.map").read_text()
        exported = set(re.findall(r"^    (\w+);$", text, flags=re.M))
        self.assertEqual(exported - set(PROMISES), {"garp_delay", "shmem_init_err_t"})

    def test_EveryLineInAHeaderIsInTheCatalogueForThatFunction(self) -> None:
        for promise in PROMISES.values():
            of_function = [line for line in CATALOGUE.lines if promise.function in line.functions]
            for span in promise.spans:
                if re.fullmatch(r"[\w>./-]+", span):
                    continue  # a parameter, a function, an operand or a path
                found = any(line.is_said_by(span) for line in of_function)
                with self.subTest(function=promise.function, line=span):
                    self.assertTrue(found)

    def test_EveryLineOfTheCatalogueIsInTheHeaderOfItsFunctions(self) -> None:
        for line in CATALOGUE.lines:
            for function in line.functions:
                promise = PROMISES[function]
                said = {promise.function} | log_lines.referred_to(promise, PROMISES)
                spans = [span for name in said for span in PROMISES[name].spans]
                found = any(line.is_said_by(span) for span in spans)
                with self.subTest(function=function, line=line.text):
                    self.assertTrue(found)


if __name__ == "__main__":
    unittest.main(verbosity=2)
