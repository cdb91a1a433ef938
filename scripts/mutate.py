#!/usr/bin/python3
"""Mutation testing of the Tavrix test suite.

Copies the tracked files of a checkout to a scratch folder, builds it once
(Release, tests on), checks that ctest passes, then applies seeded source
mutants one at a time, rebuilds incrementally, runs ctest and records whether
a test failed (killed), all passed (survived) or the mutant did not compile.

  /usr/bin/python3 mutate.py --count 120 --seed 1 [--files 'src/canon/*'] \
      [--workers 2] [--minutes 65] [--resume] [--root /tmp/mut/run1]   # in the checkout
  /usr/bin/python3 mutate.py --root /tmp/mut/run1 --summary   # report only
  /usr/bin/python3 mutate.py --list --count 20 --seed 1       # show mutants

Results: ROOT/results.jsonl (one JSON object per mutant); the plan of mutants
is ROOT/plan.jsonl.  Each worker owns a copy ROOT/wN with its own build/.

Speed-ups that do not change any outcome (both can be turned off):
  * ccache as compiler launcher, so restoring a file after its mutant is a
    cache hit (--no-ccache to build without it);
  * a mutant whose built binaries are all byte-identical to the baseline
    (builds are deterministic) is recorded as 'identical' (trivially
    equivalent) and not tested;
  * with --select-tests, only the test programs whose binary changed, or that
    run the built programs when one of those changed, are run (this relies on
    the tests/test_<folder> naming and the PROGRAMS list below; by default
    the whole suite runs for every mutant).
ctest's --timeout only applies to tests without a TIMEOUT property, and
gtest_discover_tests sets 600 s, so a watchdog kills (with its process tree)
a test running longer than --timeout-factor (10) times its baseline time,
at least --min-timeout (30 s) and at most --test-timeout (120 s); once a
mutant has a timed-out test, its other tests get 5 times their baseline time
(at least 5 s), since hanging mutants would otherwise cost minutes each.
A failing test (at most --retry-max of them) is run once more; a failure that
does not repeat is recorded as 'flaky' and is not counted as a kill.
Mutants are single-line edits, so __LINE__ and every other line stay put.
"""

import argparse
import fnmatch
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
from collections import defaultdict

DEFAULT_FILES = "src/**/*.cpp,src/**/*.h,tools/**/*.cpp,tools/**/*.h"
RUNNER_RE = re.compile(r"run_tavrix|TAVRIX_BINARY|TAVRIX_MATRIX_BINARY|TAVRIX_APPLY_BINARY|TAVRIX_BUILD_DIR")
PROGRAMS = ["Tavrix", "tavrix-matrix", "tavrix-apply"]

# --------------------------------------------------------------------------
# Lexing: a copy of the text with comments, literals and preprocessor lines
# blanked, same length and same line breaks.


def mask_source(text):
    out = list(text)
    n = len(text)
    i = 0
    at_line_start = True  # only whitespace so far on this line
    while i < n:
        c = text[i]
        nxt = text[i + 1] if i + 1 < n else ""
        if c == "\n":
            at_line_start = True
            i += 1
            continue
        if at_line_start and c == "#":
            # preprocessor line, with backslash continuations
            while i < n:
                if text[i] == "\n":
                    if i > 0 and text[i - 1] == "\\":
                        i += 1
                        continue
                    break
                out[i] = " "
                i += 1
            continue
        if not c.isspace():
            at_line_start = False
        if c == "/" and nxt == "/":
            while i < n and text[i] != "\n":
                out[i] = " "
                i += 1
            continue
        if c == "/" and nxt == "*":
            end = text.find("*/", i + 2)
            end = n if end < 0 else end + 2
            for k in range(i, end):
                if text[k] != "\n":
                    out[k] = " "
            i = end
            continue
        if c == "R" and nxt == '"' and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            m = re.match(r'R"([^(\s]*)\(', text[i:])
            if m:
                close = ")" + m.group(1) + '"'
                end = text.find(close, i + m.end())
                end = n if end < 0 else end + len(close)
                for k in range(i, end):
                    if text[k] != "\n":
                        out[k] = "S"
                i = end
                continue
        if c == "'" and i > 0 and text[i - 1].isalnum() and nxt.isalnum() and re.match(r"[0-9a-fA-F]", text[i - 1]):
            # digit separator 1'000
            i += 1
            continue
        if c in "\"'":
            q = c
            k = i + 1
            while k < n and text[k] != q and text[k] != "\n":
                if text[k] == "\\":
                    k += 1
                k += 1
            end = min(k + 1, n)
            for j in range(i, end):
                if text[j] != "\n":
                    out[j] = "S"
            i = end
            continue
        i += 1
    return "".join(out)


