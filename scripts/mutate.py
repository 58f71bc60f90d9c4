#!/usr/bin/env python3
"""Mutation check of the hub's own code: do the tests notice a small realistic fault?

One mutant at a time is planted in a copy of the source tree (never in the working tree), the
copy is rebuilt incrementally and the unit and integration tests that concern the module run with
a time limit. A mutant is killed when a test fails (the first failing test is recorded), timed out
when the tests do not finish in time, survived when every test passes, and build-failed when the
mutated code does not compile (not counted).

Operators:
  rel     relational boundary: < and <=, > and >= swapped
  const   an integer constant in a comparison one more or one less
  neg     a condition of if/while negated
  call    a call statement removed (random nonce, bounds check, unlock, memset, ...)
  order   byte order of a field writer swapped (PutLe16/PutLe32, shifts of a byte writer)
  text    one character of a log line or a shell command changed

Usage:
  scripts/mutate.py --list --module camera/frame       # the mutants, nothing is built
  scripts/mutate.py --module camera/frame --max 12     # run them
  scripts/mutate.py --max 12                           # every module of the map

The tree copy and its build live in build-mutate/ (tree/, build/); the report is written to
build-mutate/mutation-report.md unless --report names another file. Mutants judged equivalent
are listed with their reason in scripts/mutate-equivalent.txt ("<id> <reason>") and are shown but
not counted. See docs/mutation.md.
"""

import argparse
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EQUIVALENT_FILE = os.path.join(TOP, "scripts", "mutate-equivalent.txt")

# Module -> the hub sources it names and the test programs that exercise it (unit programs
# first: they are quick and usually kill first). The tests run are every test case of these
# programs, selected for ctest by exact name; "program:REGEX" takes only some of its cases.
MODULES = {
    "camera/frame": (["src/camera/frame.cpp"],
                     ["frame_test", "frame_cutter_test", "live_frame_test",
                      "camera_command_test"]),
    "camera/framecutter": (["src/camera/framecutter.cpp"],
                           ["frame_cutter_test", "camsim_parts_test"]),
    "camera/mediaframe": (["src/camera/mediaframe.cpp", "src/camera/frameinfo.cpp"],
                          ["live_frame_test", "viewer_live_test"]),
    "camera/channel": (["src/camera/channel.cpp"],
                       ["camera_channel_test", "live_forward_mt_test"]),
    "crypto/stream_encrypt": (["src/crypto/stream_encrypt.cpp"],
                              ["stream_encrypt_test", "crypto_mt_test", "viewer_test"]),
    "crypto/viewerlogin": (["src/crypto/viewerlogin.cpp"],
                           ["hubauth_test", "crypto_mt_test", "sessions_mt_test"]),
    "crypto/hubauth": (["src/crypto/hubauth.cpp"], ["hubauth_test", "crypto_mt_test"]),
    "p2p/wire": (["src/p2p/wire.cpp"], ["p2p_wire_test", "p2p_transport_mt_test"]),
    # Talk-back (the hub joining the viewer's channel) is exercised end to end only.
    "server/ioctrl": (["src/server/ioctrl.cpp"],
                      ["ioctrl_test", "live_view_mt_test:AMovedViewer|AClosedSession"]),
    "server/pairing": (["src/server/pairing.cpp"],
                       ["camsim_parts_test", "camera_link_mt_test", "camsim_mt_test"]),
    "cloud/mqttclient": (["src/cloud/mqttclient.cpp"],
                         ["hubauth_test", "mqtt_router_mt_test"]),
    "platform/uci": (["src/platform/uci.cpp", "src/platform/ucifile.cpp"],
                     ["uci_test", "board_mkboard_test", "recordindex_test"]),
    "platform/nvram": (["src/platform/nvram.cpp"],
                       ["nvram_test", "shim_test", "board_mkboard_test", "configuration_test"]),
    "storage/recordindex": (["src/storage/recordindex.cpp"], ["recordindex_test"]),
    "cloud/storagecmd": (["src/cloud/storagecmd.cpp"],
                         ["sdcard_daemon_mt_test"]),
    "cloud/otapackage": (["src/cloud/otapackage.cpp"],
                         ["otapackage_test", "ota_download_mt_test"]),
    # Not in the default run (named with --module): the rest of the camera link.
    "camera/livechannel": (["src/camera/livechannel.cpp", "src/camera/livecommands.cpp"],
                           ["camera_channel_test", "camera_mt_test", "live_forward_mt_test"]),
}
OPTIONAL = {"camera/livechannel"}

