#!/usr/bin/env python3
"""Small file operations for scripts/mutants.sh.

  sync STAGE SRC     make SRC hold exactly STAGE's files, rewriting only
                     those whose bytes differ (so a rebuild stays small)
  swap FILE OLD NEW  replace OLD by NEW in FILE; OLD must stand there once
  regex NAME         an anchored regular expression matching NAME exactly
  draw SEED COUNT ROOT FILE...
                     the first COUNT faults of a random order (seeded) of
                     the sites of the given sources, in the format of
                     mutants.list
"""
import filecmp
import random
import os
import re
import shutil
import sys


def sync(stage, src):
    for base, dirs, files in os.walk(src, topdown=False):
        for name in files + dirs:
            path = os.path.join(base, name)
            if not os.path.lexists(os.path.join(stage, os.path.relpath(path, src))):
                if os.path.isdir(path) and not os.path.islink(path):
                    shutil.rmtree(path)
                else:
                    os.remove(path)
    for base, _, files in os.walk(stage):
        for name in files:
            s = os.path.join(base, name)
            d = os.path.join(src, os.path.relpath(s, stage))
            if not (os.path.exists(d) and filecmp.cmp(s, d, shallow=False)):
                os.makedirs(os.path.dirname(d), exist_ok=True)
                shutil.copy2(s, d)
                os.utime(d)  # newer than anything built from the old copy


def swap(path, old, new):
    with open(path) as f:
        text = f.read()
    if text.count(old) != 1:
        sys.exit(f"{path}: the text stands {text.count(old)} times: {old}")
    with open(path, "w") as f:
        f.write(text.replace(old, new))


# Small faults of the kinds a slip of the hand makes. Each is tried at every
# place on a line where its pattern stands; one place is one site.
OPERATORS = [
    ("cmp-lt", r"(?<![<\w:])\s<\s(?![<=])", " <= "),
    ("cmp-le", r"\s<=\s", " < "),
    ("cmp-gt", r"(?<![->])\s>\s(?![>=])", " >= "),
    ("cmp-ge", r"\s>=\s", " > "),
    ("cmp-eq", r"\s==\s", " != "),
    ("cmp-ne", r"\s!=\s", " == "),
    ("and-or", r"\s&&\s", " || "),
    ("or-and", r"\s\|\|\s", " && "),
    ("plus-minus", r"(?<=\w|\))\s\+\s(?=\w|\()", " - "),
    ("minus-plus", r"(?<=\w|\))\s-\s(?=\w|\()", " + "),
    ("const", r"(?<![\w.])([0-9]+)(?![\w.'])", None),
    ("bool", r"\b(true|false)\b", None),
    ("negate-if", r"\bif \((.*)\)( \{|)$", None),
]
# A statement that is one call: deleting it must still compile.
CALL = re.compile(r"^(\s*)(?!return\b|delete\b|throw\b|case\b)[\w:.>\-\[\]*]+(<[^;]*>)?\(.*\);$")
SKIP = re.compile(r"^\s*(#|//|\*|/\*)|static_assert|TOVSIM|\bconstexpr\b.*\[\]")


def replacement(name, match):
    if name == "const":
        return str(int(match.group(1)) + 1)
    if name == "bool":
        return "false" if match.group(1) == "true" else "true"
    if name == "negate-if":
        return "if (!(" + match.group(1) + "))" + match.group(2)
    return None


STRING = re.compile(r'"(?:[^"\\\\]|\\\\.)*"|\'(?:[^\'\\\\]|\\\\.)*\'')
ARRAY = re.compile(r"\b(?:int|char|bool|double|long|size_t|uint8_t)\s*(?:\(&\w+\)|\w+)\[\d+\]")
STARTS = (";", "{", "}", ":")


def quoted(line):
    """Character positions inside string or character literals, or in a
    trailing comment."""
    inside = set()
    for m in STRING.finditer(line):
        inside.update(range(m.start(), m.end()))
    comment = next((i for i in range(len(line) - 1)
                    if line.startswith("//", i) and i not in inside), None)
    if comment is not None:
        inside.update(range(comment, len(line)))
    return inside


def sites(root, path):
    with open(os.path.join(root, path)) as f:
        text = f.read()
    lines = text.split("\n")
    previous = ""
    for number, line in enumerate(lines, 1):
        before, previous = previous, line.strip() or previous
        # swap() needs the line to stand once in the file, also as a part
        # of a longer line.
        if text.count(line) != 1 or SKIP.search(line):
            continue
        inside = quoted(line)
        arrays = set()
        for m in ARRAY.finditer(line):
            arrays.update(range(m.start(), m.end()))
        for name, pattern, to in OPERATORS:
            for m in re.finditer(pattern, line):
                if inside & set(range(m.start(), m.end())):
                    continue
                if name == "const" and m.start() in arrays:
                    continue
                new = to if to is not None else replacement(name, m)
                yield name, number, line, line[: m.start()] + new + line[m.end():]
        if CALL.match(line) and before.endswith(STARTS) and not inside:
            yield "delete-call", number, line, CALL.match(line).group(1) + ";"


def draw(seed, count, root, *paths):
    found = [(p,) + s for p in paths for s in sites(root, p)]
    # A shuffle, so that a longer draw with the same seed begins with the
    # faults of a shorter one; the caller stops at the faults it needs.
    random.Random(int(seed)).shuffle(found)
    for path, name, number, old, new in found[: int(count)]:
        stem = os.path.splitext(os.path.basename(path))[0]
        print(f"r{seed}-{stem}-{number}-{name}\t{path}\t{old}\t{new}")


def main():
    command, args = sys.argv[1], sys.argv[2:]
    if command == "sync":
        sync(*args)
    elif command == "swap":
        swap(*args)
    elif command == "draw":
        draw(*args)
    elif command == "regex":
        print("^" + re.escape(args[0]) + "$")
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
