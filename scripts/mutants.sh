#!/usr/bin/env bash
# SPDX-License-Identifier: LGPL-2.1-or-later
# Mutation sample: how many small, fault-like edits to src/ does the test suite
# catch? The script copies the tracked tree aside (the checkout is never
# touched), builds it once, then for each mutant of a fixed, seeded sample
# edits one line, rebuilds, runs the whole suite and restores the line.
#
# Five kinds of edit, the kinds that hide real faults:
#   cmp      a comparison flipped (== !=, < >=, > <=)
#   const    an integer constant off by one (N -> N+1)
#   call     a call statement removed
#   branch   an if condition inverted
#   bufsize  a buffer's size, or the size handed with it, one smaller
#
# Candidates are every such spot in src/**/*.cpp outside comments, string
# literals, preprocessor lines, static_asserts and the gateway's test seams.
# Each kind's candidates are shuffled with the seed; the first PER_KIND that
# compile are the sample (a mutant that does not compile is replaced by the
# next one), so the same sources and seed always give the same sample.
#
# A mutant is killed when a test fails or the suite outlives its time limit.
# Results: OUT/mutants.tsv (one row per mutant, with the failing tests) and a
# summary line "killed K of N (P%)".
#
# Usage: scripts/mutants.sh [--seed N] [--per-kind N] [--out DIR] [--list]
#        --list prints the shuffled candidates without building anything.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
seed=13
per_kind=13
out="$repo/build-mutants"
list=0
while [ $# -gt 0 ]; do
    case "$1" in
        --seed) seed=$2; shift 2 ;;
        --per-kind) per_kind=$2; shift 2 ;;
        --out) out=$2; shift 2 ;;
        --list) list=1; shift ;;
        -h|--help) sed -n '3,26p' "$0"; exit 0 ;;
        *) echo "mutants.sh: unknown option $1" >&2; exit 2 ;;
    esac
done
mkdir -p "$out"
out=$(cd "$out" && pwd)

tree="$out/tree"
if [ "$list" = 0 ] || [ ! -d "$tree" ]; then
    rm -rf "$tree"
    mkdir -p "$tree"
    (cd "$repo" && git ls-files -z | tar --null -T - -cf -) | tar -xf - -C "$tree"
fi

exec python3 - "$tree" "$out" "$seed" "$per_kind" "$list" <<'PY'
import os, random, re, subprocess, sys, time, glob, signal

tree, out, seed, per_kind, list_only = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4]), sys.argv[5] == "1"
build = os.path.join(out, "build")
jobs = str(os.cpu_count() or 2)
SUITE_TIME_LIMIT = 420

def mask(text):
    """Blank out comments and string/char literals, keeping offsets and newlines."""
    res, i, n = list(text), 0, len(text)
    def blank(a, b):
        for k in range(a, b):
            if res[k] != "\n":
                res[k] = " "
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j); i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            blank(i, j); i = j
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            blank(i + 1, min(j, n)); i = j + 1
        else:
            i += 1
    return "".join(res)

def close_paren(s, start):
    """Index of the parenthesis closing the one at s[start], or -1 on this line."""
    depth = 0
    for k in range(start, len(s)):
        if s[k] == "(":
            depth += 1
        elif s[k] == ")":
            depth -= 1
            if depth == 0:
                return k
    return -1

FLIP = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
CMP = re.compile(r"(?<= )(==|!=|<=|>=|<|>)(?= )")
INT = re.compile(r"(?<![\w.'])(\d+)(?![\w.'])")
ARRAY_DECL = re.compile(r"\b(?:char|unsigned char|uint8_t|int)\s+\w+\[([\w:]+(?: \* [\w:]+)?)\]")
STD_ARRAY = re.compile(r"std::array<(?:unsigned char|char|uint8_t), ([\w:]+)>")
SIZE_CONST = re.compile(r"constexpr size_t (k\w*(?:Size|Max|Buffer|Block|Chunk))\s*=\s*([^,;]+)[,;]")
SIZEOF = re.compile(r"sizeof\s*(\(\s*\w+\s*\)|\s\w+)")
IF = re.compile(r"\bif \(")
CALL_STMT = re.compile(r"^(?:[\w:]+(?:\.|->))*[\w:]+\s*\(.*\)\s*;$")
STMT_END = re.compile(r"(?:[;{}:)]|\belse)\s*$")
NOT_CALLS = {"return", "if", "while", "for", "switch", "sizeof", "delete", "throw", "case", "static_assert"}

