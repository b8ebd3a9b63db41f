#!/usr/bin/env python3
"""Plants faults in a copy of the tree, one at a time, and says which of them the tests catch.

The faults stand in mutations.toml beside this file: each names a file, a text that occurs in it once, what
to put in its place, and the tests (a filter of norvo_tests) that must fail. A suite counts only when it
passes without the fault. The copy is a git worktree of the last commit; nothing is changed in this tree.
"""

import argparse
import concurrent.futures
import contextlib
import dataclasses
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import tomllib

ROOT = pathlib.Path(__file__).resolve().parents[2]
TABLE = pathlib.Path(__file__).with_name("mutations.toml")
CONFIGURE = ["cmake", "--preset", "release", "-DNORVO_BUILD_BENCH=OFF"]
BUILD_LIMIT = 1800  # seconds

children = set()  # process groups to end with this program
children_lock = threading.Lock()
stopped = threading.Event()


@dataclasses.dataclass(frozen=True)
class Fault:
    name: str
    what: str
    file: str
    pattern: str
    replacement: str
    suite: str
    limit: int = 120  # seconds for the suite


class Problem(Exception):
    """What keeps a fault from being tried."""


def read_table():
    with open(TABLE, "rb") as file:
        faults = [Fault(**row) for row in tomllib.load(file)["fault"]]
    names = [fault.name for fault in faults]
    if twice := sorted({name for name in names if names.count(name) > 1}):
        sys.exit(f"mutate.py: {TABLE.name} has two faults called {', '.join(twice)}")
    return faults


def changed(fault, root):
    """The file's text with the fault in it."""
    path = root / fault.file
    if not path.is_file():
        raise Problem(f"{fault.file} is not there")
    text = path.read_text()
    if (count := text.count(fault.pattern)) != 1:
        raise Problem(f"the pattern occurs {count} times in {fault.file}")
    return text.replace(fault.pattern, fault.replacement)