OPERATORS = ["rel", "const", "neg", "call", "order", "text"]

# ---------------------------------------------------------------------------------------------
# Finding mutants


def mask_literals(line):
    """The line with the inside of string and character literals replaced by '_' (same length),
    so that operators are never looked for inside them; and the literals' spans."""
    out = []
    spans = []
    i = 0
    while i < len(line):
        c = line[i]
        if c in "\"'":
            j = i + 1
            while j < len(line) and line[j] != c:
                j += 2 if line[j] == "\\" else 1
            j = min(j, len(line) - 1)
            if c == '"':
                spans.append((i + 1, j))
            out.append(c + "_" * (j - i - 1) + line[j])
            i = j + 1
            continue
        out.append(c)
        i += 1
    return "".join(out), spans


def strip_comment(masked):
    at = masked.find("//")
    return masked if at < 0 else masked[:at]


def match_paren(text, open_at):
    depth = 0
    for i in range(open_at, len(text)):
        if text[i] == "(":
            depth += 1
        elif text[i] == ")":
            depth -= 1
            if depth == 0:
                return i
    return -1


def split_args(text, open_at, close_at):
    """Top-level argument spans of the call whose parentheses are at open_at..close_at."""
    spans, depth, start = [], 0, open_at + 1
    for i in range(open_at + 1, close_at):
        if text[i] in "([{":
            depth += 1
        elif text[i] in ")]}":
            depth -= 1
        elif text[i] == "," and depth == 0:
            spans.append((start, i))
            start = i + 1
    spans.append((start, close_at))
    return spans


REL_SWAP = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
REL_RE = re.compile(r"(?<=\s)(<=|>=|<|>)(?=\s)")
CMP_RE = re.compile(r"\s(<=|>=|<|>|==|!=)\s")
NUMBER_RE = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)(?:[uU]?[lL]{0,2})(?![\w.])")
KCONST_RE = re.compile(r"(?<![\w.:>])(?:\w+::)*k[A-Z]\w*\b(?!\s*\()")
COND_RE = re.compile(r"\b(if|while)\s*\(")
CALL_RE = re.compile(r"^\s*((?:::)?[A-Za-z_][\w]*(?:(?:::|\.|->)[A-Za-z_]\w*)*)\s*\(")
KEYWORDS = {"return", "if", "while", "for", "switch", "delete", "throw", "case", "sizeof",
            "static_assert", "TLOG", "assert", "do", "else", "new"}
PUT_RE = re.compile(r"\b(PutLe16|PutLe32|PutBe16|PutBe32)\s*\(")
SHIFT_WRITE_RE = re.compile(r"^\s*\w+\[\d\]\s*=\s*.*>>\s*(8|16|24)\b")
TEXT_CONTEXT_RE = re.compile(r"\b(TLOG|System|Popen|popen|system|RunUntilQuiet)\b")


class Mutant:
    def __init__(self, module, path, line_no, op, before, after, detail):
        self.module, self.path, self.line_no, self.op = module, path, line_no, op
        self.before, self.after, self.detail = before, after, detail
        self.key = "|".join([path, before.strip(), op, after.strip()])
        self.id = hashlib.sha1(self.key.encode()).hexdigest()[:10]

    def number(self, occurrence):
        """Identical lines of one file are told apart by their order (stable while the file's
        other lines move)."""
        if occurrence:
            key = self.key + "|%d" % occurrence
            self.id = hashlib.sha1(key.encode()).hexdigest()[:10]

    def describe(self):
        return "%s %s:%d %s: %s" % (self.id, self.path, self.line_no, self.op, self.detail)


