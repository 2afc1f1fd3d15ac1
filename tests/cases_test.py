#!/usr/bin/python3
"""cases_test.py FILE.cases [TITLE]: runs each case of the file (or those whose title holds TITLE)
on a server of its own; with KELVO_KEEP=1 the server of a failed case is kept and named. A case starts with
"=== title", a named fixture with "--- name" (a case's "use name" copies its steps); then one
step a line, its block being the "| " lines below it (the first may follow sql, out, same or log
on the step's line); '#' lines are comments.
  tz ZONE            the case's TZ (UTC otherwise)
  at Y-M-D h:m:s     kelvo's clock, local time (the real clock otherwise)
  sql + block        run on the database (SQL functions uuid(n) sid(n) sto(n) ms(local time))
  dir PATH | file PATH KIB | link PATH TARGET | script PATH + block
                     a folder ({a,b} alternatives as in the shell, also for gone), a file, a
                     symbolic link, a program; paths are below the root folder
  env NAME=VALUE     for the runs that follow
  run ARGS           runs kelvo ('a b' is one argument, '' an empty one)
  run ARGS => LINE   the same, then out LINE
  out + block        stdout of every run since the last out; stderr empty, status 0;
                     ORN_LOG_FILE is beside the database
  same + block       the runs since the last out print one output, which starts with the block
  after SQL + block  rows after the runs; without one the database must not change (checked
                     before the next fixture step and at the end)
  rows SQL + block   rows of a query, allowing no change
  calls [OPS] + block   the call log (of those ops)
  log + block        what the library logged
  gone PATH          what the runs removed: everything below PATH, and nothing else
Everywhere {root} is the root folder, {uuid N} {sid N} {sto N} the identifiers of N, {fsu N} the
FSU folder of volume uuid(N), {c*N} N times c. A failure names the case, the step's line, the
runs it checks (number, line, command as written) and shows a diff:
  === an unknown space                       FAILED: an unknown space (x.cases:1)
  run vollist {R*3} => no space [RR] info      x.cases:2: the output of run 1 (x.cases:2: kelvo vollist {R*3})
                                               --- expected
                                               +++ got
                                               @@ -1,2 +1,2 @@
                                               -no space [RR] info
                                               +no space [RRR] info"""
import dataclasses, difflib, os, re, sys

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "support"))
from server import Server, local_ms, uuid, sid, storage_id

Step = dataclasses.make_dataclass("Step", ["line", "keyword", "arg", "block", "source"])  # source: arg as written


def load(path):
    cases, fixtures, steps = [], {}, None
    for number, line in enumerate(open(path, encoding="utf-8").read().split("\n"), 1):
        if line.startswith(("=== ", "--- ")):
            steps = fixtures.setdefault(line[4:], []) if line[0] == "-" else []
            cases += [(line[4:], number, steps)] if line[0] == "=" else []
        elif line.startswith("|") and steps:
            steps[-1].block.append(line[2:])
        elif line.startswith("use ") and steps is not None:
            steps += fixtures[line[4:]]
        elif line and not line.startswith("#") and steps is not None:
            keyword, _, arg = line.partition(" ")
            if keyword not in STEPS:
                sys.exit("%s:%d: unknown keyword %s" % (path, number, keyword))
            inline = keyword in ("sql", "out", "same", "log") and arg  # the block's first line
            arg, _, out = arg.partition(" => ") if keyword == "run" else (arg, "", "")  # a run and its one-line output
            steps.append(Step(number, keyword, "" if inline else arg, [arg] if inline else [], arg))
            steps += [Step(number, "out", "", [out], "")] if out else []
    return cases


def split(text):  # words split on spaces; 'a b' is one word, '' an empty one
    return [q if q or not w else w for q, w in re.findall(r"'([^']*)'|(\S+)", text)]


def expand(path):  # the first {a,b,...} group, nested ones included, then the rest
    depth, start, cuts = 0, path.find("{"), []
    for i in range(max(start, 0), len(path) if start >= 0 else 0):
        depth += {"{": 1, "}": -1}.get(path[i], 0)
        if path[i] == "," and depth == 1 or path[i] == "}" and depth == 0:
            cuts.append(i)
            if depth == 0:
                return [e for a, b in zip([start] + cuts, cuts) for e in expand(path[:start] + path[a + 1:b] + path[i + 1:])]
    return [path]


NAMES = {"uuid": uuid, "sid": sid, "sto": storage_id, "fsu": lambda n: "FSU_" + uuid(n)[4:]}
listed = lambda: dataclasses.field(default_factory=list)


