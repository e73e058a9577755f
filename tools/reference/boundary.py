"""The exported names, from the list that is the boundary."""

import re
from pathlib import Path


def exports(source: Path) -> dict[str, str]:
    """The header of each exported name."""
    found: dict[str, str] = {}
    header = ""
    for line in (source / "src" / "exports.map").read_text().splitlines():
        section, name = re.match(r" +/\* (\w+\.h) \*/", line), re.match(r" +(\w+);", line)
        if section:
            header = section[1]
        elif name:
            found[name[1]] = header
    return found