def line_mutants(module, path, line_no, line, in_text_statement):
    masked, literal_spans = mask_literals(line)
    code = strip_comment(masked)
    found = []

    def add(op, start, end, replacement, detail):
        after = line[:start] + replacement + line[end:]
        if after != line:
            found.append(Mutant(module, path, line_no, op, line, after, detail))

    stripped = code.strip()
    if not stripped or stripped.startswith("#"):
        return found
    # rel
    for m in REL_RE.finditer(code):
        add("rel", m.start(), m.end(), REL_SWAP[m.group(1)],
            "%s -> %s" % (m.group(1), REL_SWAP[m.group(1)]))
    # const: the operands of a comparison line
    windows = []
    for m in COND_RE.finditer(code):
        close_at = match_paren(code, m.end() - 1)
        windows.append((m.end(), close_at if close_at > 0 else len(code)))
    if re.match(r"\s*(return\b|&&|\|\|)", code) or (not windows and
                                                     re.match(r"\s*\w.*\)\s*\{?$", code) is None
                                                     and stripped.startswith(("(", "!"))):
        windows.append((0, len(code)))
    windows = [w for w in windows if CMP_RE.search(code[w[0]:w[1]])]
    # A bound taken with a conditional or std::min/std::max (copy at most outlen - 1 bytes).
    if re.search(r"\s\?\s|\bstd::(min|max)\(", code):
        windows.append((0, len(code)))

    def in_window(pos):
        return any(a <= pos < b for a, b in windows)

    if windows:
        for m in NUMBER_RE.finditer(code):
            text = m.group(0)
            if not in_window(m.start()) or (len(m.group(1)) > 1 and m.group(1)[0] == "0"
                                            and m.group(1)[1] not in "xX"):
                continue
            value = int(m.group(1), 0)
            for delta in (1, -1):
                if value + delta < 0:
                    continue
                add("const", m.start(), m.end(), str(value + delta),
                    "%s -> %d" % (text, value + delta))
        for m in KCONST_RE.finditer(code):
            if not in_window(m.start()):
                continue
            for sign in ("+", "-"):
                add("const", m.start(), m.end(), "(%s %s 1)" % (m.group(0), sign),
                    "%s -> %s %s 1" % (m.group(0), m.group(0), sign))
    # neg
    for m in COND_RE.finditer(code):
        open_at = m.end() - 1
        close_at = match_paren(code, open_at)
        if close_at < 0:
            continue
        cond = line[open_at + 1:close_at]
        add("neg", open_at + 1, close_at, "!(%s)" % cond, "%s (%s) negated" % (m.group(1),
                                                                             cond.strip()))
    # call: a whole statement that is one call
    m = CALL_RE.match(code)
    if m and m.group(1).split("::")[-1] not in KEYWORDS and "TLOG" not in code:
        open_at = code.index("(", m.start(1))
        close_at = match_paren(code, open_at)
        if close_at > 0 and code[close_at + 1:].strip() == ";":
            indent = len(line) - len(line.lstrip())
            add("call", indent, len(line.rstrip("\n")), "(void)0;",
                "call %s(...) removed" % m.group(1))
    # order
    for m in PUT_RE.finditer(code):
        if re.search(r"\w\s*$", code[:m.start()]):
            continue  # the writer's own definition or declaration, not a call
        open_at = m.end() - 1
        close_at = match_paren(code, open_at)
        if close_at < 0:
            continue
        args = split_args(code, open_at, close_at)
        if len(args) != 2:
            continue
        bits = m.group(1)[-2:]
        a, b = args[1]
        value = line[a:b].strip()
        add("order", a, b, " __builtin_bswap%s(static_cast<uint%s_t>(%s))" % (bits, bits, value),
            "%s value byte-swapped" % m.group(1))
    sm = SHIFT_WRITE_RE.match(code)
    if sm:
        shift = int(sm.group(1))
        other = {8: 0, 16: 24, 24: 16}[shift]
        at = code.rfind(">>")
        num = re.compile(r">>\s*%d\b" % shift).search(code, at)
        if num:
            add("order", num.start(), num.end(), ">> %d" % other,
                "byte writer shift %d -> %d" % (shift, other))
    # text: a literal of a log line or a shell command
    if TEXT_CONTEXT_RE.search(code) or in_text_statement:
        for start, end in literal_spans:
            body = line[start:end]
            for i, c in enumerate(body):
                if c.isalpha():
                    swapped = c.lower() if c.isupper() else c.upper()
                    add("text", start + i, start + i + 1, swapped,
                        "text \"%s\": '%s' -> '%s'" % (body, c, swapped))
                    break
    return found