# --------------------------------------------------------------------------
# Mutation operators.  Each candidate replaces text[line][col:col+len(old)]
# by new.

ROR_ALT = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
           "==": ["!="], "!=": ["=="]}
KEYWORDS = {"return", "break", "continue", "goto", "throw", "case", "default", "using", "typedef",
            "namespace", "static_assert", "assert", "if", "for", "while", "do", "switch", "else",
            "template", "class", "struct", "enum", "union", "public", "private", "protected", "const",
            "constexpr", "static", "inline", "extern", "auto", "int", "unsigned", "long", "short",
            "char", "bool", "double", "float", "void", "size_t", "delete", "new", "friend", "virtual",
            "explicit", "operator", "sizeof", "co_return", "try", "catch", "std"}
CALLEE_RE = re.compile(r"^[A-Za-z_]\w*(?:(?:\.|->|::)~?[A-Za-z_]\w*|\[[^\]]*\])*$")
LVALUE_RE = re.compile(r"^[*(]*[A-Za-z_]\w*(?:(?:\.|->|::)[A-Za-z_]\w*|\[[^\]]*\]|\))*$")
ASSIGN_RE = re.compile(r"(<<=|>>=|\+=|-=|\*=|/=|%=|&=|\|=|\^=|(?<![=!<>])=(?!=))")


def balanced(s):
    return s.count("(") == s.count(")") and s.count("[") == s.count("]") and s.count("{") == s.count("}")


def top_level_positions(s, pattern):
    """Matches of pattern at bracket depth 0."""
    res = []
    for m in pattern.finditer(s):
        pre = s[:m.start()]
        depth = pre.count("(") - pre.count(")") + pre.count("[") - pre.count("]") + pre.count("{") - pre.count("}")
        if depth == 0:
            res.append(m)
    return res


def statement_kind(s):
    """s: a masked, stripped line ending in ';'.  'call', 'assign', 'stream' or None."""
    if s.count(";") != 1 or not balanced(s):
        return None
    body = s[:-1].rstrip()
    if not body:
        return None
    first = re.match(r"[A-Za-z_]\w*", body)
    if first and first.group(0) in KEYWORDS:
        return None
    if re.match(r"^(\+\+|--)[\w.\->\[\]]+$", body) or re.match(r"^[\w.\->\[\]]+(\+\+|--)$", body):
        return "assign"
    assigns = top_level_positions(body, ASSIGN_RE)
    if assigns:
        lhs = body[:assigns[0].start()].strip()
        if LVALUE_RE.match(lhs) and "S" not in lhs[:1]:
            return "assign"
        return None
    if body.endswith(")") and "(" in body:
        head = body[:body.index("(")]
        if CALLEE_RE.match(head) and head.split("::")[-1] not in KEYWORDS:
            return "call"
    m = re.match(r"^([\w.:\->\[\]]+)\s<<\s", body)
    if m and CALLEE_RE.match(m.group(1)):
        return "stream"
    return None


def prev_code_line(mlines, idx):
    k = idx - 1
    while k >= 0 and not mlines[k].strip():
        k -= 1
    return mlines[k].strip() if k >= 0 else "{"


def starts_statement(prev):
    if prev.endswith((";", "{", "}")) or (prev.endswith(":") and not prev.endswith("::")):
        return True
    if prev == "else" or prev.endswith(" else"):
        return True
    if prev.endswith(")") and re.match(r"^(\}\s*else\s+)?(if|for|while)\b", prev) and balanced(prev):
        return True
    return False


