"""Which function of the sources leads to which: by a call, or by handing it over to be called."""
import re
from collections import defaultdict
from collections.abc import Iterator
from pathlib import Path

from boundary import exports

HEAD = re.compile(
    r"^(?:class|struct) (\w+) \{"
    r"|^(?!#|static_assert|using|extern|template|namespace)\S.*?\b(\w+)\([^;]*$"
)
COMMENT_OR_STRING = re.compile(r'//.*$|"(?:[^"\\]|\\.)*"', re.MULTILINE)


def functions_of(text: str) -> Iterator[tuple[str, bool, str]]:
    """Name, whether its file keeps it to itself, and body. A class counts as one function."""
    name, body, namespaces = "", "", []
    for line in COMMENT_OR_STRING.sub("", text).splitlines():
        head = HEAD.match(line)
        if head and not name:
            name = head[1] or head[2]
        elif name and line.startswith("}"):
            yield name, True in namespaces, body
            name, body = "", ""
        elif line.startswith(("namespace", "extern")) and line.endswith("{"):
            namespaces.append(line == "namespace {")
        elif line.rstrip() == "}":
            namespaces.pop()
        elif name:
            body += line + "\n"


class CallGraph:
    def __init__(self, source: Path) -> None:
        self.exported = set(exports(source))
        files = sorted(path for path in source.glob("src/*/*.?pp"))
        found = [
            (path.name, *function) for path in files for function in functions_of(path.read_text())
        ]
        # Where a file keeps a name to itself, nobody else means it.
        self.homes = {(file if is_local else "", name) for file, name, is_local, _ in found}
        self.callers: dict[tuple[str, str], set[tuple[str, str]]] = defaultdict(set)
        for file, name, _, body in found:
            for mentioned in set(re.findall(r"\w+", body)):
                self.callers[self.home(file, mentioned)].add(self.home(file, name))

    def home(self, file: str, name: str) -> tuple[str, str]:
        return (file, name) if (file, name) in self.homes else ("", name)

    def exported_that_reach(self, file: str, name: str) -> set[str]:
        """The exported functions that may be running when this one is, itself included."""
        seen = {self.home(file, name)}
        waiting = list(seen)
        while waiting:
            fresh = self.callers[waiting.pop()] - seen
            seen |= fresh
            waiting += fresh
        return {name for _, name in seen} & self.exported
