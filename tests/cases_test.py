#!/usr/bin/python3
"""cases_test.py FILE.cases: runs a table of cases, each a fixture, kelvo's command lines, the
expected output and the expected change. A case starts with "=== title"; then one step a line,
a block being the "| "-prefixed lines below its step ('#' lines are comments):
  tz ZONE            the case's TZ (UTC otherwise)
  at Y-M-D h:m:s     kelvo's clock, local time (the real clock otherwise)
  sql + block        run on the database (uuid(n) sid(n) sto(n) ms(text))
  dir PATH | file PATH KIB | link PATH TARGET | script PATH + block
                     a folder ({a,b} alternatives as in the shell, also for gone), a file, a
                     symbolic link, a program; {root} anywhere is the root folder, paths are below it
  env NAME=VALUE     for the runs that follow
  run ARGS           runs kelvo ('a b' is one argument, '' an empty one)
  out + block        stdout of every run since the last out; stderr empty, status 0;
                     ORN_LOG_FILE is beside the database
  same + block       the runs since the last out print one output, which starts with the block
  after SQL + block  rows after the runs; without one the database must not change (checked
                     before the next fixture step and at the end)
  rows SQL + block   rows of a query, allowing no change
  calls [OPS] + block   the call log (of those ops)
  log + block        what the library logged
  gone PATH          what the runs removed: everything below PATH, and nothing else"""
import os, re, sys

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "support"))
from server import Server, local_ms

FIXTURE = ("sql", "dir", "file", "link", "script")


def load(path):
    cases = []
    for line in open(path, encoding="utf-8").read().split("\n"):
        if line.startswith("=== "):
            cases.append((line[4:], []))
        elif line.startswith("|") and cases and cases[-1][1]:
            cases[-1][1][-1][2].append(line[2:])
        elif line and not line.startswith("#") and cases:
            keyword, _, arg = line.partition(" ")
            cases[-1][1].append((keyword, arg, []))
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


def run_case(steps, errors):
    tz = next((arg for keyword, arg, _ in steps if keyword == "tz"), "UTC")
    with Server(tz) as server:
        env, at, pending, base = ["ORN_LOG_FILE=%s.log" % server.db_path], None, [], None

        def check(what, got, want):
            if got != want:
                errors.append("%s:\n--- expected\n%s\n--- got\n%s" % (what, want, got))

        def check_changes():  # the database unless an after step allowed it; the tree lost exactly the gone paths
            nonlocal base
            if base:
                db, tree, gone, db_may_change = base
                if not db_may_change:
                    check("the database changed", server.dump(), db)
                errors.extend("%s was not there before" % g for g in gone if not any(p.startswith(g) for p in tree))
                check("the folder tree", server.tree(), [p for p in tree if not any(p.startswith(g) for g in gone)])
            base = None

        for keyword, arg, block in steps:
            arg, block = arg.replace("{root}", server.root), "".join(b + "\n" for b in block).replace("{root}", server.root)
            if keyword in FIXTURE:
                check_changes()
            if keyword == "sql":
                server.exec(block)
            elif keyword == "dir":
                for path in expand(arg):
                    server.make_dir(path)
            elif keyword == "file":  # PATH KIB: real blocks for du
                path, kib = split(arg)
                open(server.path(path), "w").write("x" * 1024 * int(kib))
            elif keyword == "link":
                target_of, target = split(arg)
                os.symlink(target, server.path(target_of))
            elif keyword == "script":
                open(server.path(arg), "w").write(block)
                os.chmod(server.path(arg), 0o755)
            elif keyword == "env":
                env.append(arg)
            elif keyword == "at":
                at = local_ms(arg) // 1000
            elif keyword == "run":
                base = base or [server.dump(), server.tree(), [], False]
                pending.append(server.run(split(arg), env, at))
            elif keyword in ("out", "same"):
                if not pending:
                    errors.append("out without run")
                outputs = [out.decode(errors="surrogateescape") for out, _, _ in pending]
                for out, (_, err, status) in zip(outputs, pending):
                    check("the output of a run", out, block if keyword == "out" else outputs[0])
                    check("its standard error and exit status", (err, status), (b"", 0))
                    if keyword == "same":
                        check("the start of the output", out[:len(block)], block)
                pending = []
            elif keyword in ("after", "rows"):
                check(arg, server.query(arg), block)
                if base and keyword == "after":
                    base[3] = True
            elif keyword == "calls":
                ops = " WHERE op IN (%s)" % ", ".join("'%s'" % op for op in split(arg)) if arg else ""
                check("the call log", server.query("SELECT op || ' ' || args || ' ' || ifnull(result, 'NULL') FROM call_log%s ORDER BY seq" % ops), block)
            elif keyword == "log":
                check("the log", open(server.db_path + ".log").read() if os.path.exists(server.db_path + ".log") else "", block)
            elif keyword == "gone" and not base:
                errors.append("gone without run")
            elif keyword == "gone":
                base[2] += expand(arg)
            elif keyword != "tz":
                errors.append("unknown keyword " + keyword)
        if pending:
            errors.append("run without out")
        check_changes()


failed = 0
for title, steps in load(sys.argv[1]):
    errors = []
    run_case(steps, errors)
    print("%s: %s" % ("FAILED" if errors else "ok", title))
    for e in errors:
        print("  " + e.replace("\n", "\n  "))
    failed += bool(errors)
sys.exit(1 if failed else 0)