def candidates_for_file(rel, text):
    lines = text.split("\n")
    mlines = mask_source(text).split("\n")
    cands = []
    code_lines = 0

    def add(li, col, old, new, op, desc):
        cands.append({"file": rel, "line": li + 1, "col": col, "old": old, "new": new, "op": op,
                      "desc": desc, "orig": lines[li]})

    for li, (line, ml) in enumerate(zip(lines, mlines)):
        if not ml.strip():
            continue
        code_lines += 1
        if re.match(r"^\s*(static_assert|assert)\b", ml):
            continue
        # relational operators
        for m in re.finditer(r"(?<=\s)(<=|>=|==|!=|<|>)(?=\s)", ml):
            op = m.group(1)
            add(li, m.start(), op, ROR_ALT[op], "ROR", op)
        # arithmetic + <-> -
        for m in re.finditer(r"(?<=\s)(\+=|-=|\+|-)(?=\s)", ml):
            op = m.group(1)
            new = {"+": "-", "-": "+", "+=": "-=", "-=": "+="}[op]
            add(li, m.start(), op, [new], "AOR", op)
        # logical connectors
        for m in re.finditer(r"(?<=\s)(&&|\|\|)(?=\s)", ml):
            op = m.group(1)
            add(li, m.start(), op, ["||" if op == "&&" else "&&"], "LCR", op)
        # small integer literals
        for m in re.finditer(r"(?<![\w.'])(\d+)([uUlLzZ]*)(?![\w.'])", ml):
            v = int(m.group(1))
            if v > 256 or (len(m.group(1)) > 1 and m.group(1).startswith("0")):
                continue
            alts = [str(v + 1) + m.group(2)] + ([str(v - 1) + m.group(2)] if v > 0 else [])
            add(li, m.start(), m.group(0), alts, "CRP", m.group(0))
        # negate an if condition
        for m in re.finditer(r"\bif\s*\(", ml):
            if re.match(r"\s*constexpr", ml[m.end() - 1:]):
                continue
            depth = 0
            close = None
            for k in range(m.end() - 1, len(ml)):
                if ml[k] == "(":
                    depth += 1
                elif ml[k] == ")":
                    depth -= 1
                    if depth == 0:
                        close = k
                        break
            if close is None:
                continue
            cond_m = ml[m.end():close]
            if ";" in cond_m or top_level_positions(cond_m, re.compile(r"(?<![=!<>])=(?!=)")):
                continue
            old = line[m.end() - 1:close + 1]
            add(li, m.end() - 1, old, ["(!" + old + ")"], "NEG", "if (...)")
        # delete a simple statement
        s = ml.strip()
        if s.endswith(";"):
            kind = statement_kind(s)
            if kind and starts_statement(prev_code_line(mlines, li)):
                col = len(line) - len(line.lstrip())
                old = line.strip()
                add(li, col, old, [";"], "SDL", kind)
    return cands, code_lines


def glob_match(rel, globs):
    return any(fnmatch.fnmatch(rel, g) or fnmatch.fnmatch(rel, g.replace("**/", "")) for g in globs)


def tracked_files(checkout):
    out = subprocess.run(["git", "-C", checkout, "ls-files", "-z"], check=True, capture_output=True).stdout
    return [p for p in out.decode().split("\0") if p]


def make_plan(pristine, files_globs, count, seed):
    files = sorted(f for f in tracked_files_in(pristine) if glob_match(f, files_globs))
    per_file = {}
    weights = {}
    for rel in files:
        with open(os.path.join(pristine, rel), encoding="utf-8", errors="surrogateescape") as fh:
            text = fh.read()
        cands, loc = candidates_for_file(rel, text)
        if cands:
            per_file[rel] = cands
            weights[rel] = loc
    rng = random.Random(seed)
    plan = []
    remaining = {f: list(range(len(c))) for f, c in per_file.items()}
    while len(plan) < count and any(remaining.values()):
        fs = [f for f in sorted(remaining) if remaining[f]]
        f = rng.choices(fs, weights=[weights[x] for x in fs])[0]
        k = remaining[f].pop(rng.randrange(len(remaining[f])))
        c = dict(per_file[f][k])
        new = rng.choice(c["new"])
        c["new"] = new
        c["desc"] = "%s: `%s` -> `%s`" % (c["op"], c["old"], new)
        line = c["orig"]
        c["mutated"] = line[:c["col"]] + new + line[c["col"] + len(c["old"]):]
        key = "%s:%d:%d:%s:%s" % (f, c["line"], c["col"], c["old"], new)
        c["id"] = hashlib.sha1(key.encode()).hexdigest()[:12]
        c["idx"] = len(plan)
        plan.append(c)
    return plan, weights, {f: len(c) for f, c in per_file.items()}


def tracked_files_in(pristine):
    with open(os.path.join(pristine, ".tracked")) as fh:
        return [l.rstrip("\n") for l in fh if l.strip()]


# --------------------------------------------------------------------------
# Building and testing