def file_mutants(module, path):
    with open(os.path.join(TOP, path), encoding="utf-8") as f:
        lines = f.readlines()
    result = []
    in_block_comment = False
    in_text_statement = False
    for i, line in enumerate(lines):
        if in_block_comment:
            if "*/" in line:
                in_block_comment = False
            continue
        masked, _ = mask_literals(line)
        if masked.strip().startswith("/*"):
            in_block_comment = "*/" not in masked
            continue
        result.extend(line_mutants(module, path, i + 1, line, in_text_statement))
        code = strip_comment(masked)
        if TEXT_CONTEXT_RE.search(code) or in_text_statement:
            in_text_statement = not code.rstrip().endswith(";") and code.strip() != ""
    seen = {}
    for m in result:
        m.number(seen.get(m.key, 0))
        seen[m.key] = seen.get(m.key, 0) + 1
    return result


def select(module, mutants, seed, limit):
    """Deterministic choice: the candidates of each operator shuffled by (seed, module), then
    taken in turn from each operator so that every class is represented."""
    rng = random.Random("%d:%s" % (seed, module))
    by_op = {op: [m for m in mutants if m.op == op] for op in OPERATORS}
    for op in OPERATORS:
        rng.shuffle(by_op[op])
    chosen = []
    while any(by_op.values()) and (limit <= 0 or len(chosen) < limit):
        for op in OPERATORS:
            if by_op[op] and (limit <= 0 or len(chosen) < limit):
                chosen.append(by_op[op].pop())
    return chosen


def load_equivalents():
    result = {}
    if os.path.exists(EQUIVALENT_FILE):
        with open(EQUIVALENT_FILE, encoding="utf-8") as f:
            for line in f:
                line = line.strip()
                if line and not line.startswith("#"):
                    ident, _, reason = line.partition(" ")
                    result[ident] = reason.strip()
    return result


# ---------------------------------------------------------------------------------------------
# The tree copy, building and testing


def tracked_files():
    out = subprocess.run(["git", "-C", TOP, "ls-files", "-z", "--cached", "--others",
                          "--exclude-standard"], check=True, capture_output=True).stdout
    return [p for p in out.decode().split("\0") if p]


def sync_tree(tree):
    """Makes the copy equal to the working tree (mutated or stale files included); files whose
    content is unchanged are not touched, so the build stays incremental."""
    copied = 0
    for rel in tracked_files():
        src = os.path.join(TOP, rel)
        dst = os.path.join(tree, rel)
        if not os.path.isfile(src) or os.path.islink(src):
            continue
        with open(src, "rb") as f:
            data = f.read()
        if os.path.exists(dst):
            with open(dst, "rb") as f:
                if f.read() == data:
                    continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        # A fresh time stamp, not the original's: a file edited before the copy's last build
        # would otherwise look older than its object and not be compiled again.
        shutil.copyfile(src, dst)
        shutil.copymode(src, dst)
        copied += 1
    return copied


def run(cmd, timeout, log):
    """(status, output) of a command in a process group of its own; the whole group is killed
    at the time limit (status None) or when this script is interrupted."""
    log.write("$ %s\n" % " ".join(cmd))
    log.flush()
    p = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         start_new_session=True)
    try:
        out, _ = p.communicate(timeout=timeout)
        code = p.returncode
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        out, _ = p.communicate()
        code = None
    except BaseException:
        os.killpg(p.pid, signal.SIGKILL)
        p.wait()
        raise
    text = out.decode(errors="replace")
    log.write(text + ("\n[time limit]\n" if code is None else ""))
    return code, text


