# Runs the transcripts in tests/golden/tools: command lines of the tools, what each prints, and how it ends.
#
#     # A comment. Lines that aren't indented are comments, titles or empty.
#     == The title of a case, a sentence [root]
#       $ ostrel import links.db
#       > what the command reads from its standard input
#       what it prints to its standard output
#       ! what it prints to its standard error
#       ? 6
#
# Each case is run by one bash, in an empty directory `here` of a new MERIDON_ROOT. Its commands come after those that stand
# before the first title of the file. All that a command prints is compared, and its exit code, which is 0 where no ? says
# otherwise. In what is expected, ROOT is that root, and … is any text within a line, for a value that varies. "[root]"
# after a title: the case needs root.
#
# Beside the tools a command may call: daemon (starts the repository's daemon), serve DATABASE HATCH (starts a server and
# returns once it can be called; its process is $server), as USER COMMAND, and mounts COMMAND (in a mount namespace).
import glob
import os
import re
import subprocess
import unittest

import ostrel_tool as t

FRAME = """set -o pipefail
trap 'kill $(jobs -p) 2>/dev/null; wait' EXIT
as() { local user=$1; shift; setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups "$@"; }
mounts() { unshare -m bash -ec "$1"; }
daemon() {
	mkdir -p "$MERIDON_ROOT"/{system/transient,store}
	cairn.configd -f -d "$MERIDON_ROOT/system/transient/repository_hatch" -r "$MERIDON_ROOT/store/repository.db" &
	daemon=$!
	until cairnctl status >/dev/null 2>&1 || ! kill -0 "$daemon"; do sleep 0.01; done
}
serve() {
	ostrel serve --json "$@" >"$MERIDON_ROOT/served" &
	server=$!
	until [ -s "$MERIDON_ROOT/served" ] || ! kill -0 "$server"; do sleep 0.01; done
}
"""


class Step:
    def __init__(self, line, command):
        self.line, self.command, self.code = line, command, 0
        self.stdin, self.out, self.err = [], [], []


class Case:
    def __init__(self, title, steps):
        self.title, self.steps = title, steps


# The cases of a transcript. What stands in none of the forms is an error, as is a case without commands.
def parse(path):
    before, cases = [], []
    with open(path, encoding="utf-8") as file:
        for number, text in enumerate(file.read().split("\n"), 1):
            steps = cases[-1].steps if cases else before
            if text.startswith("== "):
                cases.append(Case(text[3:], list(before)))
            elif text.startswith("  $ "):
                steps.append(Step(number, text[4:]))
            elif text.startswith("  ? "):
                steps[-1].code = int(text[4:])
            elif text[:4] in ("  > ", "  >"):
                steps[-1].stdin.append(text[4:])
            elif text[:4] in ("  ! ", "  !"):
                steps[-1].err.append(text[4:])
            elif text.startswith("  "):
                steps[-1].out.append(text[2:])
            elif text and not text.startswith("#"):
                raise ValueError(f"{path}:{number}: neither a comment, a title nor indented")
    if not cases or any(len(case.steps) == len(before) for case in cases):
        raise ValueError(f"{path}: a case has no commands")
    return cases


def agrees(expected, lines):
    pattern = re.escape("\n".join(expected)).replace("…", ".*")
    return re.fullmatch(pattern, "\n".join(lines)) is not None


class Transcripts(t.ToolTest):
    @classmethod
    def setUpClass(cls):
        tools = t.install_tool(cls) if os.geteuid() == 0 else [os.path.dirname(t.OSTREL)]
        cls.search = ":".join([*tools, os.path.dirname(t.program("cairn.configd", "repository")), os.environ["PATH"]])

    # What each step of a case printed, as lines, and its exit code: (out, err, code).
    def run_steps(self, steps):
        for folder in (self.dir, self.path("here")):
            os.makedirs(folder, exist_ok=True)
            os.chmod(folder, 0o755)
        script = FRAME
        for i, step in enumerate(steps):
            self.write(f"in.{i}", "".join(line + "\n" for line in step.stdin))
            files = " ".join(f"{redirect}\"$MERIDON_ROOT\"/{name}.{i}" for redirect, name in (("<", "in"), (">", "out"), ("2>", "err")))
            script += f"{{ {step.command}\n}} {files}; echo $? >\"$MERIDON_ROOT\"/code.{i}\n"
        self.env.update(PATH=self.search, MERIDON_ROOT=self.dir, LC_ALL="C.UTF-8")
        shell = subprocess.run(["bash", "-c", script], cwd=self.path("here"), env=self.env, capture_output=True, timeout=250)
        self.assertEqual((shell.stdout, shell.stderr), (b"", b""))
        return [(self.lines(f"out.{i}"), self.lines(f"err.{i}"), int(self.read(f"code.{i}"))) for i in range(len(steps))]

    def lines(self, name):
        text = self.read(name).decode(errors="backslashreplace").replace(self.dir, "ROOT")
        lines = text.split("\n")
        return lines[:-1] if lines[-1] == "" else lines[:-1] + [lines[-1] + "<no newline>"]

    def check(self, path, case):
        wrong = []
        for step, (out, err, code) in zip(case.steps, self.run_steps(case.steps), strict=True):
            if not agrees(step.out, out) or not agrees(step.err, err) or step.code != code:
                wrong += [f"{path}:{step.line}: $ {step.command}", "expected:", *shown(step.out, step.err, step.code), "got:",
                          *shown(out, err, code)]
        self.assertFalse(wrong, "\n" + "\n".join(wrong))


def shown(out, err, code):
    return [*("  " + line for line in out), *("  ! " + line for line in err), f"  ? {code}"]


def add_tests():
    paths = sorted(glob.glob(os.path.join(t.SOURCE, "tests", "golden", "tools", "*.txt")))
    if not paths:
        raise ValueError("no transcripts")
    for path in paths:
        for case in parse(path):
            def test(self, path=path, case=case):
                self.check(path, case)
            title = re.sub(r"\W+", "_", case.title)
            name = f"test_{os.path.basename(path)[:-4]}_{title}"
            if hasattr(Transcripts, name):
                raise ValueError(f"{path}: two cases '{case.title}'")
            setattr(Transcripts, name, t.needs_root(test) if case.title.endswith("[root]") else test)


if __name__ == "__main__":
    add_tests()
    t.main()
