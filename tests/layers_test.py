#!/usr/bin/env python3
"""Holds every include of the library's sources against the arrows between its rooms."""
import re
import sys
import unittest
from pathlib import Path

TREE = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TREE / "tools" / "reference"))

from boundary import exports
SOURCES = TREE / "src"
HEADERS = TREE / "include"

# What a room may use besides itself; docs/pictures/rooms.dot draws the same arrows.
KNOWN = {
    "core": set(),
    "text": {"core"},
    "fs": {"core", "text"},
    "ns": {"core", "text"},
    "loop": {"core", "text"},
    "yaml": {"core", "text"},
    "watch": {"core", "fs", "ns"},
    "config": {"core", "text", "fs"},
    "exec": {"core", "text", "loop"},
}

# Against the arrows and right as it is: who includes what, and why.
EXCEPTIONS = {
    ("src/core/list.hpp", "lh_list.h"): "the record of a link, which both lists share; no call",
}

# The checks are macros: no source defines them.
WITHOUT_SYMBOLS = {"lh_check.h": "core"}

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*(?:"([^"\n]+)"|<([^>\n]+)>)', re.M)


def defining_rooms(name: str) -> set[str]:
    """The rooms with a source that defines an exported name; a definition is not indented."""
    definition = re.compile(rf"^(?:\w[^\n(=]*[ *])?{name}\b", re.M)
    return {
        source.parent.name
        for source in SOURCES.glob("*/*.cpp")
        if definition.search(source.read_text())
    }


def rooms_of_headers() -> dict[str, set[str]]:
    """The rooms that define what each public header declares: one each, where all is well."""
    rooms = {header: {room} for header, room in WITHOUT_SYMBOLS.items()}
    for name, header in exports(TREE).items():
        rooms.setdefault(header, set()).update(defining_rooms(name))
    return rooms


ROOM_OF_HEADER = {
    header: next(iter(rooms)) for header, rooms in rooms_of_headers().items() if len(rooms) == 1
}


def room_of(file: Path) -> str:
    """The room that a file of the tree belongs to; for a file of no room, its folder."""
    if file.parent == HEADERS:
        return ROOM_OF_HEADER.get(file.name, f"no room: {file.name}")
    place = file.relative_to(TREE).parts
    return place[1] if place[0] == "src" and len(place) > 2 else place[0]


def included_file(includer: Path, name: str) -> Path | None:
    """The file of the tree that an include can mean; none for one of the system's."""
    places = [includer.parent, SOURCES, HEADERS, TREE]
    places += [TREE / folder for folder in ("tests", "examples", "platform")]
    for place in places:
        file = (place / name).resolve()
        if file.is_file() and file.is_relative_to(TREE):
            return file
    return None


def includes() -> list[tuple[Path, str, Path | None]]:
    """Who includes what under which name: all quoted names, and all others that the tree has."""
    found = []
    for includer in sorted([*SOURCES.rglob("*.[ch]pp"), *HEADERS.glob("*.h")]):
        for quoted, other in INCLUDE.findall(includer.read_text()):
            file = included_file(includer, quoted or other)
            if quoted or file is not None:
                found.append((includer, quoted or other, file))
    return found


def is_allowed(includer: Path, included: Path) -> bool:
    room = room_of(includer)
    return room_of(included) in KNOWN.get(room, set()) | {room}


class TheRooms(unittest.TestCase):
    def test_EachFolderOfTheSourcesIsARoom(self) -> None:
        self.assertEqual({path.name for path in SOURCES.iterdir() if path.is_dir()}, set(KNOWN))

    def test_EachPublicHeaderBelongsToOneRoom(self) -> None:
        rooms = rooms_of_headers()
        self.assertEqual({header.name for header in HEADERS.glob("*.h")}, set(rooms))
        for header, defining in rooms.items():
            self.assertEqual(len(defining), 1, f"{header} is defined in {defining}")
            self.assertLessEqual(defining, set(KNOWN), header)

    def test_NoArrowLeadsBack(self) -> None:
        below: set[str] = set()
        while len(below) < len(KNOWN):
            lowest = {room for room in set(KNOWN) - below if KNOWN[room] <= below}
            self.assertTrue(lowest, f"{set(KNOWN) - below} use each other")
            below |= lowest

    def test_ThePictureShowsTheSameArrows(self) -> None:
        drawn = set(
            re.findall(r"(\w+) -> (\w+);", (TREE / "docs/pictures/rooms.dot").read_text())
        )
        arrows = {(room, other) for room, known in KNOWN.items() for other in known}
        # Everyone may use core, so only the lowest room's arrow to it is drawn.
        self.assertEqual(drawn, {a for a in arrows if a[1] != "core"} | {("text", "core")})


class TheIncludes(unittest.TestCase):
    def test_AllAreFound(self) -> None:
        self.assertGreater(len(includes()), 100)
        for includer, name, file in includes():
            self.assertIsNotNone(file, f'{includer.relative_to(TREE)} includes "{name}"')

    def test_NoneLeadsAgainstTheArrows(self) -> None:
        for includer, name, file in includes():
            place = str(includer.relative_to(TREE))
            if file is None or (place, name) in EXCEPTIONS:
                continue
            with self.subTest(file=place, include=name):
                message = f"{room_of(includer)} does not know {room_of(file)}"
                self.assertTrue(is_allowed(includer, file), message)

    def test_EachExceptionIsStillNeeded(self) -> None:
        against = {
            (str(includer.relative_to(TREE)), name)
            for includer, name, file in includes()
            if file is not None and not is_allowed(includer, file)
        }
        self.assertLessEqual(set(EXCEPTIONS), against)


if __name__ == "__main__":
    unittest.main(verbosity=2)