def sh(cmd, cwd, timeout=None, env=None):
    t0 = time.time()
    try:
        p = subprocess.run(cmd, cwd=cwd, capture_output=True, text=True, timeout=timeout, env=env,
                           errors="replace")
        return p.returncode, p.stdout + p.stderr, time.time() - t0
    except subprocess.TimeoutExpired as e:
        return 124, (e.stdout or "") if isinstance(e.stdout, str) else "", time.time() - t0


def proc_table():
    """pid -> (ppid, starttime ticks) for every visible process."""
    table = {}
    for d in os.listdir("/proc"):
        if not d.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % d) as fh:
                st = fh.read()
            rest = st[st.rindex(")") + 2:].split()
            table[int(d)] = (int(rest[1]), int(rest[19]))
        except (OSError, ValueError, IndexError):
            pass
    return table


def descendants(pid, table):
    kids = defaultdict(list)
    for p, (pp, _) in table.items():
        kids[pp].append(p)
    out, stack = [], [pid]
    while stack:
        p = stack.pop()
        for c in kids.get(p, []):
            out.append(c)
            stack.append(c)
    return out


def kill_tree(pid, table):
    for p in reversed(descendants(pid, table)):
        try:
            os.kill(p, signal.SIGKILL)
        except OSError:
            pass
    try:
        os.kill(pid, signal.SIGKILL)
    except OSError:
        pass


def cmdline(pid):
    try:
        with open("/proc/%d/cmdline" % pid, "rb") as fh:
            return fh.read().split(b"\0")
    except OSError:
        return []


TEST_LINE = re.compile(r"Test\s+#(\d+): (\S+) \.*\s*(.*?)\s+([\d.]+) sec")


def run_ctest(wdir, numbers, jobs, test_timeout, hard_limit, limits=None, durations=None, durations_base=None):
    """Runs the given ctest numbers (None: all).  Returns (results{num: status}, timed_out set, secs).
    limits: test name -> seconds after which the watchdog kills it (default test_timeout)."""
    cmd = ["ctest", "--test-dir", "build", "-j%d" % jobs, "--timeout", str(test_timeout)]
    if numbers is not None:
        cmd += ["-I", "0,0,0," + ",".join(str(n) for n in sorted(numbers))]
    log = os.path.join(wdir, "ctest.log")
    t0 = time.time()
    clk = os.sysconf("SC_CLK_TCK")
    timed_out = set()
    with open(log, "w") as fh:
        p = subprocess.Popen(cmd, cwd=wdir, stdout=fh, stderr=subprocess.STDOUT)
        while p.poll() is None:
            time.sleep(0.5)
            table = proc_table()
            try:
                with open("/proc/uptime") as u:
                    now = float(u.read().split()[0])
            except OSError:
                continue
            for c, (pp, start) in list(table.items()):
                if pp != p.pid:
                    continue
                age = now - start / clk
                if age > min(5, test_timeout):
                    args = cmdline(c)
                    name = next((a.decode(errors="replace").split("=", 1)[1] for a in args
                                 if a.startswith(b"--gtest_filter=")), "pid%d" % c)
                    limit = (limits or {}).get(name, test_timeout)
                    if timed_out and durations_base:
                        # the mutant is killed already: a test that is still running at
                        # 5 times its baseline time (at least 5 s) is taken as hanging too
                        limit = min(limit, max(5.0, 5 * durations_base.get(name, test_timeout)))
                    if age > limit:
                        timed_out.add(name)
                        kill_tree(c, table)
            if time.time() - t0 > hard_limit:
                kill_tree(p.pid, table)
                timed_out.add("<ctest hard limit>")
        p.wait()
    with open(log, errors="replace") as fh:
        text = fh.read()
    results = {}
    for m in TEST_LINE.finditer(text):
        status = m.group(3)
        results[int(m.group(1))] = "pass" if ("Passed" in status or "Skipped" in status) else status.strip("* ")
        if durations is not None:
            durations[m.group(2)] = float(m.group(4))
    if numbers is not None:
        for n in numbers:
            results.setdefault(n, "not finished")
    return results, timed_out, time.time() - t0


