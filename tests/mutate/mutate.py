#!/usr/bin/env python3
"""mutate.py N [SEED] [all]: changes src/ in N small ways, one at a time, and gives each to the tests of its folder.
mutate.py again [all]: gives the survivors of the last run to the tests as they are now, once more.

Works on a copy of the tree below build/mutate. A change that does not compile, or compiles to the same code, is not
counted. One is killed when a test fails, twice in a row, or ends by a signal, or hangs. With `all`, what survives the
tests of its folder goes to those of the other folders too. The same seed makes the same changes of the same tree.
"""

import concurrent.futures
import difflib
import filecmp
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import changes

FOLDERS = ["core", "media", "photo", "record", "replay", "storage", "util"]  # each has a program that needs no card
TESTED_BY = {"ring": "core"}  # folders of src/ that the program of another one tests
OBJECTS = "CMakeFiles/quarrin.dir/"
SHARDS = 6  # of one program, side by side: tests mostly wait
WORKERS = 2 * (os.cpu_count() or 1)  # for the same reason
HEAD_START = 12  # so many of the tests that killed before come before all others
ROOT = os.path.abspath("build/mutate")
SOURCE = ROOT + "/source"
SURVIVORS = ROOT + "/survivors.json"
TREE = ROOT + "/tree"
RUNNING = set()  # leaders of the process groups under way


def stop(*_):
    for leader in list(RUNNING):
        kill_group(leader)
    os._exit(130)


def kill_group(leader):
    try:
        os.killpg(leader, signal.SIGKILL)
    except ProcessLookupError:
        pass


def copy_tree():
    """Brings the copy up to date. What did not change keeps its time, so that little is built again."""
    wanted = set()
    for top in ["CMakeLists.txt", "cmake", "include", "src", "platform", "tools", "tests", "debian", "LICENSE", "docs"]:
        for folder, _, names in os.walk(top) if os.path.isdir(top) else [(os.path.dirname(top), [], [top])]:
            wanted.update(os.path.join(folder, os.path.basename(name)) for name in names)
    for folder, _, names in os.walk(SOURCE):
        for name in names:
            path = os.path.relpath(os.path.join(folder, name), SOURCE)
            if path not in wanted:
                os.remove(os.path.join(SOURCE, path))
    for path in wanted:
        copy = os.path.join(SOURCE, path)
        if not os.path.exists(copy) or not filecmp.cmp(path, copy, shallow=False):
            os.makedirs(os.path.dirname(copy), exist_ok=True)
            shutil.copy(path, copy)


