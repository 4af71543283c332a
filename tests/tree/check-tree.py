#!/usr/bin/env python3
"""check-tree.py [ROOT]: holds the sources to the rules of the house, and prints each breach as FILE:LINE: WHAT."""

import re
import sys
from pathlib import Path

# Bottom up. A folder includes itself and what stands on a lower line; neighbours on a line do not include each other.
ROOMS = [
    ["platform/value"],
    ["platform/base"],
    ["platform/crypto", "platform/loop"],
    ["platform/formats", "platform/http", "platform/bus", "platform/sandbox"],
    ["platform/device", "platform/system"],
]
HOUSE = ROOMS + [["framework"], ["util"], ["storebag", "backends"], ["session"], ["service"]]

# What stands beside the house includes itself and these.
SHARED = ["platform/value", "platform/base", "platform/bus", "framework"]
PLATFORM = [room for line in ROOMS for room in line]
DAEMON = [folder for line in HOUSE for folder in line]
BESIDE = {
    "client": SHARED,
    "collector": PLATFORM + ["tools/common"],
    "tools": PLATFORM + ["framework", "util", "storebag", "backends", "client/include"],
    "examples": DAEMON + ["client/include"],
    "tests": DAEMON + ["client", "collector", "tools"],
    "bench": DAEMON + ["client", "tests/support"],
}

# Pure interfaces, which session/ implements and calls.
EXCEPTIONS = {("session", "service/protocols.h")}

PUBLIC_INCLUDES = ["client/include", "backends/include"]
MOST_LINES = 400


def allowed_folders():
    allowed = {folder: [folder, *others] for folder, others in BESIDE.items()}
    below = []
    for line in HOUSE:
        for folder in line:
            allowed[folder] = [folder, *below]
        below += line
    return allowed


def is_within(path, folder):
    return path.startswith(folder + "/")


def files_of(root, *suffixes):
    """Paths below the root, in the order of their names; what is built or hidden is left out."""
    found = (path.relative_to(root) for suffix in suffixes for path in root.rglob("*" + suffix))
    return sorted(str(path) for path in found
                  if path.parts[0] != "build" and not any(part.startswith(".") for part in path.parts))


class Tree:
    def __init__(self, root):
        self.root = root
        self.lines = {path: (root / path).read_text().splitlines() for path in files_of(root, ".h", ".cpp", ".c")}
        self.includes = {path: list(self.includes_of(path)) for path in self.lines}
        self.built = set(self.files_named_in_build_files())
        self.breaches = []

    def includes_of(self, path):
        """(line, header) of each include of a header of the project's, or of what should be one."""
        for number, text in enumerate(self.lines[path], 1):
            match = re.match(r'\s*#\s*include\s+(?:"([^"]+)"|<(quorvane/[^>]+)>)', text)
            if match:
                yield number, self.resolved(match[1] or match[2])

    def resolved(self, name):
        places = [name, *(f"{folder}/{name}" for folder in PUBLIC_INCLUDES)]
        return next((place for place in places if place in self.lines), name)

    def files_named_in_build_files(self):
        for file in files_of(self.root, "CMakeLists.txt"):
            text = re.sub(r"#.*", "", (self.root / file).read_text())
            for name in re.findall(r"[^\s()\";]+\.(?:h|cpp|c)\b", text):
                top = "${PROJECT_SOURCE_DIR}/"
                yield name[len(top):] if name.startswith(top) else str(Path(file).parent / name)

    def report(self, path, line, what):
        self.breaches.append(f"{path}:{line}: {what}")

    def check_layers(self):
        allowed = allowed_folders()
        for path, includes in self.includes.items():
            folder = next((folder for folder in allowed if is_within(path, folder)), None)
            if folder is None:
                self.report(path, 1, "lies in no folder that the table of this check knows")
                continue
            for line, header in includes:
                if header not in self.lines:
                    self.report(path, line, f"includes {header}, which is not in the tree")
                elif (folder, header) not in EXCEPTIONS and not any(is_within(header, a) for a in allowed[folder]):
                    self.report(path, line, f"{folder}/ may not include {header}")

    def check_sizes(self):
        for path, lines in self.lines.items():
            if len(lines) > MOST_LINES:
                self.report(path, MOST_LINES + 1, f"has {len(lines)} lines, more than {MOST_LINES}")

    def check_build_files(self):
        for path in self.lines:
            if not path.endswith(".h") and path not in self.built:
                self.report(path, 1, "no CMakeLists.txt names it")

    def check_dead_headers(self):
        used = {header for path, includes in self.includes.items() for _, header in includes if header != path}
        for path in self.lines:
            if path.endswith(".h") and path not in used and path not in self.built:
                self.report(path, 1, "nothing includes it and nothing installs it")

    def check_cycles(self):
        finished = set()

        def visit(path, way):
            for line, header in self.includes.get(path, []):
                if header in way:
                    circle = " > ".join([*way[way.index(header):], header])
                    self.report(path, line, f"closes a circle of includes: {circle}")
                elif header not in finished:
                    visit(header, [*way, header])
            finished.add(path)

        for path in self.lines:
            if path not in finished:
                visit(path, [path])


def main():
    root = Path(sys.argv[1]) if len(sys.argv) > 1 else Path(__file__).resolve().parents[2]
    tree = Tree(root)
    if not tree.lines:
        sys.exit(f"{root} holds no sources")
    tree.check_layers()
    tree.check_sizes()
    tree.check_build_files()
    tree.check_dead_headers()
    tree.check_cycles()
    print("\n".join(tree.breaches) or f"{len(tree.lines)} files keep the rules")
    sys.exit(1 if tree.breaches else 0)


if __name__ == "__main__":
    main()
