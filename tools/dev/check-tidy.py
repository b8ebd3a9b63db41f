#!/usr/bin/env python3
"""check-tidy.py TREE CACHE JOBS [FILE...]: clang-tidy over the C and C++ files that TREE compiles
(only those whose path contains a FILE, if any is given).

A file that passed is not looked at again until its preprocessed text, its command or the settings
change: CACHE has an empty file for each text that passed."""

import concurrent.futures
import hashlib
import json
import pathlib
import shlex
import subprocess
import sys
import time

TIDY = "clang-tidy-14"


def entries(tree, wanted):
    """The compile commands of the project's own files, one for each file."""
    root = tree.parent
    found = {}
    for entry in json.loads((tree / "compile_commands.json").read_text()):
        file = pathlib.Path(entry["file"])
        if tree in file.parents or root not in file.parents:
            continue
        name = str(file.relative_to(root))
        if not wanted or any(part in name for part in wanted):
            found[name] = entry
    return found


def preprocessed(entry):
    """What the compiler sees, with the comments: some of them speak to clang-tidy."""
    words = shlex.split(entry["command"])
    if words[0].endswith("ccache"):
        words = words[1:]
    del words[words.index("-o"):words.index("-o") + 2]
    words[words.index("-c"):words.index("-c") + 1] = ["-E", "-C"]
    return subprocess.run(words, cwd=entry["directory"], check=True, capture_output=True).stdout


def settings(root):
    text = subprocess.run([TIDY, "--version"], check=True, capture_output=True).stdout
    for path in sorted(root.rglob(".clang-tidy")):
        text += path.read_bytes()
    return text


def check(name, entry, tree, common, cache):
    """(name, what clang-tidy found or None, seconds; 0 when it was known)."""
    begin = time.monotonic()
    text = preprocessed(entry).replace(bytes(tree.parent), b"")
    key = hashlib.sha256(common + name.encode() + b"\0" + text).hexdigest()
    if (cache / key).exists():
        return name, None, 0
    result = subprocess.run([TIDY, "--quiet", "-p", tree, entry["file"]], capture_output=True, text=True)
    if result.returncode == 0:
        (cache / key).touch()
        return name, None, time.monotonic() - begin
    return name, result.stdout + "".join(
        line for line in result.stderr.splitlines(True) if "error" in line), time.monotonic() - begin


def main(tree, cache, jobs, *wanted):
    tree, cache = pathlib.Path(tree).resolve(), pathlib.Path(cache)
    cache.mkdir(parents=True, exist_ok=True)
    common = settings(tree.parent)
    failed, known, files = [], 0, entries(tree, wanted)
    with concurrent.futures.ThreadPoolExecutor(int(jobs)) as pool:
        checks = [pool.submit(check, name, entry, tree, common, cache) for name, entry in files.items()]
        for done in concurrent.futures.as_completed(checks):
            name, found, seconds = done.result()
            known += seconds == 0
            if found is not None:
                failed.append(name)
                print(found, flush=True)
    print(f"{len(files)} files, {known} of them known to be clean, {len(failed)} with findings")
    return 1 if failed or not files else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
