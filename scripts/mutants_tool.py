#!/usr/bin/env python3
"""Small file operations for scripts/mutants.sh.

  sync STAGE SRC     make SRC hold exactly STAGE's files, rewriting only
                     those whose bytes differ (so a rebuild stays small)
  swap FILE OLD NEW  replace OLD by NEW in FILE; OLD must stand there once
  regex NAME         an anchored regular expression matching NAME exactly
"""
import filecmp
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


def main():
    command, args = sys.argv[1], sys.argv[2:]
    if command == "sync":
        sync(*args)
    elif command == "swap":
        swap(*args)
    elif command == "regex":
        print("^" + re.escape(args[0]) + "$")
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
