"""listings_test.py SOURCE BINARY: every command and listing of the documents is what it says.

A fenced block of a document is one of these:

  c        after `<!-- from FILE -->`: lines of that file, "..." between what is left out;
           after `<!-- file NAME -->`: written to NAME for the commands of the page;
           else it must compile.
  console  commands after "$ " or "# " (continued after "> "), then what they say, "..." for anything.
           The blocks of a page are one shell session, in an empty directory of a private world.
           A comment `<!-- before: COMMAND -->` runs a command that the reader need not see.
  sh       verbs of ./dev, or commands that something else runs: see `run_elsewhere`.
  text, yaml, mermaid: nothing to run.
"""

import contextlib
import os
import re
import shlex
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE, BINARY = map(Path, sys.argv[1:3])
DOCUMENTS = sorted(SOURCE.glob("*.md")) + sorted(SOURCE.glob("docs/*.md"))
SKIPPED = 77

# Commands that take too long, or need a machine of their own, for a test: who runs them instead.
run_elsewhere = {
    "cmake --preset release && cmake --build --preset release": "tools/dev/common.sh",
}

BLOCK = re.compile(
    r"(?:^<!-- (?P<note>from|file|before:) (?P<what>[^\n]*?) -->\n)?"
    r"^```(?P<kind>[^\n]*)\n(?P<text>.*?)^```$"
    r"|^<!-- before: (?P<hidden>[^\n]*?) -->$",
    re.M | re.S,
)


def blocks(document: Path):
    for match in BLOCK.finditer(document.read_text()):
        if match["hidden"]:
            yield "hidden", None, match["hidden"]
            continue
        if match["note"] == "before:":
            yield "hidden", None, match["what"]
            yield match["kind"], None, match["text"]
        else:
            note = (match["note"], match["what"]) if match["note"] else None
            yield match["kind"], note, match["text"]


def matcher(expected: str) -> re.Pattern[str]:
    """The expected text as an expression: a line "..." is any lines, "..." in a line anything."""
    parts = []
    for line in expected.splitlines():
        if line.strip() == "...":
            parts.append(r"(?:[^\n]*\n)*?")
        else:
            parts.append(r"[^\n]*?".join(map(re.escape, line.split("..."))) + r"\n")
    return re.compile("".join(parts))


class Session:
    """What a page's commands do, one after another, and what they should have said."""

    def __init__(self) -> None:
        self.script: list[str] = []
        self.expected: list[tuple[str, str]] = []

    def hidden(self, command: str) -> None:
        self.script.append(f"{{ {command}\n}} >/dev/null || exit 99")

    def console(self, text: str) -> None:
        said = ""
        command = ""
        for line in [*text.splitlines(), "$ "]:
            if line.startswith(("$ ", "# ")):
                if command:
                    self.expected.append((command, said))
                    self.script.append(f"{command}\nprintf '\\n@@%d\\n' {len(self.expected)}")
                command, said = line[2:], ""
            elif line.startswith("> "):
                command += "\n" + line[2:]
            else:
                said += line + "\n"

    def run(self, directory: Path) -> list[str]:
        """Runs the script in a private world; the outputs of the commands."""
        staging = directory / "installed"
        home = directory / "home"
        home.mkdir()
        source = directory / "source"  # a name that no page has to quote
        source.symlink_to(SOURCE)
        with installation_notes_kept():
            subprocess.run(
                ["cmake", "--install", BINARY, "--prefix", "/usr/local"],
                check=True,
                stdout=subprocess.DEVNULL,
                env={**os.environ, "DESTDIR": str(staging)},
            )
        world = f"""
            exec 2>&1 </dev/null
            [ "$(readlink /proc/self/ns/mnt)" != "$MACHINE" ] || exit 98
            mount --bind {shlex.quote(str(staging))}/usr/local /usr/local || exit 98
            for place in /run /mnt /var/log /var/cache; do mount -t tmpfs none $place || exit 98; done
            mount --bind "$HOME" "$HOME" && cd || exit 98
            ulimit -c 0
            trap 'kill $(jobs -p) 2>/dev/null' EXIT
            """
        script = "\n".join([world, *self.script, "exit 0"])
        environment = {
            "PATH": f"{BINARY}/examples:/usr/local/bin:/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin",
            "LD_LIBRARY_PATH": "/usr/local/lib",
            "PKG_CONFIG_PATH": "/usr/local/lib/pkgconfig",
            "SOURCE": str(source),
            "MACHINE": os.readlink("/proc/self/ns/mnt"),
            "TZ": "UTC",
            "LC_ALL": "C.UTF-8",
            "HOME": str(home),
        }
        done = subprocess.run(
            [*enter_world(), "bash", "-c", script],
            env=environment,
            capture_output=True,
            text=True,
            timeout=600,
        )
        if done.returncode != 0:
            raise AssertionError(f"exit {done.returncode}\n{done.stdout}\n{done.stderr}")
        return re.split(r"\n@@\d+\n", done.stdout)