def run(command, folder, limit, environment=None):
    """Exit status (None: it was not over in time) and output, of a process group of its own."""
    with subprocess.Popen(command, cwd=folder, env=environment, start_new_session=True, text=True, errors="replace",
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as process:
        with children_lock:
            children.add(process.pid)
        try:
            if stopped.is_set():
                end_group(process.pid)
            output, _ = process.communicate(timeout=limit)
            return process.returncode, output
        except subprocess.TimeoutExpired:
            return None, ""
        finally:
            end_group(process.pid)
            with children_lock:
                children.discard(process.pid)
            remove_session(f"nvt{process.pid}")


def end_group(pid):
    try:
        os.killpg(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def remove_session(name):
    """What a test program that was killed leaves."""
    mine = re.compile(rf"{name}(far)?\.")
    for folder in ("/dev/shm", "/tmp/norvo"):
        for entry in pathlib.Path(folder).glob("*"):
            if mine.search(entry.name):
                entry.unlink(missing_ok=True)


class Copy:
    """A worktree with a build of its own."""

    def __init__(self, folder, build_jobs):
        self.root = folder
        self.build = ["nice", "cmake", "--build", "build-release", "--parallel", str(build_jobs)]
        self.build += ["--target", "norvo_tests"]
        self.environment = {**os.environ, "CCACHE_BASEDIR": str(folder), "CCACHE_NOHASHDIR": "1"}
        launcher = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        commit = subprocess.check_output(["git", "rev-parse", "HEAD"], cwd=ROOT, text=True).strip()
        if (folder / ".git").exists():
            self.must(["git", "checkout", "--quiet", "--force", "--detach", commit], folder)
        else:
            self.must(["git", "worktree", "add", "--quiet", "--detach", str(folder), commit], ROOT)
        self.must(CONFIGURE + launcher, folder)
        self.must(self.build, folder)

    def must(self, command, folder):
        status, output = run(command, folder, BUILD_LIMIT, self.environment)
        if status != 0:
            raise Problem(f"{' '.join(command)} failed:\n{output[-3000:]}")

    def passes(self, suite, limit):
        tests = ["build-release/tests/norvo_tests", f"--gtest_filter={suite}"]
        status, output = run(tests, self.root, limit, self.environment)
        if status == 0 and "Running 0 tests" in output:
            raise Problem(f"no test is called {suite}")
        return status == 0

    def try_fault(self, fault):
        path = self.root / fault.file
        original = path.read_text()
        path.write_text(changed(fault, self.root))
        try:
            status, output = run(self.build, self.root, BUILD_LIMIT, self.environment)
            if status != 0:
                errors = [line for line in output.splitlines() if "error" in line]
                raise Problem("it does not build: " + (errors or ["?"])[0])
            return "survived" if self.passes(fault.suite, fault.limit) else "caught"
        finally:
            path.write_text(original)

    def remove(self):
        subprocess.run(["git", "worktree", "remove", "--force", str(self.root)], cwd=ROOT, check=False)


def unsound_suites(copy, faults):
    """Why a suite proves nothing, by suite; each may fail once for want of processor time."""
    reasons = {}
    for suite, limit in {fault.suite: fault.limit for fault in faults}.items():
        if stopped.is_set():
            break
        try:
            if not copy.passes(suite, limit) and not copy.passes(suite, limit):
                reasons[suite] = f"{suite} fails without the fault"
        except Problem as problem:
            reasons[suite] = str(problem)
    return reasons


def verdict_of(copy, fault, unsound, deadline):
    """Of "caught", "survived" and "not tried", and the reason for the last."""
    if stopped.is_set() or time.monotonic() > deadline:
        return "not tried", "the time is over"
    if fault.suite in unsound:
        return "not tried", unsound[fault.suite]
    try:
        return copy.try_fault(fault), ""
    except Problem as problem:
        return "not tried", str(problem)


def try_all(faults, copies, deadline):
    """Yields the fault, its verdict and the reason, as they come."""
    unsound = unsound_suites(copies[0], faults)
    free = queue.SimpleQueue()
    for copy in copies:
        free.put(copy)

    def work(fault):
        copy = free.get()
        try:
            return fault, *verdict_of(copy, fault, unsound, deadline)
        finally:
            free.put(copy)

    with concurrent.futures.ThreadPoolExecutor(len(copies)) as workers:
        for done in concurrent.futures.as_completed([workers.submit(work, fault) for fault in faults]):
            yield done.result()


def try_in_copies(faults, options):
    """How many faults have which verdict."""
    verdicts = {"caught": 0, "survived": 0, "not tried": 0}
    deadline = time.monotonic() + 60 * options.minutes
    copies = []
    with contextlib.ExitStack() as stack:
        folder = options.keep or stack.enter_context(tempfile.TemporaryDirectory(prefix="mutate-"))
        try:
            for number in range(options.jobs):
                print(f"building copy {number + 1} ...", file=sys.stderr)
                place = pathlib.Path(folder).resolve() / str(number)
                copies.append(Copy(place, max(1, (os.cpu_count() or 1) // options.jobs)))
            print("running the suites without a fault ...", file=sys.stderr)
            for fault, verdict, reason in try_all(faults, copies, deadline):
                verdicts[verdict] += 1
                print(f"{verdict:9}  {fault.name}: {fault.what}" + (f" ({reason})" if reason else ""), flush=True)
        finally:
            for copy in copies:
                if not options.keep:
                    copy.remove()
            subprocess.run(["git", "worktree", "prune"], cwd=ROOT, check=False)
    return verdicts


def stop(*_):
    stopped.set()
    with children_lock:
        for pid in children:
            end_group(pid)


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--list", action="store_true", help="show the faults, try none")
    parser.add_argument("--check", action="store_true", help="only see whether every pattern still fits this tree")
    parser.add_argument("--only", metavar="REGEX", help="those whose name, file or suite matches")
    parser.add_argument("--jobs", type=int, default=1, metavar="N", help="copies of the tree to work in (default 1)")
    parser.add_argument("--keep", metavar="FOLDER", help="work in copies there, and leave them for the next time")
    parser.add_argument("--minutes", type=float, default=120, metavar="M", help="begin no fault later (default 120)")
    options = parser.parse_args()
    if options.jobs < 1:
        parser.error("--jobs must be at least 1")
    return options


def check(faults):
    stale = 0
    for fault in faults:
        try:
            changed(fault, ROOT)
        except Problem as problem:
            print(f"{fault.name}: {problem}")
            stale += 1
    print(f"{len(faults) - stale} of {len(faults)} fit this tree")
    return 1 if stale else 0


def main():
    options = arguments()
    faults = read_table()
    if options.only:
        wanted = re.compile(options.only)
        faults = [f for f in faults if any(wanted.search(text) for text in (f.name, f.file, f.suite))]
    if not faults:
        sys.exit("mutate.py: no fault matches; --list shows them")
    if options.list:
        for fault in faults:
            print(f"{fault.name:28} {fault.file}\n    {fault.what}; must fail: {fault.suite}")
        return 0
    if options.check:
        return check(faults)
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, stop)
    try:
        verdicts = try_in_copies(faults, options)
    except Problem as problem:
        sys.exit(f"mutate.py: {problem}")
    print(", ".join(f"{count} {verdict}" for verdict, count in verdicts.items()), f"of {len(faults)}")
    if stopped.is_set():
        return 130
    return 0 if verdicts["caught"] == len(faults) else 1


if __name__ == "__main__":
    sys.exit(main())