class Runner:
    def __init__(self, args):
        self.args = args
        self.work = os.path.abspath(args.workdir)
        self.tree = os.path.join(self.work, "tree")
        # Inside the copy, as build/ lies inside the working tree: the compiler cache sees the same
        # relative paths and the first build of the copy comes mostly from the cache.
        self.build = os.path.join(self.tree, "build")
        os.makedirs(self.work, exist_ok=True)
        self.log = open(os.path.join(self.work, "mutate.log"), "a", encoding="utf-8")
        self.journal = os.path.join(self.work, "planted.json")

    def nice(self, cmd):
        return ["nice", "-n", str(self.args.nice)] + cmd

    def prepare(self):
        # A mutant left behind by a killed run is put back first.
        if os.path.exists(self.journal):
            with open(self.journal, encoding="utf-8") as f:
                planted = json.load(f)
            with open(os.path.join(self.tree, planted["path"]), "w", encoding="utf-8") as f:
                f.write(planted["original"])
            os.remove(self.journal)
        sync_tree(self.tree)
        if not os.path.exists(os.path.join(self.build, "build.ninja")):
            code, _ = run(["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja",
                           "-DTARVO_BENCH=OFF"], 600, self.log)
            if code != 0:
                sys.exit("mutate: cmake failed, see %s" % self.log.name)

    def build_programs(self, programs):
        targets = [p.split(":")[0] for p in programs]
        code, text = run(self.nice(["ninja", "-C", self.build, "-j", str(self.args.jobs)] +
                                   targets), self.args.build_timeout, self.log)
        return code == 0

    def test_names(self, programs):
        """Every test case of the programs; "program:REGEX" takes only the cases whose name
        matches (an end-to-end program, of which a few cases reach the module)."""
        names = []
        for entry in programs:
            prog, _, only = entry.partition(":")
            first = len(names)
            code, text = run([os.path.join(self.build, "tests", prog), "--gtest_list_tests"], 60,
                             self.log)
            if code != 0:
                sys.exit("mutate: cannot list the tests of %s" % prog)
            suite = ""
            for line in text.splitlines():
                if not line.strip():
                    continue
                if not line.startswith(" "):
                    suite = line.split("#")[0].strip()
                else:
                    names.append(suite + line.split("#")[0].strip())
            if only:
                names[first:] = [n for n in names[first:] if re.search(only, n)]
        return names

    def run_tests(self, names, timeout):
        """(status, first failing test, seconds)."""
        pattern = "^(" + "|".join(re.escape(n) for n in names) + ")$"
        start = time.monotonic()
        code, text = run(self.nice(["ctest", "--test-dir", self.build, "-R", pattern,
                                    "--stop-on-failure", "-j", str(self.args.test_jobs),
                                    "--timeout", str(self.args.test_timeout)]),
                         timeout, self.log)
        seconds = time.monotonic() - start
        if code is None:
            return "timeout", "(whole test run over %ds)" % timeout, seconds
        failed = re.findall(r"Test\s+#\d+: (\S+) \.*\s*\*+(\w+)", text)
        if code == 0 and not failed:
            return "survived", "", seconds
        if failed:
            name, how = failed[0]
            return ("timeout" if how.startswith("Timeout") else "killed"), name, seconds
        return "killed", "(ctest status %s)" % code, seconds

    def plant(self, mutant):
        path = os.path.join(self.tree, mutant.path)
        with open(path, encoding="utf-8") as f:
            original = f.read()
        lines = original.splitlines(keepends=True)
        if lines[mutant.line_no - 1] != mutant.before:
            raise RuntimeError("the tree copy of %s differs from the working tree" % mutant.path)
        lines[mutant.line_no - 1] = mutant.after
        with open(self.journal, "w", encoding="utf-8") as f:
            json.dump({"path": mutant.path, "original": original}, f)
        with open(path, "w", encoding="utf-8") as f:
            f.write("".join(lines))
        return path, original

    def restore(self, path, original):
        with open(path, "w", encoding="utf-8") as f:
            f.write(original)
        os.remove(self.journal)


# ---------------------------------------------------------------------------------------------
# Reports


def record(mutant, status, killer, seconds):
    return {"id": mutant.id, "path": mutant.path, "line": mutant.line_no, "op": mutant.op,
            "detail": mutant.detail, "status": status, "killer": killer,
            "seconds": round(seconds, 1)}


def shown_status(rec, equivalents):
    if rec["status"] == "survived" and rec["id"] in equivalents:
        return "equivalent"
    return rec["status"]


