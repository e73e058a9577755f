"""Every place in the sources that writes a log line, as the preprocessor leaves it."""
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

# What the macros of lh_check.h, log.hpp and debug.hpp end in.
WRITER = re.compile(
    r"\b(lh_check_|lh_check_(?:EQ|NE|LT|MT|is_me|out_of_range)_|log_error|debug_write"
    r"|lh_check_syslog_)\s*\("
)
MARKER = re.compile(r'^# \d+ "([^"]*)".*$')
FUNCTION = re.compile(r"^\S.*?\b(\w+)\((?:[^;]*)$")
STRING = re.compile(r'"((?:[^"\\]|\\.)*)"')
ESCAPE = re.compile(r'\\(["\\n0])')
UNKNOWN = "?"  # an operand that is only known when the program runs
RANGE = "OUT_OF_RANGE check failed: %s is really out of range (%lu %lu %lu) !!!"


@dataclass(frozen=True)
class Site:
    """format is the whole one; text is the operand of a check; function is what the line says."""

    format: str
    text: str
    function: str  # empty where it is only known when the program runs
    inside: str
    flag: str  # of a debug line
    place: str


def own_lines(preprocessed: str, file: Path) -> list[str]:
    """What stands in the file itself; the lines of its headers are left out."""
    lines, own = [], False
    for line in preprocessed.splitlines():
        marker = MARKER.match(line)
        if marker:
            own = Path(marker[1]).name == file.name
        elif own:
            lines.append(line)
    return lines


def arguments_at(text: str, start: int) -> list[str]:
    """The arguments of a call whose opening bracket ends at start."""
    arguments, depth, begin, position = [], 0, start, start
    while True:
        literal = STRING.match(text, position)
        if literal:
            position = literal.end()
            continue
        c = text[position]
        if depth == 0 and c in ",)":
            arguments.append(text[begin:position].strip())
            begin = position + 1
            if c == ")":
                return arguments
        depth += (c in "([{") - (c in ")]}")
        position += 1


def literals_of(argument: str) -> str:
    joined = "".join(STRING.findall(argument))
    return ESCAPE.sub(lambda m: {"n": "\n", "0": "\0"}.get(m[1], m[1]), joined)


def formats_of(argument: str) -> list[str]:
    """The format, or both where the sign of an operand decides."""
    arms, last = [], 0
    for literal in STRING.finditer(argument):
        if not arms or ":" in argument[last : literal.start()]:
            arms.append("")
        arms[-1] += literal[0]
        last = literal.end()
    return [literals_of(arm) for arm in arms]


def function_named(argument: str, inside: str, constants: dict[str, str]) -> str:
    if argument == "__func__":
        return inside
    if STRING.fullmatch(argument):
        return literals_of(argument)
    return constants.get(argument, "")


def sites_of_call(
    writer: str, arguments: list[str], inside: str, constants: dict[str, str], place: str
) -> list[Site]:
    named = lambda position: function_named(arguments[position], inside, constants)
    text = flag = ""
    if writer == "lh_check_":
        formats, function = formats_of(arguments[1]), named(2)
        text = literals_of(arguments[4])
    elif writer == "lh_check_out_of_range_":
        formats, function = ["<%s(%lu):%s:%d> " + RANGE], named(3)
        text = literals_of(arguments[5]) or UNKNOWN
    elif writer in ("log_error", "lh_check_syslog_"):
        first = 0 if writer == "log_error" else 1
        formats, function = formats_of(arguments[first]), named(first + 1)
        if formats and formats[0].endswith("> %s error"):
            text = named(first + 3)
    elif writer == "debug_write":
        flag = arguments[0].upper()
        formats = formats_of(arguments[1])
        function = named(2) if formats and "> <%s" in formats[0] else ""
    else:
        formats, function = formats_of(arguments[-4]), named(-3)
        text = literals_of(arguments[-1])
    return [Site(format, text, function, inside, flag, place) for format in formats]


def sites_of_file(command: list[str], file: Path) -> list[Site]:
    run = subprocess.run([*command, "-E", str(file)], capture_output=True, text=True, check=True)
    lines = own_lines(run.stdout, file)
    text = "\n".join(lines)
    constants = dict(re.findall(r'constexpr const char \*(\w+) = "(\w+)";', text))
    starts, inside = [], ""
    offset = 0
    for line in lines:
        head = FUNCTION.match(line)
        if head and not line.startswith(("#", "static_assert", "using", "constexpr")):
            inside = head[1]
        starts.append((offset, inside))
        offset += len(line) + 1
    sites = []
    for call in WRITER.finditer(text):
        inside = next(name for at, name in reversed(starts) if at <= call.start())
        arguments = arguments_at(text, call.end())
        sites += sites_of_call(call[1], arguments, inside, constants, file.name)
    sites += table_sites(text, constants, file.name)
    return sites


def table_sites(text: str, constants: dict[str, str], place: str) -> list[Site]:
    """Formats that stand in tables: whole ones outside any call."""
    outside = re.sub(r"^[ \t].*\b(?:lh_check|log_error|debug_write).*$", "", text, flags=re.M)
    found = []
    for run in re.findall(r'(?:"(?:[^"\\]|\\.)*"\s*){2,}', outside):
        whole = literals_of(run)
        if whole.startswith("<%s(%lu):%s:%d> ") and not whole.endswith("_NULL: %s"):
            found.append(Site(whole, "", "", "", "", place))
    return found


def call_sites(source: Path, compiler: str) -> list[Site]:
    command = [compiler, "-std=c++20", "-D_GNU_SOURCE", f"-I{source}/include", f"-I{source}/src"]
    files = sorted(source.glob("src/*/*.cpp"))
    with ThreadPoolExecutor(2) as pool:
        found = pool.map(lambda file: sites_of_file(command, file), files)
    return [site for sites in found for site in sites]