def binary_hashes(wdir):
    h = {}
    b = os.path.join(wdir, "build")
    paths = [os.path.join(b, p) for p in PROGRAMS]
    tdir = os.path.join(b, "tests")
    if os.path.isdir(tdir):
        paths += [os.path.join(tdir, f) for f in sorted(os.listdir(tdir)) if f.startswith("test_")
                  and os.path.isfile(os.path.join(tdir, f)) and os.access(os.path.join(tdir, f), os.X_OK)]
    for p in paths:
        if os.path.exists(p):
            with open(p, "rb") as fh:
                h[os.path.relpath(p, b)] = hashlib.sha1(fh.read()).hexdigest()
    return h


class Worker:
    def __init__(self, k, args, pristine, log):
        self.k = k
        self.args = args
        self.pristine = pristine
        self.dir = os.path.realpath(os.path.join(args.root, "w%d" % k))
        self.log = log
        self.env = dict(os.environ)
        self.env["CCACHE_DIR"] = os.path.join(args.root, "ccache%d" % k)
        self.current = None  # file currently mutated

    def sync(self):
        """Make the copy's tracked files equal to the pristine snapshot."""
        for rel in tracked_files_in(self.pristine):
            src, dst = os.path.join(self.pristine, rel), os.path.join(self.dir, rel)
            with open(src, "rb") as fh:
                data = fh.read()
            try:
                with open(dst, "rb") as fh:
                    same = fh.read() == data
            except OSError:
                same = False
            if not same:
                os.makedirs(os.path.dirname(dst), exist_ok=True)
                shutil.copyfile(src, dst)  # a new modification time, so make rebuilds from it
                shutil.copymode(src, dst)

    def setup(self):
        fresh = not (self.args.resume and os.path.exists(os.path.join(self.dir, "build", "CMakeCache.txt")))
        if fresh:
            shutil.rmtree(self.dir, ignore_errors=True)
            os.makedirs(self.dir)
            cfg = ["cmake", "-S", ".", "-B", "build", "-DCMAKE_BUILD_TYPE=Release"]
            if not self.args.no_ccache:
                cfg.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
            self.sync()
            rc, out, _ = sh(cfg, self.dir, env=self.env)
            if rc != 0:
                raise SystemExit("configure failed in %s:\n%s" % (self.dir, out[-3000:]))
        else:
            self.sync()
            # an interrupted run may have left objects of a mutant and half-written programs:
            # compile (ccache hits) and link everything again
            now = time.time()
            for rel in tracked_files_in(self.pristine):
                if rel.endswith((".cpp", ".h")):
                    os.utime(os.path.join(self.dir, rel), (now, now))
            b = os.path.join(self.dir, "build")
            tdir = os.path.join(b, "tests")
            tests = [os.path.join("tests", f) for f in os.listdir(tdir)
                     if f.startswith("test_") and "." not in f and "[" not in f] if os.path.isdir(tdir) else []
            for rel in PROGRAMS + tests + ["libtavrix_core.a", "libtavrix_matrix_export.a"]:
                if os.path.exists(os.path.join(b, rel)):
                    os.remove(os.path.join(b, rel))
        self.log("w%d: building" % self.k)
        rc, out, secs = sh(["cmake", "--build", "build", "-j%d" % self.args.jobs], self.dir, env=self.env)
        if rc != 0:
            raise SystemExit("baseline build failed in %s:\n%s" % (self.dir, out[-3000:]))
        self.log("w%d: built in %.0f s; baseline ctest" % (self.k, secs))
        self.hashes = binary_hashes(self.dir)
        show = subprocess.run(["ctest", "--test-dir", "build", "--show-only=json-v1"], cwd=self.dir,
                              capture_output=True, text=True, check=True).stdout
        self.tests = []  # (number, name, binary)
        for i, t in enumerate(json.loads(show)["tests"], 1):
            self.tests.append((i, t["name"], os.path.relpath(t["command"][0], os.path.join(self.dir, "build"))))
        self.durations = {}
        results, timed_out, secs = run_ctest(self.dir, None, self.args.jobs, self.args.test_timeout, 1800,
                                             durations=self.durations)
        # a test running far longer than in the baseline is stopped as timed out: the limit is
        # --timeout-factor times its baseline time, at least --min-timeout, at most --test-timeout
        self.limits = {name: min(self.args.test_timeout, max(self.args.min_timeout, self.args.timeout_factor * d))
                       for name, d in self.durations.items()}
        bad = [n for n, _, _ in self.tests if results.get(n) != "pass"]
        if bad:
            again, _, _ = run_ctest(self.dir, bad, self.args.jobs, self.args.test_timeout, 1800)
            still = [n for n in bad if again.get(n) != "pass"]
            if still:
                raise SystemExit("baseline ctest fails in %s: %s" % (self.dir, [self.tests[n - 1][1] for n in still]))
            self.log("w%d: baseline flaky tests passed on rerun: %s" % (self.k, [self.tests[n - 1][1] for n in bad]))
        self.log("w%d: baseline ctest passed (%d tests, %.0f s)" % (self.k, len(self.tests), secs))
        # which test programs run the built programs
        self.runners = set()
        tdir = os.path.join(self.dir, "tests")
        for d in sorted(os.listdir(tdir)):
            full = os.path.join(tdir, d)
            if not os.path.isdir(full):
                continue
            for f in os.listdir(full):
                if f.endswith("_test.cpp"):
                    with open(os.path.join(full, f), errors="replace") as fh:
                        if RUNNER_RE.search(fh.read()):
                            self.runners.add("tests/test_" + d)
        return secs

    def write(self, rel, text):
        with open(os.path.join(self.dir, rel), "w", encoding="utf-8", errors="surrogateescape") as fh:
            fh.write(text)

    def restore(self):
        if self.current:
            with open(os.path.join(self.pristine, self.current), encoding="utf-8", errors="surrogateescape") as fh:
                self.write(self.current, fh.read())
            self.current = None

    def run_mutant(self, m):
        rel = m["file"]
        with open(os.path.join(self.pristine, rel), encoding="utf-8", errors="surrogateescape") as fh:
            text = fh.read()
        lines = text.split("\n")
        assert lines[m["line"] - 1] == m["orig"], "plan does not match the snapshot"
        lines[m["line"] - 1] = m["mutated"]
        rec = {k: m[k] for k in ("id", "idx", "file", "line", "col", "op", "desc", "orig", "mutated")}
        rec["worker"] = self.k
        self.current = rel
        self.write(rel, "\n".join(lines))
        try:
            rc, out, bsecs = sh(["cmake", "--build", "build", "-j%d" % self.args.jobs], self.dir,
                                timeout=3600, env=self.env)
            rec["build_s"] = round(bsecs, 1)
            if rc != 0:
                errs = [l for l in out.splitlines() if "error" in l]
                rec.update(status="not_compiled", error=(errs[0] if errs else out[-300:])[:300])
                return rec
            h = binary_hashes(self.dir)
            changed = sorted(b for b in h if h[b] != self.hashes.get(b))
            rec["changed_binaries"] = changed
            if not changed:
                rec.update(status="identical", failed=[], timeouts=[], test_s=0)
                return rec
            programs_changed = any(p in changed for p in PROGRAMS)
            run_bins = set()
            for _, _, b in self.tests:
                if not self.args.select_tests or b in changed or (programs_changed and b in self.runners):
                    run_bins.add(b)
            numbers = [n for n, _, b in self.tests if b in run_bins]
            rec["ran_binaries"] = sorted(run_bins)
            rec["tests_run"] = len(numbers)
            if not numbers:
                rec.update(status="survived", failed=[], timeouts=[], test_s=0)
                return rec
            results, timed_out, tsecs = run_ctest(self.dir, numbers, self.args.jobs, self.args.test_timeout,
                                                  self.args.hard_limit, self.limits,
                                                  durations_base=self.durations)
            failed = [n for n in numbers if results.get(n) != "pass"]
            names = {n: name for n, name, _ in self.tests}
            flaky = []
            # tests that failed but were not killed by the watchdog are run once more, alone:
            # a failure that does not repeat is noted as flaky and does not count as a kill
            timeout_names = set(timed_out)
            retry = [n for n in failed if names[n] not in timeout_names and results[n] != "not finished"]
            if retry and len(retry) <= self.args.retry_max:
                again, t2, s2 = run_ctest(self.dir, retry, self.args.jobs, self.args.test_timeout, self.args.hard_limit)
                tsecs += s2
                flaky = [n for n in retry if again.get(n) == "pass"]
            hard = [n for n in failed if n not in flaky]
            rec["test_s"] = round(tsecs, 1)
            rec["failed"] = [names[n] for n in hard]
            rec["failed_status"] = {names[n]: results.get(n) for n in hard}
            rec["failed_binaries"] = sorted({b for n, _, b in self.tests if n in hard})
            rec["timeouts"] = sorted(timed_out)
            rec["flaky"] = [names[n] for n in flaky]
            rec["status"] = "killed" if hard else "survived"
            return rec
        finally:
            self.restore()


