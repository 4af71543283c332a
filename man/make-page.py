#!/usr/bin/env python3
"""make-page.py TEMPLATE PAGE PROGRAM: writes the manual page, with what the program's --help tells in place of @OPTIONS@."""

import re
import subprocess
import sys
from pathlib import Path


def help_of(*command):
    return subprocess.run([*command, "--help"], check=True, capture_output=True, text=True).stdout


def escaped(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text[:1] in (".", "'") else text


def groups_of(text):
    """(heading, [(name, description)]) of each group of a help text."""
    groups = []
    for line in text.splitlines():
        if re.fullmatch(r"\S[^:]*:", line):
            groups.append((line[:-1], []))
        elif item := re.fullmatch(r"  (\S.*?)(?:\s{2,}(.*))?", line):
            if groups:
                groups[-1][1].append((item[1], item[2] or ""))
        elif groups and groups[-1][1] and (more := re.fullmatch(r"\s{8,}(\S.*)", line)):
            name, description = groups[-1][1][-1]
            groups[-1][1][-1] = (name, f"{description} {more[1]}".strip())
    return groups


def list_of(items):
    lines = [".Bl -tag -width Ds"]
    for name, description in items:
        lines.append('.It Sy "{}"'.format(escaped(name).replace('"', '""')))
        if description:
            lines.append(escaped(description))
    return [*lines, ".El"]


def sections_of(text, told):
    """The groups but for the subcommands; a group that was told before is left out."""
    lines = []
    for heading, items in groups_of(text):
        fresh = [item for item in items if item not in told]
        told.update(items)
        if heading != "Subcommands" and fresh:
            lines += [*([".Pp", heading + ":"] if heading != "Options" else []), *list_of(fresh)]
    return lines


def options_of(program):
    text = help_of(program)
    told = set()
    lines = [".Sh OPTIONS", *sections_of(text, told)]
    subcommands = dict(groups_of(text)).get("Subcommands", [])
    if subcommands:
        lines += [".Sh SUBCOMMANDS", "An option that several take is told at the first."]
    for name, description in subcommands:
        lines += [f".Ss {escaped(name)}", escaped(description) + ".", *sections_of(help_of(program, name), told)]
    return "\n".join(lines)


if __name__ == "__main__":
    template, page, program = sys.argv[1:]
    Path(page).write_text(Path(template).read_text().replace("@OPTIONS@", options_of(program)))