@contextlib.contextmanager
def installation_notes_kept():
    """What a user has installed from this build is noted there, for `uninstall`."""
    noted = ["install_directories.txt", "install_manifest.txt"]
    kept = {name: (BINARY / name).read_bytes() for name in noted if (BINARY / name).exists()}
    try:
        yield
    finally:
        for name in noted:
            (BINARY / name).unlink(missing_ok=True)
        for name, contents in kept.items():
            (BINARY / name).write_bytes(contents)


def enter_world() -> list[str]:
    enter = ["unshare", "--mount", "--net"]
    if os.geteuid() != 0:
        enter += ["--user", "--map-root-user"]
    return enter


class Listings(unittest.TestCase):
    def test_console_sessions(self) -> None:
        if subprocess.run([*enter_world(), "true"], capture_output=True).returncode != 0:
            self.skipTest("a private world is not allowed here: the listings are not run")
        for document in DOCUMENTS:
            with self.subTest(document.name), tempfile.TemporaryDirectory() as directory:
                session = Session()
                for kind, note, text in blocks(document):
                    if kind == "hidden":
                        session.hidden(text)
                    elif kind == "console":
                        session.console(text)
                    elif note and note[0] == "file":
                        session.hidden(f"cat >{note[1]} <<'@@'\n{text}@@")
                if not session.expected:
                    continue
                outputs = session.run(Path(directory))
                self.assertEqual(len(outputs), len(session.expected) + 1, "it ended early")
                for (command, expected), output in zip(session.expected, outputs):
                    said = output + ("" if output.endswith("\n") or not output else "\n")
                    if not matcher(expected).fullmatch(said):
                        self.fail(f"$ {command}\nexpected:\n{expected}\nsaid:\n{said}")

    def test_parts_of_files(self) -> None:
        for document in DOCUMENTS:
            for kind, note, text in blocks(document):
                if not note or note[0] != "from":
                    continue
                with self.subTest(f"{document.name}: {note[1]}"):
                    whole = (SOURCE / note[1]).read_text()
                    place = 0
                    for chunk in re.split(r"^\s*\.\.\.\n", text, flags=re.M):
                        place = whole.find(chunk, place)
                        self.assertGreaterEqual(place, 0, f"not in {note[1]}:\n{chunk}")
                        place += len(chunk)

    def test_programs_compile(self) -> None:
        for document in DOCUMENTS:
            for kind, note, text in blocks(document):
                if kind != "c" or note:
                    continue
                with self.subTest(f"{document.name}: {text[:60]}"):
                    compiled = subprocess.run(
                        shlex.split("cc -std=c11 -Wall -Wextra -Werror -fsyntax-only -xc -")
                        + [f"-I{SOURCE}/include"],
                        input=text,
                        capture_output=True,
                        text=True,
                    )
                    self.assertEqual(compiled.returncode, 0, compiled.stderr)

    def test_verbs_are_there(self) -> None:
        for document in DOCUMENTS:
            for kind, _, text in blocks(document):
                if kind != "sh":
                    continue
                for line in filter(None, (l.split("#")[0].strip() for l in text.splitlines())):
                    with self.subTest(f"{document.name}: {line}"):
                        words = line.split()
                        if words[0] == "./dev":
                            verb = SOURCE / f"tools/dev/verbs/{words[1]}.sh" if len(words) > 1 else SOURCE
                            self.assertTrue(verb.exists())
                        else:
                            self.assertTrue((SOURCE / run_elsewhere[line]).exists())

    def test_every_block_says_what_it_is(self) -> None:
        for document in DOCUMENTS:
            for kind, _, text in blocks(document):
                with self.subTest(f"{document.name}: {text[:60]}"):
                    self.assertIn(kind, {"c", "console", "sh", "text", "yaml", "hidden", "cmake"})
                    if kind in {"text", "yaml"}:
                        self.assertNotRegex(text, r"(?m)^[$#] ")


if __name__ == "__main__":
    done = unittest.main(argv=sys.argv[:1], verbosity=2, exit=False).result
    sys.exit(1 if not done.wasSuccessful() else SKIPPED if done.skipped else 0)
