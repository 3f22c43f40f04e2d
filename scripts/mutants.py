#!/usr/bin/python3
"""Mutation check: how many plausible slips in the code the native tests catch.

Each mutation of scripts/mutations.txt replaces one exact text of one file by
another. The tree is copied once to build/mutants/tree (later runs copy only
what changed) and built there in tree/build/release with ccache; then, for
each mutation, the file is changed, ninja rebuilds what depends on it, the
tests run with --stop-on-failure (first those the mutation names, then the
rest), and the file is put back. A mutation is "killed" by the first test
that fails and "survived" when every test passes. A mutation of the Python
package (python/) is run by its pytest suite alone, with -x and the
environment ctest gives it (the built library and vukra-sim); "tests" is
then a pytest -k expression tried first.

Environment:
  MUTANTS=id1,id2 or MUTANTS=pattern   run only these (ids, or a regex on ids)
  MUTANTS_OUT=file      where the results go (build/mutants/results.txt)
  MUTANTS_BEFORE=file   an earlier results file: lists mutations it had killed
                        that survive now, and fails if there are any
  MUTANTS_JOBS=n        ninja and ctest parallelism (2)
  MUTANTS_NO_BASELINE=1 skip the run of the unmutated suite
  MUTANTS_DIR=dir       the copy and its build (build/mutants; under build/)

The mutation list: blocks separated by blank lines, lines starting with '#'
are comments.
  id: table-range-off-by-one
  file: src/table/register_table.cpp
  tests: RegisterTable           (optional: ctest regex tried first)
  - original text               (one or more lines, exactly once in the file)
  + replacement text            (one or more lines; a lone '+' is empty)
"""
import filecmp
import json
import os
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WORK = os.path.abspath(os.environ.get("MUTANTS_DIR", os.path.join(ROOT, "build", "mutants")))
TREE = os.path.join(WORK, "tree")
BUILD = os.path.join(TREE, "build", "release")
JOBS = os.environ.get("MUTANTS_JOBS", "2")
# The slow tests: wine, the browser, the packages and the install.
SLOW = "wine_session|windows_dist|html_pages|install_and_use|debian_packages"


def fail(message):
    print("mutants: " + message, file=sys.stderr)
    sys.exit(2)


def parse(path):
    mutations = []
    for number, block in enumerate(re.split(r"\n\s*\n", open(path).read())):
        lines = [l for l in block.split("\n") if l and not l.startswith("#")]
        if not lines:
            continue
        m = {"tests": "", "original": [], "replacement": []}
        for line in lines:
            if line.startswith("- ") or line == "-":
                m["original"].append(line[2:])
            elif line.startswith("+ ") or line == "+":
                m["replacement"].append(line[2:])
            else:
                key, _, value = line.partition(":")
                m[key.strip()] = value.strip()
        if "id" not in m or "file" not in m or not m["original"]:
            fail(f"{path}: block {number + 1} needs an id, a file and a '- ' original")
        m["original"] = "\n".join(m["original"])
        m["replacement"] = "\n".join(m["replacement"])
        mutations.append(m)
    ids = [m["id"] for m in mutations]
    if len(set(ids)) != len(ids):
        fail("two mutations share an id")
    return mutations


def sync_tree():
    """Copies the tree to TREE, touching only files whose content differs, so
    that ninja rebuilds exactly what changed (also after an interrupted run)."""
    for src_dir, dirs, files in os.walk(ROOT):
        rel = os.path.relpath(src_dir, ROOT)
        dirs[:] = [d for d in dirs if not (rel == "." and d in ("build", ".git"))]
        dst_dir = os.path.join(TREE, rel)
        os.makedirs(dst_dir, exist_ok=True)
        for name in files:
            src, dst = os.path.join(src_dir, name), os.path.join(dst_dir, name)
            if os.path.islink(src):
                continue
            if not os.path.exists(dst) or not filecmp.cmp(src, dst, shallow=False):
                shutil.copyfile(src, dst)
                shutil.copymode(src, dst)
    for dst_dir, dirs, files in os.walk(TREE):
        rel = os.path.relpath(dst_dir, TREE)
        dirs[:] = [d for d in dirs if not (rel == "." and d == "build")]
        for name in files:
            if not os.path.exists(os.path.join(ROOT, rel, name)):
                os.remove(os.path.join(dst_dir, name))