def candidates():
    found = []
    for path in sorted(glob.glob(os.path.join(tree, "src", "**", "*.cpp"), recursive=True)):
        rel = os.path.relpath(path, tree)
        if rel.endswith("trusted_key_gen.cpp"):  # build-time generator, not the library
            continue
        text = open(path, encoding="utf-8").read()
        lines, masked = text.split("\n"), mask(text).split("\n")
        in_seams = False
        prev = ";"
        for no, (line, m) in enumerate(zip(lines, masked), 1):
            code = m.strip()
            if re.match(r"namespace [\w:]*testing\b", code):
                in_seams = True
            if in_seams:
                if re.match(r"}\s*$", code) and "testing" in line:
                    in_seams = False
                continue
            if not code or code.startswith("#") or "static_assert" in code or "template" in code:
                continue
            def add(kind, a, b, new):
                found.append(dict(kind=kind, file=rel, line=no, old=line[a:b], new=new, start=a, end=b))
            for mt in CMP.finditer(m):
                add("cmp", mt.start(), mt.end(), FLIP[mt.group(1)])
            if not re.search(r"\bcase\b", code):
                for mt in INT.finditer(m):
                    add("const", mt.start(), mt.end(), str(int(mt.group(1), 10) + 1))
            bodyless = code.split("(")[0].strip().split()
            if CALL_STMT.match(code) and "=" not in code.replace("==", "").replace("!=", "") \
                    and bodyless and bodyless[-1].split("::")[-1] not in NOT_CALLS and len(bodyless) == 1 \
                    and STMT_END.search(prev) and close_paren(code, code.index("(")) == len(code.rstrip(";").rstrip()) - 1:
                a = m.index(code)
                add("call", a, a + len(code), ";")
            for mt in IF.finditer(m):
                lp = mt.end() - 1
                rp = close_paren(m, lp)
                cond = m[lp + 1:rp]
                if rp < 0 or ";" in cond or m[mt.start():].startswith("if constexpr"):
                    continue
                add("branch", lp, rp + 1, "(!(" + line[lp + 1:rp] + "))")
            for rx in (ARRAY_DECL, STD_ARRAY):
                for mt in rx.finditer(m):
                    add("bufsize", mt.start(1), mt.end(1), "(" + line[mt.start(1):mt.end(1)] + ") - 1")
            for mt in SIZE_CONST.finditer(m):
                add("bufsize", mt.start(2), mt.end(2), "(" + line[mt.start(2):mt.end(2)].strip() + ") - 1")
            for mt in SIZEOF.finditer(m):
                if "memset" not in code:
                    add("bufsize", mt.start(), mt.end(), "(" + line[mt.start():mt.end()] + " - 1)")
            prev = code
    return found

KINDS = ["cmp", "const", "call", "branch", "bufsize"]

def shuffled(found):
    rng = random.Random(seed)
    order = {}
    for kind in KINDS:
        group = sorted((c for c in found if c["kind"] == kind), key=lambda c: (c["file"], c["line"], c["start"]))
        rng.shuffle(group)
        order[kind] = group
    return order

def show(c):
    return f'{c["kind"]}\t{c["file"]}:{c["line"]}\t{c["old"].strip()}\t{c["new"].strip()}'

found = candidates()
order = shuffled(found)
if list_only:
    for kind in KINDS:
        print(f"# {kind}: {len(order[kind])} candidates")
        for c in order[kind][:per_kind * 2]:
            print(show(c))
    sys.exit(0)

def run(cmd, **kw):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **kw)

def build_tree(verbose=False):
    done = run(["cmake", "--build", build, "-j", jobs])
    if verbose and done.returncode != 0:
        print(done.stdout[-3000:])
    return done.returncode == 0