# --------------------------------------------------------------------------
# Summary


def folder_of(rel):
    parts = rel.split("/")
    return "/".join(parts[:2]) if len(parts) > 2 else parts[0]


def score(k, s):
    return "%5.1f%%" % (100.0 * k / (k + s)) if k + s else "   n/a"


def summarize(results, out=sys.stdout):
    def p(*a):
        print(*a, file=out)

    counts = defaultdict(int)
    for r in results:
        counts[r["status"]] += 1
    k, s = counts["killed"], counts["survived"]
    p("mutants: %d  killed %d  survived %d  not compiled %d  identical binaries %d" %
      (len(results), k, s, counts["not_compiled"], counts["identical"]))
    p("mutation score killed/(killed+survived): %s   (identical counted as survived: %s)" %
      (score(k, s), score(k, s + counts["identical"])))
    for title, key in (("per folder", folder_of), ("per file", lambda f: f)):
        p("\n%s:" % title)
        agg = defaultdict(lambda: defaultdict(int))
        for r in results:
            agg[key(r["file"])][r["status"]] += 1
        for name in sorted(agg):
            a = agg[name]
            p("  %-44s score %s  killed %3d survived %3d not-compiled %3d identical %3d" %
              (name, score(a["killed"], a["survived"]), a["killed"], a["survived"], a["not_compiled"],
               a["identical"]))
    killed = [r for r in results if r["status"] == "killed"]
    by_bin = defaultdict(set)
    for r in killed:
        for b in r.get("failed_binaries", []):
            by_bin[b].add(r["id"])
    p("\nper killing test target (kills, unique kills):")
    for b in sorted(by_bin, key=lambda b: -len(by_bin[b])):
        uniq = sum(1 for r in killed if r.get("failed_binaries") == [b])
        p("  %-24s kills %3d  unique %3d" % (b, len(by_bin[b]), uniq))
    p("\nsurviving mutants:")
    for r in sorted(results, key=lambda r: (r["file"], r["line"])):
        if r["status"] == "survived":
            p("  %s:%d  %s\n      - %s\n      + %s" % (r["file"], r["line"], r["desc"], r["orig"].strip(),
                                                     r["mutated"].strip()))


