#!/usr/bin/env python3
"""make-library-page.py TEMPLATE PAGE HEADER: writes the manual page, with the header's first comment in place of @COMMENT@
and its declarations in place of @DECLARATIONS@."""

import re
import sys
from pathlib import Path


def escaped(line):
    line = line.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + line if line[:1] in (".", "'") else line


def literal(lines):
    return [".Bd -literal", *map(escaped, lines), ".Ed"]


def paragraph(text):
    lines = text.strip("\n").splitlines()
    if lines[0].startswith("       "):
        return literal(line[7:] for line in lines)
    # A sentence begins a line.
    return re.sub(r"(?<=\w[.]) +(?=[A-Z])", "\n", escaped(" ".join(line.strip() for line in lines))).splitlines()


def description(comment):
    """The paragraphs; those that follow each other without a gap are one literal."""
    text = re.sub(r"\n\n(?=       )", "\n\0\n", comment)
    parts = [part for part in re.split(r"\n\n|\n\0\n", text) if part.strip()]
    return [line for number, part in enumerate(parts)
            for line in ([".Pp"] if number and not part.startswith("       ") else []) + paragraph(part)]


if __name__ == "__main__":
    template, page, header = sys.argv[1:]
    source = Path(header).read_text()
    comment = re.match(r"/\* (.*?) \*/", source, re.DOTALL)[1]
    declarations = re.search(r"#pragma GCC visibility push\(default\)\n+(.*?)\n+#pragma GCC visibility pop", source, re.DOTALL)[1]
    Path(page).write_text(Path(template).read_text()
                          .replace("@COMMENT@", "\n".join(description(comment)))
                          .replace("@DECLARATIONS@", "\n".join(literal(declarations.splitlines()))))