def module_figures(results, equivalents):
    fig = {"killed": 0, "timeout": 0, "survived": 0, "equivalent": 0, "build-failed": 0}
    for rec in results:
        fig[shown_status(rec, equivalents)] += 1
    counted = fig["killed"] + fig["timeout"] + fig["survived"]
    fig["score"] = 100.0 * (fig["killed"] + fig["timeout"]) / counted if counted else 100.0
    return fig


def report(all_results, equivalents, command):
    out = ["# Mutation report", "", "Command: `%s`" % command, "",
           "Killed % counts killed and timed-out mutants among all but the equivalent and the "
           "build-failed ones.", "",
           "| module | mutants | killed | timeout | survived | equivalent | build failed | "
           "killed % |", "|---|---|---|---|---|---|---|---|"]
    totals = {"killed": 0, "timeout": 0, "survived": 0, "equivalent": 0, "build-failed": 0}
    for module, results in all_results.items():
        fig = module_figures(results, equivalents)
        for k in totals:
            totals[k] += fig[k]
        out.append("| %s | %d | %d | %d | %d | %d | %d | %.0f |" % (
            module, len(results), fig["killed"], fig["timeout"], fig["survived"],
            fig["equivalent"], fig["build-failed"], fig["score"]))
    counted = totals["killed"] + totals["timeout"] + totals["survived"]
    score = 100.0 * (totals["killed"] + totals["timeout"]) / counted if counted else 100.0
    out.append("| all | %d | %d | %d | %d | %d | %d | %.0f |" % (
        sum(len(r) for r in all_results.values()), totals["killed"], totals["timeout"],
        totals["survived"], totals["equivalent"], totals["build-failed"], score))
    out += ["", "## Mutants", ""]
    for module, results in all_results.items():
        out.append("### %s" % module)
        out.append("")
        for rec in results:
            status = shown_status(rec, equivalents)
            note = equivalents[rec["id"]] if status == "equivalent" else rec["killer"]
            out.append("- %s `%s` %s:%d %s: %s%s (%.0f s)" % (
                status, rec["id"], rec["path"], rec["line"], rec["op"], rec["detail"],
                " -- " + note if note else "", rec["seconds"]))
        out.append("")
    return "\n".join(out) + "\n"


def write_reports(path, all_results, equivalents, command):
    with open(path, "w", encoding="utf-8") as f:
        f.write(report(all_results, equivalents, command))
    with open(os.path.splitext(path)[0] + ".json", "w", encoding="utf-8") as f:
        json.dump({"command": command, "modules": all_results}, f, indent=1)