@dataclasses.dataclass
class Case:
    file: str  # the case file's name, for line references
    server: Server
    env: list
    errors: list = listed()
    at: int = None  # kelvo's clock in seconds
    pending: list = listed()  # (label, stdout, stderr, status) of the runs since the last out
    runs: list = listed()  # labels of the runs since the last fixture step
    number: int = 0  # of the last run in the case
    base: tuple = None  # (database, tree) before those runs
    gone: list = listed()
    db_may_change: bool = False

    def text(self, text):
        text = re.sub(r"\{(uuid|sid|sto|fsu) (\d+)\}", lambda m: NAMES[m[1]](int(m[2])), text.replace("{root}", self.server.root))
        return re.sub(r"\{(.)\*(\d+)\}", lambda m: m[1] * int(m[2]), text)

    def fail(self, step, what):
        self.errors.append("%s:%d: %s" % (self.file, step.line, what))

    def check(self, step, what, got, want):
        if got != want:
            self.fail(step, "\n".join([what, *difflib.unified_diff(want.split("\n"), got.split("\n"), "expected", "got", lineterm="")]))

    def check_changes(self, step):  # the database unless an after step allowed it; the tree lost exactly the gone paths
        if self.base:
            db, tree = self.base
            runs = "the runs " + ", ".join(self.runs)
            if not self.db_may_change:
                self.check(step, runs + " changed the database", self.server.dump(), db)
            for g in self.gone:
                if not any(p.startswith(g) for p in tree):
                    self.fail(step, "%s was not there before %s" % (g, runs))
            kept = "".join(p + "\n" for p in tree if not any(p.startswith(g) for g in self.gone))
            self.check(step, "the folder tree after " + runs, "".join(p + "\n" for p in self.server.tree()), kept)
        self.base, self.runs, self.gone, self.db_may_change = None, [], [], False


def run(case, step):
    case.base = case.base or (case.server.dump(), case.server.tree())
    case.number += 1
    case.runs.append("%d (%s:%d: kelvo %s)" % (case.number, case.file, step.line, step.source))
    out, err, status = case.server.run(split(step.arg), case.env, case.at)
    case.pending.append((case.runs[-1], out.decode(errors="surrogateescape"), err, status))


def out(case, step):
    if not case.pending:
        case.fail(step, "out without run")
    for label, got, err, status in case.pending:
        if step.keyword == "out":
            case.check(step, "the output of run " + label, got, step.block)
        else:
            case.check(step, "the output of run %s, unlike that of run %s" % (label, case.pending[0][0]), got, case.pending[0][1])
            case.check(step, "the start of the output of run " + label, got[:len(step.block)], step.block)
        case.check(step, "standard error and exit status of run " + label, "%r %d" % (err, status), "b'' 0")
    case.pending = []


def rows(case, step):
    case.check(step, step.arg, case.server.query(step.arg), step.block)
    case.db_may_change |= step.keyword == "after" and bool(case.base)


def calls(case, step):
    ops = " WHERE op IN (%s)" % ", ".join("'%s'" % op for op in split(step.arg)) if step.arg else ""
    query = "SELECT op || ' ' || args || ' ' || ifnull(result, 'NULL') FROM call_log%s ORDER BY seq" % ops
    case.check(step, "the call log", case.server.query(query), step.block)


def log(case, step):
    path = case.server.db_path + ".log"
    case.check(step, "the log", open(path).read() if os.path.exists(path) else "", step.block)


def gone(case, step):
    if not case.base:
        case.fail(step, "gone without run")
    case.gone += expand(step.arg)


def write(path, text, mode=0o644):
    open(path, "w").write(text)
    os.chmod(path, mode)


STEPS = {  # keyword: what it does to the case
    "tz": lambda case, step: None,
    "at": lambda case, step: setattr(case, "at", local_ms(step.arg) // 1000),
    "env": lambda case, step: case.env.append(step.arg),
    "sql": lambda case, step: case.server.exec(step.block),
    "dir": lambda case, step: [case.server.make_dir(p) for p in expand(step.arg)],
    "file": lambda case, step: write(case.server.path(split(step.arg)[0]), "x" * 1024 * int(split(step.arg)[1])),
    "link": lambda case, step: os.symlink(split(step.arg)[1], case.server.path(split(step.arg)[0])),
    "script": lambda case, step: write(case.server.path(step.arg), step.block, 0o755),
    "run": run, "out": out, "same": out, "after": rows, "rows": rows, "calls": calls, "log": log, "gone": gone,
}


def run_case(file, steps):
    server = Server(next((step.arg for step in steps if step.keyword == "tz"), "UTC"))
    case = Case(file, server, ["ORN_LOG_FILE=%s.log" % server.db_path])
    try:
        for step in steps:
            if step.keyword in ("sql", "dir", "file", "link", "script"):  # a fixture step
                case.check_changes(step)
            block = case.text("".join(b + "\n" for b in step.block))
            STEPS[step.keyword](case, Step(step.line, step.keyword, case.text(step.arg), block,
                                           step.arg))
        if case.pending:
            case.fail(steps[-1], "run without out")
        case.check_changes(steps[-1])
    finally:
        keep = case.errors and os.environ.get("KELVO_KEEP") == "1"
        server.close(keep)
        if keep:
            case.errors.append("server kept: ORN_STORAGE_DB=%s TZ=%s" % (server.db_path, server.tz))
    return case.errors


file, failed = os.path.basename(sys.argv[1]), 0
wanted = sys.argv[2] if len(sys.argv) > 2 else ""
for title, line, steps in load(sys.argv[1]):
    if wanted not in title:
        continue
    errors = run_case(file, steps)
    print("FAILED: %s (%s:%d)" % (title, file, line) if errors else "ok: " + title)
    for e in errors:
        print("  " + e.replace("\n", "\n  "))
    failed += bool(errors)
sys.exit(1 if failed else 0)
