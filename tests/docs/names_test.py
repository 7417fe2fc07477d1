#!/usr/bin/env python3
"""Check that the files, folders and identifiers that documents name exist, and that a table names every function.

usage: names_test.py SOURCE_FOLDER
"""
import pathlib
import re
import sys

# Folders that a name may be relative to, besides that of the project.
RELATIVE_TO = ["", "src", "docs"]
# Parts of a name that stand for any name.
PLACEHOLDER = re.compile(r"\b(FILE|FOLDER|MACHINE|NAME|PREFIX|TARGET|USER)")
# Relative to an installation's prefix.
INSTALLED = "share/"
# Only this page is about the source, so that other identifiers in it are the project's.
PAGE_ON_THE_SOURCE = "docs/design.md"


def names_in(document):
    """Yield each name in a document that is written as code, outside of blocks."""
    text = re.sub(r"```.*?```", "", document.read_text(), flags=re.DOTALL)
    yield from re.findall(r"`([^`\n]+)`", text)


def is_path(name):
    return re.fullmatch(r"[\w.-]+(/[\w.-]*)+", name) and not PLACEHOLDER.search(name) and not name.startswith(INSTALLED)


def is_identifier(name):
    return re.fullmatch(r"[A-Za-z_]\w+(::\w+)*", name)


def functions_missing_from_table(source):
    """Yield each function of the interface that the table of what calls wait for lacks."""
    page = source / "docs/threads-fork-exit.md"
    rows = "\n".join(line.split("|")[1] for line in page.read_text().splitlines() if line.startswith("| `GVUSB_"))
    header = (source / "include/gvusb.h").read_text()
    for function in sorted(set(re.findall(r"\b(GVUSB_[A-Z][A-Za-z]+)\(", header))):
        if f"`{function}`" not in rows:
            yield f"{page.relative_to(source)}: the table of what each function waits for lacks {function}"


def main():
    source = pathlib.Path(sys.argv[1])
    documents = [source / "README.md", source / "CONTRIBUTING.md", *sorted((source / "docs").glob("*.md"))]
    code = "\n".join(path.read_text() for folder in ["include", "src", "emulator", "fleet"]
                     for path in sorted((source / folder).rglob("*.[ch]*")) if path.is_file())
    known = set(re.findall(r"\w+", code))
    checked = 0
    mistakes = []
    for document in documents:
        shown = document.relative_to(source)
        for name in names_in(document):
            if is_path(name):
                checked += 1
                if not any((source / folder / name).exists() for folder in RELATIVE_TO):
                    mistakes.append(f"{shown}: {name} does not exist")
            elif str(shown) == PAGE_ON_THE_SOURCE and is_identifier(name):
                checked += 1
                if not known.issuperset(name.split("::")):
                    mistakes.append(f"{shown}: {name} does not occur in the source")
    mistakes += functions_missing_from_table(source)
    print(f"{checked} names checked")
    print(*mistakes, sep="\n", end="\n" if mistakes else "")
    return 1 if mistakes or checked == 0 else 0


sys.exit(main())
