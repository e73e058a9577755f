"""The programs of docs/snippets, and the part of one that shows a function."""
import re
from dataclasses import dataclass
from pathlib import Path

# A function of clang-format's shape, or a record, with the comment above it.
BLOCK = re.compile(
    r"(?:^/\*(?:(?!\*/).)*\*/\n)?"
    r"(?:^(?:struct|enum) (?P<record>\w*) ?\{\n.*?^\};\n"
    r"|^(?=\w)[^;{}]*?(?P<function>\w+)\([^;{}]*\)\n\{\n.*?^\}\n)",
    re.MULTILINE | re.DOTALL,
)
COMMENT_OR_TEXT = re.compile(r"/\*.*?\*/|\"(?:[^\"\\]|\\.)*\"", re.DOTALL)
PRINTS = re.compile(r"\n/\* Prints:\n(.*?) \*/\n", re.DOTALL)


@dataclass
class Block:
    name: str
    text: str
    is_record: bool

    def names(self, name: str) -> bool:
        return re.search(rf"\b{name}\b", COMMENT_OR_TEXT.sub("", self.text)) is not None


@dataclass
class Snippet:
    file: str
    program: str
    output: str
    blocks: list[Block]

    def shows(self, name: str) -> bool:
        """Does the program call it, hand it over as a callback, or read it?"""
        code = COMMENT_OR_TEXT.sub("", self.program)
        return re.search(rf"\b{name}\s*(?:\(|[=!]=)|= {name}\b", code) is not None

    def excerpt(self, name: str) -> str:
        """The function of the program that shows it, after what it needs to be understood."""
        users = [block for block in self.blocks if not block.is_record and block.names(name)]
        chosen = next((block for block in users if block.name != "main"), users[0])
        parts = [chosen]
        if chosen.name != "main":
            # Its callbacks and helpers, and the records that they all work on.
            helpers = [
                block
                for block in self.blocks
                if block is not chosen and not block.is_record and chosen.names(block.name)
            ]
            parts = helpers + parts
            records = [
                block
                for block in self.blocks
                if block.is_record and any(part.names(f"struct {block.name}") for part in parts)
            ]
            parts = records + parts
        return "\n".join(part.text for part in parts).rstrip()


def read_snippet(path: Path) -> Snippet:
    text = path.read_text(encoding="utf-8")
    prints = PRINTS.search(text)
    if prints is None:
        raise ValueError(f"{path}: no comment says what the program prints")
    program = text[: prints.start()].rstrip() + "\n"
    output = re.sub(r"^ \* ?", "", prints[1], flags=re.MULTILINE)
    blocks = [
        Block(found["record"] or found["function"] or "", found[0], found["function"] is None)
        for found in BLOCK.finditer(program)
    ]
    return Snippet(path.name, program, output, blocks)


def read_snippets(directory: Path) -> dict[str, Snippet]:
    """By the name of the family."""
    return {path.stem: read_snippet(path) for path in sorted(directory.glob("*.c"))}
