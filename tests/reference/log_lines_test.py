#!/usr/bin/env python3
"""Holds the catalogue of log lines against the shared object, the sources and the headers."""
import os
import re
import struct
import sys
import unittest
from collections.abc import Iterator
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "tools" / "reference"))

import call_graph
import call_sites
import log_lines
from boundary import exports

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


class TheCatalogue(unittest.TestCase):
    def test_ANameIsForItselfOrForThoseWhoFollow(self) -> None:
        alone, helper = log_lines.read_sources("lh_close, list_add for lh_list_add")
        self.assertEqual((alone.shown, alone.spoken_for), ("lh_close", ["lh_close"]))
        self.assertEqual((helper.shown, helper.spoken_for), ("list_add", ["lh_list_add"]))

    def test_ANameForNobodyElseIsRefused(self) -> None:
        for text in ("list_add for", "list_add for, lh_close", "lh_close for lh_close", "a b"):
            with self.subTest(text=text), self.assertRaises(log_lines.CatalogueError):
                log_lines.read_sources(text)


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


UNITS_THAT_LOAD = {
    "lh_unit_get",
    "lh_unit_id_after_reboot_get",
    "lh_unit_id_get",
    "lh_unit_id_get_str_static",
    "lh_unit_ids_get",
    "lh_unit_ids_set",
    "lh_unit_init",
}
UNITS_THAT_WRITE = {"lh_unit_ids_set", "lh_unit_set"}
WALKS = {"lh_dir_chown_recursive", "lh_dir_size"}
FDSETS = {"lh_select_fdset_print", "lh_select_fdset_strdup"}
INSERTER = "lh_str_insert_str_before_each_of_chrs"

# What the graph of calls cannot see: by name in the line and text, who leads there without ever
# making it appear.
NEVER = {
    # It passes over what is closed.
    ("lh_close", "IS_EQ check failed: -1 (%ld == %ld) !!!"): {"lh_poll_ctx_close_all"},
    # What they write is never empty, is their first text, and holds numbers only.
    ("lh_file_write", "IS_EQ check failed: 0 (%ld == %ld) !!!"): UNITS_THAT_WRITE,
    ("lh_str_add", "PTR_IS_NULL: src"): UNITS_THAT_WRITE | FDSETS,
    ("lh_str_add", "PTR_IS_NULL: tmp"): UNITS_THAT_WRITE,
    ("lh_str_add", "vsnprintf failed"): UNITS_THAT_WRITE | FDSETS,
    # Their texts fit: one digit, the name "1", a pid.
    ("_lh_snprintf", "truncated: '%s'"): UNITS_THAT_LOAD
    | {"lh_netns_set_default", "lh_reload_reason_write"},
    ("lh_netns_fd_get", "lh_snprintf_buf failed for namespace '%s'"): {"lh_netns_set_default"},
    # They remove nothing, and go on after a callback that failed.
    ("lh_dir_rm_nocheck", "PTR_IS_NULL: path"): WALKS,
    ("lh_dir_lookup", "cannot execute requried action on file %s"): WALKS,
    ("lh_dir_lookup", "cannot execute remove action on file %s"): WALKS,
    ("lh_dir_lookup", "cannot execute requried action with directory %s"): WALKS,
    ("lh_dir_lookup", "cannot execute remove action with directory %s"): WALKS,
    # The library's own set and backslash are printable.
    (INSERTER, "PTR_IS_NULL: src"): {"lh_shell_cmd_escaping"},
    (INSERTER, "invalid char: 0x%X"): {"lh_shell_cmd_escaping"},
    # It forces the file, without a look at what is there.
    ("syslog_wireguard_set_default_log_config", "<%s> can't open file %s: %s"): {
        "syslog_wireguard_read_flags_from_savefile"
    },
}


def is_about_an_argument(line: log_lines.Line, source: log_lines.Source) -> bool:
    """Callers within the library look at most of what they hand on; the graph cannot tell."""
    promise = PROMISES.get(source.shown)
    name = re.match(r"\(?(\w+)", line.operand)
    return promise is not None and name is not None and name[1] in promise.parameters


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

    def callers(self) -> Iterator[tuple[log_lines.Line, log_lines.Source, set[str]]]:
        """Every name in every line, with the exported functions that lead to its writing."""
        graph = call_graph.CallGraph(SOURCE)
        for line in CATALOGUE.lines:
            for source in line.sources:
                leading: set[str] = set()
                for site in self.sites:
                    if line in self.lines_of(site) and site.function in ("", source.shown):
                        named = graph.exported_that_reach(site.place, source.shown)
                        inside = graph.exported_that_reach(site.place, site.inside)
                        leading |= named & inside if site.inside else named
                yield line, source, leading

    def test_ALineIsForEveryFunctionThatLeadsToItAndForNoOther(self) -> None:
        unused = dict(NEVER)
        for line, source, leading in self.callers():
            said = set(source.spoken_for)
            never = unused.pop((source.shown, line.text), set())
            with self.subTest(line=line.text, name=source.shown):
                self.assertEqual(said - leading, set(), "these never lead to it")
                self.assertLessEqual(never, leading, "this need not be said")
                if not is_about_an_argument(line, source):
                    self.assertEqual(said, leading - never)
        self.assertEqual(unused, {})

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
        self.assertEqual(set(exports(SOURCE)) - set(PROMISES), {"garp_delay", "shmem_init_err_t"})

    def test_EveryLineInAHeaderIsInTheCatalogueForThatFunction(self) -> None:
        for promise in PROMISES.values():
            of_function = [line for line in CATALOGUE.lines if promise.function in line.functions]
            for span in promise.spans:
                if re.fullmatch(r"[\w>./-]+", span):
                    continue  # a parameter, a function, an operand or a path
                found = any(line.is_said_by(span) for line in of_function)
                with self.subTest(function=promise.function, line=span):
                    self.assertTrue(found)

    def test_AFailingCallIsNotBlamedForANullArgument(self) -> None:
        for promise in PROMISES.values():
            if promise.function == "lh_reload_reason_write":
                continue  # a null reason is no failure
            checks = {f"PTR_IS_NULL: {name}" for name in promise.parameters}
            if checks & set(promise.spans) and promise.errno.startswith("of the failing call"):
                self.assertIn("kept for a null", promise.errno, promise.function)

    def test_TheLinesThatAHeaderRefersToAreForThatFunction(self) -> None:
        for promise in PROMISES.values():
            for name in promise.referred:
                both = {promise.function, name}
                found = any(both <= set(line.functions) for line in CATALOGUE.lines)
                with self.subTest(function=promise.function, refers_to=name):
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