def configure():
    """Optimised without debug information and linked with lld when there
    is one: the links after each mutation are most of its build time."""
    flags = ["-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG", "-DCMAKE_C_FLAGS_RELEASE=-O1 -DNDEBUG",
             "-DMODBUS_VUKRA_BENCH=OFF", "-DMODBUS_VUKRA_WERROR=ON"]
    if shutil.which("ccache"):
        flags += ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache", "-DCMAKE_C_COMPILER_LAUNCHER=ccache"]
    if shutil.which("ld.lld"):
        flags += [f"-DCMAKE_{kind}_LINKER_FLAGS=-fuse-ld=lld" for kind in ("EXE", "SHARED", "MODULE")]
    subprocess.run(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja"] + flags, check=True, stdout=subprocess.DEVNULL)


def build():
    return subprocess.run(["cmake", "--build", BUILD, "-j", JOBS], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)


def ctest(select):
    """Runs ctest with the given selection; returns (failed test or None, ran anything)."""
    r = subprocess.run(["ctest", "-j", JOBS, "--stop-on-failure", "--timeout", "120"] + select, cwd=BUILD,
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if r.returncode == 0:
        return None, "No tests were found" not in r.stdout
    failed = re.findall(r"^\s*\d+ - (\S+)", r.stdout.split("The following tests FAILED:")[-1], re.M)
    if failed:
        return failed[0], True
    if "No tests were found" in r.stdout:
        return None, False
    return "ctest:" + r.stdout.strip().splitlines()[-1], True


def test_names():
    """(number, name) of every test but the slow ones. Tests are chosen by
    number (a parameterised test's name carries its parameter after it), the
    number of the whole list: `ctest -N -E` would number the rest anew."""
    r = subprocess.run(["ctest", "-N"], cwd=BUILD, stdout=subprocess.PIPE, text=True, check=True)
    return [(int(n), name) for n, name in re.findall(r"Test\s+#(\d+): (\S+)", r.stdout) if not re.search(SLOW, name)]


def first_tests(m, tests):
    """The tests to run first: those the mutation names (a regex, any case),
    else those whose name holds a word of its file's or folder's name."""
    if m["tests"]:
        pattern = m["tests"]
    else:
        parts = m["file"].split("/")
        stem = os.path.splitext(parts[-1])[0]
        words = [w for w in stem.split("_") if len(w) > 3] + [parts[1].replace("vukra-", "")]
        pattern = "|".join(re.escape(w.rstrip("s")) for w in words)
    return [t for t in tests if re.search(pattern, t[1], re.I)]


def pytest_command():
    """The python_package test's command and environment, as ctest holds them."""
    r = subprocess.run(["ctest", "--show-only=json-v1", "-R", "^python_package$"], cwd=BUILD,
                       stdout=subprocess.PIPE, text=True, check=True)
    found = json.loads(r.stdout)["tests"]
    if not found:
        fail("no python_package test in the build")
    env = dict(os.environ)
    for prop in found[0].get("properties", []):
        if prop["name"] == "ENVIRONMENT":
            env.update(v.split("=", 1) for v in prop["value"])
    return found[0]["command"], env


def run_pytest(m):
    """The first pytest case that fails (first among those -k selects), or None."""
    command, env = pytest_command()
    for select in ([["-k", m["tests"]]] if m["tests"] else []) + [[]]:
        try:
            r = subprocess.run(command + ["-x"] + select, cwd=BUILD, env=env, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, timeout=600)
        except subprocess.TimeoutExpired:
            return "pytest:timeout"
        if r.returncode not in (0, 5):  # 5: nothing selected
            failed = re.search(r"^(?:FAILED|ERROR) (\S+)", r.stdout, re.M)
            return "pytest:" + (failed.group(1).split("/")[-1] if failed else r.stdout.strip().splitlines()[-1])
    return None


def run_tests(m, tests):
    if m["file"].startswith("python/"):
        return run_pytest(m)
    first = first_tests(m, tests)
    rest = [t for t in tests if t not in first]
    for group in (first, rest):
        if group:
            killer, _ = ctest(["-I", "0,0,0," + ",".join(str(n) for n, _ in group)])
            if killer:
                return killer
    return None


def main():
    mutations = parse(os.path.join(ROOT, "scripts", "mutations.txt"))
    chosen = os.environ.get("MUTANTS", "")
    if chosen:
        ids = set(chosen.split(","))
        mutations = [m for m in mutations if m["id"] in ids or re.search(chosen, m["id"])]
        if not mutations:
            fail(f"no mutation matches {chosen}")
    out = os.environ.get("MUTANTS_OUT", os.path.join(WORK, "results.txt"))

    # Every mutation must apply before anything is built: a stale list shows at once.
    for m in mutations:
        text = open(os.path.join(ROOT, m["file"])).read()
        count = text.count(m["original"])
        if count != 1:
            fail(f"{m['id']}: the original text is found {count} times in {m['file']}, not once")

    os.environ.setdefault("CCACHE_BASEDIR", ROOT)
    sync_tree()
    if not os.path.exists(os.path.join(BUILD, "build.ninja")):
        configure()
    r = build()
    if r.returncode != 0:
        print(r.stdout)
        fail("the unmutated tree does not build")
    if not os.environ.get("MUTANTS_NO_BASELINE"):
        killer, _ = ctest(["-E", SLOW])
        if killer:
            fail(f"the unmutated suite fails ({killer}); fix that first")

    tests = test_names()
    results = []
    with open(out, "w") as log:
        for i, m in enumerate(mutations, 1):
            path = os.path.join(TREE, m["file"])
            original = open(path).read()
            started = time.time()
            try:
                with open(path, "w") as f:
                    f.write(original.replace(m["original"], m["replacement"], 1))
                r = build()
                if r.returncode != 0:
                    verdict = "NOBUILD"
                    print(r.stdout[-2000:], file=sys.stderr)
                else:
                    killer = run_tests(m, tests)
                    verdict = f"killed {killer}" if killer else "SURVIVED"
            finally:
                with open(path, "w") as f:
                    f.write(original)
            line = f"{m['id']}\t{verdict}"
            results.append((m["id"], verdict))
            log.write(line + "\n")
            log.flush()
            print(f"[{i}/{len(mutations)}] {m['id']}: {verdict} ({time.time() - started:.0f}s)", flush=True)
    build()

    killed = sum(1 for _, v in results if v.startswith("killed"))
    total = f"killed {killed} of {len(results)} mutations"
    with open(out, "a") as log:
        log.write(f"# {total}\n")
    print(f"mutants: {total}; results in {out}")
    status = 0 if all(not v.startswith("NOBUILD") for _, v in results) else 1
    before = os.environ.get("MUTANTS_BEFORE")
    if before:
        now = dict(results)
        lost = [line.split("\t")[0] for line in open(before)
                if "\tkilled" in line and now.get(line.split("\t")[0], "killed").startswith(("SURVIVED"))]
        for id_ in lost:
            print(f"mutants: {id_} was killed in {before} and survives now")
        status = status or (1 if lost else 0)
    return status


if __name__ == "__main__":
    sys.exit(main())