def run_or_die(command):
    done = subprocess.run(command, capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(done.stdout[-4000:] + done.stderr[-4000:] + "\nmutate: failed: " + " ".join(command))
    return done.stdout


class Build:
    """How the unchanged tree is compiled and linked."""

    def __init__(self):
        copy_tree()
        run_or_die(["cmake", "-S", SOURCE, "-B", TREE, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Mutate",
                    "-DCMAKE_CXX_FLAGS=-O1", "-DCMAKE_SKIP_RPATH=ON", "-DQUARRIN_BUILD_TESTS=ON",
                    "-DQUARRIN_BUILD_TOOLS=OFF", "-DQUARRIN_BUILD_BENCHMARKS=OFF", "-DQUARRIN_BUILD_EXAMPLES=OFF"])
        run_or_die(["ninja", "-C", TREE, "-j", str(os.cpu_count() or 1)] + ["test_" + folder for folder in FOLDERS])
        with open(TREE + "/compile_commands.json") as file:
            self.compile = {os.path.relpath(entry["file"], SOURCE): entry["command"] for entry in json.load(file)
                            if entry["file"].startswith(SOURCE + "/src/")}
        linked = [line for line in run_or_die(["ninja", "-C", TREE, "-t", "commands", "quarrin"]).splitlines()
                  if " -shared " in line]
        self.link = linked[-1]
        self.dependents = {}  # of each header: the sources that include it
        source = None
        for line in run_or_die(["ninja", "-C", TREE, "-t", "deps"]).splitlines():
            if not line.startswith(" "):
                source = line.split(": #deps")[0]
            elif source.startswith(OBJECTS) and line.strip().startswith(SOURCE + "/src/"):
                header = os.path.relpath(line.strip(), SOURCE)
                self.dependents.setdefault(header, []).append(source[len(OBJECTS):-len(".o")])

    def sources(self, path):
        return [path] if path in self.compile else sorted(self.dependents.get(path, []))


class Worker:
    """One directory with a changed file, its objects and a library that has them."""

    def __init__(self, build, number):
        self.build = build
        self.root = "%s/worker%d" % (ROOT, number)
        self.library = self.root + "/lib/libquarrin.so.1"
        shutil.rmtree(self.root, ignore_errors=True)
        for folder in ["lib", "tmp"]:
            os.makedirs(self.root + "/" + folder)
        self.isolated = os.geteuid() == 0 and not ROOT.startswith("/tmp/") and subprocess.run(
            self.in_own_tmp(["true"]), capture_output=True).returncode == 0

    def make(self, path, text):
        """Compiles and links; False when it does not compile, or to what was there before."""
        overlay = self.root + "/src"
        shutil.rmtree(overlay, ignore_errors=True)
        changed = os.path.join(self.root, path)
        os.makedirs(os.path.dirname(changed))
        with open(changed, "w") as file:
            file.write(text)
        link, differs = self.build.link, False
        for source in self.build.sources(path):
            kept = OBJECTS + source + ".o"
            made = os.path.join(self.root, source.replace("/", "_") + ".o")
            command = self.build.compile[source].replace(" -o " + kept, " -o " + made)
            command = command.replace(" -I" + SOURCE + "/src", " -I" + overlay + " -I" + SOURCE + "/src")
            if source == path:
                command = command.replace(" -c " + SOURCE + "/" + path, " -c " + changed)
            if subprocess.run(command, shell=True, cwd=TREE, capture_output=True).returncode != 0:
                return False
            differs = differs or code_of(made) != code_of(os.path.join(TREE, kept))
            link = re.sub(r" %s(?= )" % re.escape(kept), lambda _: " " + made, link)
        link = re.sub(r" -o \S+", " -o " + self.library, link)
        return differs and subprocess.run(link, shell=True, cwd=TREE, capture_output=True).returncode == 0

    def in_own_tmp(self, command):
        """Mounts and files in /tmp are seen by nobody else, where root may arrange that."""
        return ["unshare", "--mount", "sh", "-c", 'mount --bind "$0" /tmp && exec "$@"', self.root + "/tmp"] + command

    def start(self, folder, variables):
        command = ["%s/tests/test_%s" % (TREE, folder)]
        environment = dict(os.environ, LD_LIBRARY_PATH=os.path.dirname(self.library), GTEST_FAIL_FAST="1",
                           GTEST_BRIEF="1", **variables)
        log = open("%s/%s.log" % (self.root, variables["GTEST_SHARD_INDEX"]), "w+", errors="replace")
        process = subprocess.Popen(self.in_own_tmp(command) if self.isolated else command, env=environment, stdout=log,
                                   stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL, start_new_session=True)
        RUNNING.add(process.pid)
        return process, log

    def run(self, folder, limit, tests, shards=SHARDS):
        """Runs the tests of a program that a filter names. Returns None, or what failed: (how, test)."""
        variables = [{"GTEST_TOTAL_SHARDS": str(shards), "GTEST_SHARD_INDEX": str(shard), "GTEST_FILTER": tests}
                     for shard in range(shards)]
        running = [self.start(folder, each) for each in variables]
        end, outcome = time.monotonic() + limit, None
        waiting = list(running)
        while waiting and outcome is None:
            for process, log in list(waiting):
                if process.poll() is None:
                    continue
                waiting.remove((process, log))
                if process.returncode != 0:
                    outcome = what_failed(process.returncode, log)
            if waiting and outcome is None:
                if time.monotonic() > end:
                    outcome = ("hangs", None)
                time.sleep(0.02)
        for process, log in running:
            kill_group(process.pid)  # those of its children that are left, too
            RUNNING.discard(process.pid)
            process.wait()
            log.close()
        shutil.rmtree(self.root + "/tmp", ignore_errors=True)
        os.makedirs(self.root + "/tmp")
        return outcome

    def judge(self, folder, limit, first=()):
        """None when the tests let the change pass, otherwise how and by which test they killed it."""
        once = []
        tests = ":".join(first) or "*"
        while True:
            outcome = self.run(folder, limit, tests + "-" + ":".join(once))
            if outcome is None and tests == "*":
                return None
            if outcome is None:
                tests = "*"
                continue
            how, test = outcome
            if test is None or test in once or self.run(folder, limit, test, 1) is not None:
                return how, test
            once.append(test)  # by the machine's load, perhaps; the others decide


def code_of(path):
    """An object file's bytes without what is for debuggers: paths stand there."""
    stripped = tempfile.mktemp(dir=ROOT)
    run_or_die(["strip", "--strip-debug", "-o", stripped, path])
    with open(stripped, "rb") as file:
        code = file.read()
    os.remove(stripped)
    return code


def what_failed(status, log):
    log.seek(0)
    failed = re.findall(r"^\[  FAILED  \] ([\w./]+)", log.read(), re.M)
    if status == 1 and failed:
        return "fails", failed[0]
    return "ends with status %d" % status, None


def all_changes():
    found = []
    for folder in FOLDERS + sorted(TESTED_BY):
        for name in sorted(os.listdir(SOURCE + "/src/" + folder)):
            path = "src/%s/%s" % (folder, name)
            with open(os.path.join(SOURCE, path)) as file:
                found += changes.changes(path, file.read())
    return found


def changed_text(change):
    with open(os.path.join(SOURCE, change.path)) as file:
        text = file.read()
    return text, text[:change.start] + change.new + text[change.end:]


def difference(change):
    before, after = changed_text(change)
    lines = difflib.unified_diff(before.splitlines(), after.splitlines(), change.path, change.path, n=1, lineterm="")
    return change.kind + "\n" + "\n".join(lines)


class Campaign:
    """Hands changes out in the order of the seed until so many were tried."""

    def __init__(self, build, order, number, everywhere):
        self.build, self.order, self.number, self.everywhere = build, order, number, everywhere
        self.lock = threading.Lock()
        self.next = self.tried = self.under_way = 0
        self.killed, self.killed_elsewhere, self.survivors = [], [], []
        self.limits = {}
        self.killers = {}  # of each folder: its tests that killed, each with the file it was in; the last comes first
        self.report = open(ROOT + "/report.txt", "w")

    def say(self, text):
        print(text, flush=True)
        print(text, file=self.report, flush=True)

    def measure(self, pool, workers):
        """How long each program takes beside others; none may fail before a change was made."""
        for worker in workers:
            shutil.copy(TREE + "/libquarrin.so.1", worker.library)
        for folder in FOLDERS:
            began = time.monotonic()
            for how in list(pool.map(lambda worker: worker.judge(folder, 600), workers)):
                if how:
                    sys.exit("mutate: the tests of the unchanged tree fail: %s: %s %s" % (folder, *how))
            taken = time.monotonic() - began
            self.limits[folder] = 20 + 4 * taken
            self.say("test_%s: %.0f s" % (folder, taken))

    def take(self):
        """The next change; None when enough are tried, False when those under way may be enough."""
        with self.lock:
            if self.tried >= self.number or self.next == len(self.order):
                return None
            if self.tried + self.under_way >= self.number:
                return False
            self.under_way += 1
            self.next += 1
            return self.order[self.next - 1]

    def judge(self, worker, folder, change):
        """As a worker's. The tests that killed in the same file come first, then those of others."""
        with self.lock:
            killers = sorted(self.killers.get(folder, []), key=lambda killer: killer[1] != change.path)
        first = list(dict.fromkeys(test for test, _ in killers))[:HEAD_START]
        outcome = worker.judge(folder, self.limits[folder], first)
        if outcome is None:
            return None
        how, test = outcome
        if test:
            with self.lock:
                killers = self.killers.setdefault(folder, [])
                killers[:] = [(test, change.path)] + [killer for killer in killers if killer != (test, change.path)]
        return "%s: %s" % (folder, test or how)

    def try_one(self, worker, change):
        if not worker.make(change.path, changed_text(change)[1]):
            return
        own = change.path.split("/")[1]
        own = TESTED_BY.get(own, own)
        how = self.judge(worker, own, change)
        elsewhere = None
        for folder in FOLDERS if how is None and self.everywhere else []:
            elsewhere = elsewhere or (self.judge(worker, folder, change) if folder != own else None)
        with self.lock:
            self.tried += 1
            line = changed_text(change)[0].count("\n", 0, change.start) + 1
            place = "%d of %d: %s:%d %s" % (self.tried, self.number, change.path, line, change.kind)
            if how:
                self.killed.append(change)
                self.say("%s: killed by %s" % (place, how))
            elif elsewhere:
                self.killed_elsewhere.append((change, elsewhere))
                self.say("%s: killed by %s alone" % (place, elsewhere))
            else:
                self.survivors.append(change)
                self.say(place + ": SURVIVED\n" + difference(change))

    def work(self, worker):
        while True:
            change = self.take()
            if change is None:
                return
            if change is False:
                time.sleep(0.2)
                continue
            try:
                self.try_one(worker, change)
            finally:
                with self.lock:
                    self.under_way -= 1

    def end(self):
        if self.killed_elsewhere:
            self.say("\nKilled by the tests of another folder alone:")
            for change, how in sorted(self.killed_elsewhere):
                self.say("\n%s\n%s" % (how, difference(change)))
        with open(SURVIVORS, "w") as file:
            json.dump([mark(change) for change in sorted(self.survivors)], file)
        if self.survivors:
            self.say("\nSurvivors:")
            for change in sorted(self.survivors):
                self.say("\n" + difference(change))
        self.say("\n%d killed of %d tried by the tests of their folder, %d by those of another, %d survived" % (
            len(self.killed), self.tried, len(self.killed_elsewhere), len(self.survivors)))


def mark(change):
    """What a change is, wherever its lines stand by now."""
    return [change.path, change.kind, re.sub(r"^@@.*$", "", difference(change), flags=re.M)]


def last_survivors():
    with open(SURVIVORS) as file:
        marks = json.load(file)
    paths, found = {path for path, _, _ in marks}, []
    for change in all_changes():
        own = mark(change) if change.path in paths else None
        if own in marks:
            marks.remove(own)
            found.append(change)
    return found, marks


def main():
    everywhere = sys.argv[-1] == "all"
    words = sys.argv[1:-1] if everywhere else sys.argv[1:]
    os.makedirs(ROOT, exist_ok=True)
    signal.signal(signal.SIGINT, stop)
    signal.signal(signal.SIGTERM, stop)
    build = Build()
    if words == ["again"]:
        order, gone = last_survivors()
        number, title = len(order), "the survivors of the last run; %d are of lines that are gone" % len(gone)
    else:
        number, seed = int(words[0]), int(words[1] if len(words) > 1 else time.time())
        order = all_changes()
        random.Random(seed).shuffle(order)
        title = "./run mutate %d %d%s repeats this" % (number, seed, " all" if everywhere else "")
    campaign = Campaign(build, order, number, everywhere)
    campaign.say(title)
    workers = [Worker(build, each) for each in range(WORKERS)]
    with concurrent.futures.ThreadPoolExecutor(len(workers)) as pool:
        campaign.measure(pool, workers)
        for each in [pool.submit(campaign.work, worker) for worker in workers]:
            each.result()
    campaign.end()


main()