def main():
    parser = argparse.ArgumentParser(
        description="Plant small faults in the hub's code one at a time and see which the tests "
                    "catch.")
    parser.add_argument("--module", action="append",
                        help="module to mutate (repeatable), e.g. camera/frame; default: all but "
                             "camera/livechannel")
    parser.add_argument("--seed", type=int, default=17, help="selection seed (default 17)")
    parser.add_argument("--max", type=int, default=12,
                        help="mutants per module, 0 for all (default 12)")
    parser.add_argument("--operator", action="append", choices=OPERATORS,
                        help="only these operators (repeatable)")
    parser.add_argument("--id", action="append", help="only the mutants with these ids")
    parser.add_argument("--again", action="store_true",
                        help="run only the survivors of the last report again (after new tests) "
                             "and update that report")
    parser.add_argument("--list", action="store_true", help="show the mutants, run nothing")
    parser.add_argument("--modules", action="store_true", help="show the module map")
    parser.add_argument("--workdir", default=os.path.join(TOP, "build-mutate"))
    parser.add_argument("--report", help="report file (default WORKDIR/mutation-report.md; a "
                                         ".json beside it)")
    parser.add_argument("--jobs", type=int, default=1, help="build jobs (default 1)")
    parser.add_argument("--test-jobs", type=int, default=1, help="ctest jobs (default 1)")
    parser.add_argument("--nice", type=int, default=10, help="nice level (default 10)")
    parser.add_argument("--test-timeout", type=int, default=60,
                        help="time limit of one test case in seconds (default 60)")
    parser.add_argument("--build-timeout", type=int, default=1800)
    args = parser.parse_args()

    if args.modules:
        for name, (files, programs) in MODULES.items():
            print("%-24s %s  tests: %s" % (name, " ".join(files), " ".join(programs)))
        return 0
    report_path = args.report or os.path.join(os.path.abspath(args.workdir),
                                              "mutation-report.md")
    equivalents = load_equivalents()
    previous = {}
    command = "scripts/mutate.py " + " ".join(sys.argv[1:])
    if args.again:
        with open(os.path.splitext(report_path)[0] + ".json", encoding="utf-8") as f:
            last = json.load(f)
        previous = last["modules"]
        command = last["command"] + "; then scripts/mutate.py --again"
        modules = [m for m in previous if m in MODULES and (not args.module or m in args.module)]
    else:
        modules = args.module or [m for m in MODULES if m not in OPTIONAL]
    for name in modules:
        if name not in MODULES:
            sys.exit("mutate: unknown module %s (see --modules)" % name)

    plan = {}
    for name in modules:
        files, _ = MODULES[name]
        candidates = []
        for path in files:
            candidates += file_mutants(name, path)
        if args.operator:
            candidates = [m for m in candidates if m.op in args.operator]
        if args.again:
            wanted = [r["id"] for r in previous[name] if shown_status(r, equivalents) == "survived"]
            chosen = [m for m in candidates if m.id in wanted]
            missing = set(wanted) - set(m.id for m in chosen)
            if missing:
                print("%s: %s no longer found (code changed); left as they were" % (
                    name, " ".join(sorted(missing))))
        elif args.id:
            chosen = [m for m in candidates if m.id in args.id]
        else:
            chosen = select(name, candidates, args.seed, args.max)
        plan[name] = (chosen, len(candidates))

    if args.list:
        for name, (chosen, total) in plan.items():
            print("%s: %d of %d candidates" % (name, len(chosen), total))
            for m in chosen:
                mark = " (equivalent: %s)" % equivalents[m.id] if m.id in equivalents else ""
                print("  " + m.describe() + mark)
        return 0

    runner = Runner(args)
    # SIGTERM and SIGHUP end the run like Ctrl-C: the finally clauses put the code back.
    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, signal.default_int_handler)
    runner.prepare()
    all_results = {name: list(recs) for name, recs in previous.items()}
    try:
        for name, (chosen, total) in plan.items():
            _, programs = MODULES[name]
            print("== %s: %d mutants of %d candidates" % (name, len(chosen), total), flush=True)
            if not chosen:
                continue
            if not runner.build_programs(programs):
                print("   the unmutated tree does not build; module skipped", flush=True)
                continue
            names = runner.test_names(programs)
            status, killer, base_seconds = runner.run_tests(names, 3600)
            if status != "survived":
                print("   the unmutated tree fails %s; module skipped" % killer, flush=True)
                continue
            limit = int(max(60, 3 * base_seconds + 20))
            print("   %d tests, %.0f s unmutated, limit %d s" % (len(names), base_seconds, limit),
                  flush=True)
            results = all_results.setdefault(name, [])
            for mutant in chosen:
                start = time.monotonic()
                path, original = runner.plant(mutant)
                try:
                    if runner.build_programs(programs):
                        status, killer, _ = runner.run_tests(names, limit)
                    else:
                        status, killer = "build-failed", ""
                finally:
                    runner.restore(path, original)
                rec = record(mutant, status, killer, time.monotonic() - start)
                # A mutant run again replaces its earlier result.
                results[:] = [r for r in results if r["id"] != mutant.id] + [rec]
                print("   %-12s %s%s" % (shown_status(rec, equivalents), mutant.describe(),
                                         " -- " + killer if killer else ""), flush=True)
                write_reports(report_path, all_results, equivalents, command)
    except KeyboardInterrupt:
        print("mutate: interrupted; the tree copy is restored", flush=True)
    write_reports(report_path, all_results, equivalents, command)
    text = report(all_results, equivalents, command)
    print()
    print(text.split("\n## Mutants")[0])
    print("report: %s" % report_path)
    return 0


if __name__ == "__main__":
    sys.exit(main())
