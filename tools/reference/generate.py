#!/usr/bin/env python3
"""Makes the reference: manual pages and HTML from the headers, the snippets and the catalogue of
log lines. Fails where anything public is undocumented."""
import argparse
import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

import man
import model
import site_pages
import texts
from log_lines import read_catalogue
from snippets import read_snippets

SOURCE = Path(__file__).resolve().parents[2]


def gaps(families: list[model.Family], snippets: dict) -> list[str]:
    found = [gap for family in families for gap in model.gaps_of(family)]
    for family in families:
        for member in family.pages:
            if family.name not in snippets or not snippets[family.name].shows(member.name):
                found.append(f"docs/snippets/{family.name}.c does not show {member.name}")
    return found


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument(
        "--output", type=Path, required=True, help="becomes OUTPUT/man and OUTPUT/html"
    )
    parser.add_argument("--version", required=True)
    parser.add_argument("--doxygen", default="doxygen")
    options = parser.parse_args()

    for part in ("man", "html", "doxygen"):
        shutil.rmtree(options.output / part, ignore_errors=True)
    try:
        xml = model.run_doxygen(SOURCE, options.output / "doxygen", options.doxygen)
    except subprocess.CalledProcessError as error:
        print(error.stderr, "reference: a comment in include/ is incomplete", file=sys.stderr)
        return 1
    families = model.read_families(xml)
    snippets = read_snippets(SOURCE / "docs" / "snippets")
    missing = gaps(families, snippets)
    if missing:
        print("\n".join(missing), file=sys.stderr)
        return 1

    front = texts.read_front(SOURCE / "docs" / "reference.txt", families)
    catalogue = read_catalogue(SOURCE / "docs" / "log-lines.txt")
    now = int(os.environ.get("SOURCE_DATE_EPOCH", time.time()))
    date = time.strftime("%Y-%m-%d", time.gmtime(now))
    manual = man.Manual(families, options.version, date)
    manual.write(options.output / "man", front, snippets, catalogue)
    site_pages.write(options.output / "html", front, snippets, catalogue, options.version)
    shutil.rmtree(options.output / "doxygen")
    return 0


if __name__ == "__main__":
    sys.exit(main())