def load_results(path):
    res = {}
    if os.path.exists(path):
        with open(path) as fh:
            for line in fh:
                if line.strip():
                    r = json.loads(line)
                    res[r["id"]] = r
    return res


# --------------------------------------------------------------------------


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--count", type=int, default=100)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--files", default=DEFAULT_FILES, help="comma-separated globs (default %(default)s)")
    ap.add_argument("--resume", action="store_true", help="keep the snapshot, copies and results; skip done mutants")
    ap.add_argument("--checkout", default=".", help="the checkout to copy (default: the current folder)")
    ap.add_argument("--root", default="/tmp/mut/run")
    ap.add_argument("--workers", type=int, default=1)
    ap.add_argument("--jobs", type=int, default=2, help="-j for cmake --build and ctest")
    ap.add_argument("--minutes", type=float, default=0, help="start no mutant after this many minutes (0: no limit)")
    ap.add_argument("--test-timeout", type=int, default=120)
    ap.add_argument("--timeout-factor", type=float, default=10.0,
                    help="stop a test after this many times its baseline duration (within min/max)")
    ap.add_argument("--min-timeout", type=float, default=30.0)
    ap.add_argument("--hard-limit", type=int, default=1200, help="seconds for one ctest run in all")
    ap.add_argument("--retry-max", type=int, default=3,
                    help="rerun the failed tests once when at most this many failed (flakiness check)")
    ap.add_argument("--select-tests", action="store_true",
                    help="run only the test programs a mutant changes (faster; relies on the tests/test_<folder> naming)")
    ap.add_argument("--no-ccache", action="store_true")
    ap.add_argument("--list", action="store_true", help="print the plan and stop")
    ap.add_argument("--summary", action="store_true", help="print the summary of ROOT/results.jsonl and stop")
    args = ap.parse_args()
    if not args.no_ccache and shutil.which("ccache") is None:
        print("ccache not found (apt-get install ccache makes rebuilds faster); building without it")
        args.no_ccache = True
    globs = [g.strip() for g in args.files.split(",") if g.strip()]
    os.makedirs(args.root, exist_ok=True)
    results_path = os.path.join(args.root, "results.jsonl")
    if args.summary:
        summarize(sorted(load_results(results_path).values(), key=lambda r: r["idx"]))
        return
    pristine = os.path.join(args.root, "pristine")
    meta_path = os.path.join(args.root, "meta.json")
    if not (args.resume and os.path.exists(os.path.join(pristine, ".tracked"))):
        shutil.rmtree(pristine, ignore_errors=True)
        os.makedirs(pristine)
        files = tracked_files(args.checkout)
        for rel in files:
            src = os.path.join(args.checkout, rel)
            if os.path.isfile(src):
                os.makedirs(os.path.dirname(os.path.join(pristine, rel)), exist_ok=True)
                shutil.copy2(src, os.path.join(pristine, rel))
        with open(os.path.join(pristine, ".tracked"), "w") as fh:
            fh.write("\n".join(f for f in files if os.path.isfile(os.path.join(args.checkout, f))) + "\n")
        head = subprocess.run(["git", "-C", args.checkout, "rev-parse", "HEAD"], capture_output=True,
                              text=True).stdout.strip()
        dirty = subprocess.run(["git", "-C", args.checkout, "status", "--porcelain", "--untracked-files=no"],
                               capture_output=True, text=True).stdout.strip() != ""
        with open(meta_path, "w") as fh:
            json.dump({"checkout": args.checkout, "head": head, "dirty": dirty, "seed": args.seed,
                       "count": args.count, "files": globs}, fh)
    plan, weights, ncands = make_plan(pristine, globs, args.count, args.seed)
    with open(os.path.join(args.root, "plan.jsonl"), "w") as fh:
        for m in plan:
            fh.write(json.dumps(m) + "\n")
    if args.list:
        for f in sorted(weights):
            print("%-44s code lines %4d candidates %4d" % (f, weights[f], ncands[f]))
        for m in plan:
            print("%3d %s:%d  %s\n      %s" % (m["idx"], m["file"], m["line"], m["desc"], m["mutated"].strip()))
        return
    if not args.resume and os.path.exists(results_path):
        os.replace(results_path, results_path + ".old")
    done = load_results(results_path)
    todo = [m for m in plan if m["id"] not in done]
    lock = threading.Lock()
    t_start = time.time()

    def log(msg):
        with lock:
            print("[%6.0fs] %s" % (time.time() - t_start, msg), flush=True)

    log("plan: %d mutants (%d done, %d to run) over %d files; workers %d" %
        (len(plan), len(plan) - len(todo), len(todo), len(weights), args.workers))
    workers = [Worker(k, args, pristine, log) for k in range(args.workers)]
    errors = []

    def do_setup(w):
        try:
            w.setup()
        except BaseException as e:  # noqa
            errors.append(e)

    ts = [threading.Thread(target=do_setup, args=(w,)) for w in workers]
    for t in ts:
        t.start()
    for t in ts:
        t.join()
    if errors:
        raise SystemExit(str(errors[0]))

    queue = list(todo)
    stop = threading.Event()

    def on_signal(signum, frame):
        stop.set()
        log("signal %d: finishing the running mutants" % signum)

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)

    def loop(w):
        while not stop.is_set():
            if args.minutes and time.time() - t_start > args.minutes * 60:
                return
            with lock:
                if not queue:
                    return
                m = queue.pop(0)
            try:
                rec = w.run_mutant(m)
            except Exception as e:  # noqa
                w.restore()
                log("w%d: mutant %s raised %r" % (w.k, m["id"], e))
                continue
            rec["t"] = round(time.time() - t_start)
            with lock:
                with open(results_path, "a") as fh:
                    fh.write(json.dumps(rec) + "\n")
            log("w%d #%d %s:%d %s -> %s %s (build %.0fs, tests %ss)" %
                (w.k, m["idx"], m["file"], m["line"], m["desc"], rec["status"],
                 ",".join(rec.get("failed_binaries", []))[:80], rec.get("build_s", 0), rec.get("test_s", "-")))

    ts = [threading.Thread(target=loop, args=(w,)) for w in workers]
    for t in ts:
        t.start()
    for t in ts:
        while t.is_alive():
            t.join(1)
    for w in workers:
        w.restore()
    res = load_results(results_path)
    summarize(sorted((r for r in res.values() if r["id"] in {m["id"] for m in plan}), key=lambda r: r["idx"]))


if __name__ == "__main__":
    main()
