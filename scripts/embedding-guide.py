#!/usr/bin/env python3
"""Keeps the programs shown in docs/embedding.md identical to the files CI builds.

Each fenced block preceded by a line `<!-- example: PATH -->` shows the file PATH whole.
  scripts/embedding-guide.py          rewrites those blocks from the files
  scripts/embedding-guide.py --check  exits 1, naming each block that differs from its file
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
GUIDE = ROOT / "docs" / "embedding.md"
BLOCK = re.compile(r"(<!-- example: (?P<path>\S+) -->\n```(?P<lang>\w*)\n)(?P<body>.*?)(```\n)", re.S)


def main(argv):
    if any(a in ("-h", "--help") for a in argv):
        print(__doc__.strip())
        return 0
    check = "--check" in argv
    text = GUIDE.read_text()
    stale = []

    def replace(match):
        path = ROOT / match["path"]
        if not path.is_file():
            stale.append(f"{match['path']}: no such file")
            return match.group(0)
        content = path.read_text()
        if not content.endswith("\n"):
            content += "\n"
        if content != match["body"]:
            stale.append(match["path"])
        return match.group(1) + content + match.group(5)

    updated = BLOCK.sub(replace, text)
    if check:
        for problem in stale:
            print(f"docs/embedding.md: {problem}: the block differs from the file (run scripts/embedding-guide.py)")
        return 1 if stale else 0
    GUIDE.write_text(updated)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
