"""pictures_test.py SOURCE BINARY: the documents' pictures are drawn from the texts beside them, the
watcher's text and table are those of the source, and every link in the documents leads somewhere."""

import hashlib
import re
import subprocess
import sys
import unittest
from pathlib import Path

SOURCE, BINARY = map(Path, sys.argv[1:3])
PICTURES = SOURCE / "docs/pictures"
DOCUMENTS = sorted(SOURCE.glob("*.md")) + sorted(SOURCE.glob("docs/*.md"))


def watcher(form: str) -> str:
    return subprocess.run(
        [BINARY / "tests/watcher_states", form], check=True, capture_output=True, text=True
    ).stdout


class Pictures(unittest.TestCase):
    def test_each_is_drawn_from_its_text(self) -> None:
        texts = sorted([*PICTURES.glob("*.dot"), *PICTURES.glob("*.msc")])
        self.assertGreaterEqual(len(texts), 3)
        for text in texts:
            digest = hashlib.sha256(text.read_bytes()).hexdigest()
            picture = text.with_suffix(".svg").read_text()
            self.assertIn(f"drawn from {text.name}, sha256 {digest} ", picture, "run ./dev docs")

    def test_the_watchers_are_those_of_the_source(self) -> None:
        self.assertEqual((PICTURES / "watcher.dot").read_text(), watcher("dot"), "run ./dev docs")
        self.assertIn(watcher("table"), (SOURCE / "docs/watcher.md").read_text())

    def test_each_is_shown(self) -> None:
        shown = "".join(document.read_text() for document in DOCUMENTS)
        for picture in PICTURES.glob("*.svg"):
            self.assertIn(f"](pictures/{picture.name})", shown)


class Links(unittest.TestCase):
    def test_each_leads_to_a_file_of_the_tree(self) -> None:
        for document in DOCUMENTS:
            for link in re.findall(r"\]\(([^)#:]+)(?:#[^)]*)?\)", document.read_text()):
                self.assertTrue((document.parent / link).exists(), f"{document.name}: {link}")

    def test_each_named_file_is_there(self) -> None:
        named = re.compile(r"`((?:src|include|tests|tools|docs|examples|platform)/[\w./-]*\w)`")
        for document in DOCUMENTS:
            if document.name == "CHANGELOG.md":
                continue
            for name in named.findall(document.read_text()):
                self.assertTrue((SOURCE / name).exists(), f"{document.name}: {name}")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