def tmp_leftovers():
    # What a mutant that crashes a test leaves: the library's GnuPG homes and
    # key files, the tests' fixture trees and GoogleTest's captured output.
    return set(p for pattern in ("gpgdir-*", "pubkey_*", "tq-fixture-*", "gtest_captured_stream.*")
               for p in glob.glob("/tmp/" + pattern))

def suite():
    """Names of failing tests ([] when all pass), or ['(time limit)']."""
    log = os.path.join(build, "Testing", "Temporary", "LastTestsFailed.log")
    if os.path.exists(log):
        os.remove(log)
    proc = subprocess.Popen(["ctest", "--test-dir", build, "-j", jobs, "-Q"], start_new_session=True,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        proc.wait(timeout=SUITE_TIME_LIMIT)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        proc.wait()
        return ["(time limit)"]
    if not os.path.exists(log):
        return [] if proc.returncode == 0 else ["(ctest failed)"]
    return [l.split(":", 1)[1].strip() for l in open(log) if ":" in l]

def clean_tmp(before, min_age=60):
    # A mutant may leak temporary files and GnuPG agents. Remove those idle
    # for min_age seconds: younger ones may belong to a test still running
    # elsewhere on this machine.
    for path in tmp_leftovers() - before:
        try:
            if time.time() - os.lstat(path).st_mtime < min_age:
                continue
        except OSError:
            continue
        subprocess.run(["gpgconf", "--homedir", path, "--kill", "all"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        subprocess.run(["rm", "-rf", path])

t0 = time.time()
print(f"configuring and building {tree} in {build}", flush=True)
configured = run(["cmake", "-S", tree, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DTAVRO_QUENDA_BENCH=OFF"])
if configured.returncode != 0:
    print(configured.stdout[-3000:])
if configured.returncode != 0 or not build_tree(verbose=True):
    sys.exit("mutants.sh: the unmutated tree does not build")
before_tmp = tmp_leftovers()
base = suite()
clean_tmp(before_tmp)
if base:
    sys.exit("mutants.sh: the unmutated suite fails: " + " ".join(base))
print(f"unmutated suite passes ({time.time() - t0:.0f} s); {len(found)} candidates", flush=True)

rows = []
tsv = open(os.path.join(out, "mutants.tsv"), "w")
tsv.write("id\tkind\tplace\toriginal\tmutated\tresult\tfailing tests\n")
for kind in KINDS:
    taken = 0
    for c in order[kind]:
        if taken == per_kind:
            break
        path = os.path.join(tree, c["file"])
        original = open(path, encoding="utf-8").read()
        lines = original.split("\n")
        line = lines[c["line"] - 1]
        lines[c["line"] - 1] = line[:c["start"]] + c["new"] + line[c["end"]:]
        open(path, "w", encoding="utf-8").write("\n".join(lines))
        try:
            if not build_tree():
                print(f"  stillborn  {show(c)}", flush=True)
                continue
            taken += 1
            killers = suite()
            clean_tmp(before_tmp)
        finally:
            open(path, "w", encoding="utf-8").write(original)
        mid = f"{kind}-{taken:02d}"
        result = "killed" if killers else "SURVIVED"
        rows.append(result)
        print(f"{mid:10} {result:8} {show(c)}" + (f"  [{len(killers)} failing]" if killers else ""), flush=True)
        tsv.write("\t".join([mid, kind, f'{c["file"]}:{c["line"]}', c["old"].strip(), c["new"].strip(), result,
                             " ".join(killers)]) + "\n")
        tsv.flush()
build_tree()
time.sleep(5)
clean_tmp(before_tmp, min_age=0) # the last mutants' leftovers too
killed = rows.count("killed")
summary = f"killed {killed} of {len(rows)} ({100.0 * killed / max(len(rows), 1):.1f}%), seed {seed}, {time.time() - t0:.0f} s"
tsv.close()
open(os.path.join(out, "summary.txt"), "w").write(summary + "\n")
print(summary)
PY
