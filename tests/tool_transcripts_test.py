# Runs the transcripts in tests/golden/tools: command lines of the tools, what each prints, and how it ends. usage:
# tool_transcripts_test.py BUILD_DIR SOURCE_DIR [TRANSCRIPT...]
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
# otherwise. In what is expected, ROOT is that root, <ff> is a byte that isn't UTF-8, and … is any text within a line, for a
# value that varies. "[root]" after a title: the case needs root.
#
# Beside the tools a command may call
#     daemon [ROOT]           starts the repository's daemon of this or another root; its process is $daemon
#     serve DATABASE HATCH    starts a server, and returns once it can be called; its process is $server
#     as USER COMMAND         runs a command as that user
#     mounts COMMAND          runs a command in a mount namespace of its own
#     offers TOOL WORD...     prints what bash offers for the last word; what it runs comes from the directory $first first
import glob
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

import ostrel_tool as t

FRAME = """set -o pipefail
umask 022
cd "$MERIDON_ROOT/here"
trap 'kill $(jobs -p) 2>/dev/null; wait' EXIT
as() { local user=$1; shift; setpriv --reuid="$user" --regid="$(id -g "$user")" --clear-groups "$@"; }
mounts() { unshare -m bash -ec "$1"; }
daemon() {
	local root=${1:-$MERIDON_ROOT}
	local hatch=$root/system/transient/repository_hatch
	mkdir -p "$root"/{system/transient,store}
	cairn.configd -f -d "$hatch" -r "$root/store/repository.db" &
	daemon=$!
	until cairnctl --hatch "$hatch" status >/dev/null 2>&1 || ! kill -0 "$daemon"; do sleep 0.01; done
}
serve() {
	: >"$MERIDON_ROOT/served"
	ostrel serve --json "$@" >"$MERIDON_ROOT/served" &
	server=$!
	until [ -s "$MERIDON_ROOT/served" ] || ! kill -0 "$server"; do sleep 0.01; done
}
offers() {
	bash -uc 'source <("$0" completion bash); PATH=$1:$PATH; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _$1
		for reply in "${COMPREPLY[@]}"; do printf "%s\\n" "$reply"; done' "$(type -P "$1")" "${first:-/}" "$@"
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
    # Users besides root can't reach a build tree that lies in root's home.
    @classmethod
    def setUpClass(cls):
        folders = [os.path.dirname(t.OSTREL)]
        if os.geteuid() == 0:
            tree = tempfile.mkdtemp(prefix="ostrel-installed-")
            os.chmod(tree, 0o755)
            cls.addClassCleanup(shutil.rmtree, tree, ignore_errors=True)
            subprocess.run(["cmake", "--install", t.BUILD, "--prefix", tree], check=True, stdout=subprocess.DEVNULL)
            folders = [f"{tree}/bin", f"{tree}/sbin"]
        cls.search = ":".join([*folders, os.path.dirname(t.program("cairn.configd", "repository")), os.environ["PATH"]])

    # What each step of a case printed, as lines, and its exit code: (out, err, code).
    def run_steps(self, steps):
        for folder in (self.dir, self.path("here")):
            os.makedirs(folder, exist_ok=True)
            os.chmod(folder, 0o755)
        script = FRAME
        for i, step in enumerate(steps):
            self.write(f"in.{i}", "".join(line + "\n" for line in step.stdin))
            files = f"<{self.path('in')}.{i} >{self.path('out')}.{i} 2>{self.path('err')}.{i}"
            script += f"{{ {step.command}\n}} {files}; echo $? >{self.path('code')}.{i}\n"
        self.env.update(PATH=self.search, MERIDON_ROOT=self.dir, LC_ALL="C.UTF-8")
        shell = self.start("bash", "-c", script, stdin=subprocess.DEVNULL, start_new_session=True)
        self.addCleanup(self.end_all_of, shell.pid)
        self.assertEqual(shell.communicate(timeout=250), (b"", b""))
        return [(self.lines(f"out.{i}"), self.lines(f"err.{i}"), int(self.read(f"code.{i}"))) for i in range(len(steps))]

    # Whatever a shell that came to no end has left.
    def end_all_of(self, group):
        try:
            os.killpg(group, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def lines(self, name):
        text = self.read(name).replace(self.dir.encode(), b"ROOT").decode(errors="surrogateescape")
        text = re.sub("[\udc80-\udcff]", lambda byte: f"<{ord(byte[0]) - 0xdc00:02x}>", text)
        lines = text.split("\n")
        return lines[:-1] if lines[-1] == "" else lines[:-1] + [lines[-1] + "<no newline>"]

    def check(self, path, case):
        wrong = []
        for step, (out, err, code) in zip(case.steps, self.run_steps(case.steps), strict=True):
            if not agrees(step.out, out) or not agrees(step.err, err) or step.code != code:
                wrong += [f"{path}:{step.line}: $ {step.command}", "expected:", *shown(step.out, step.err, step.code), "got:",
                          *shown(out, err, code)]
        if wrong:
            self.fail("\n".join(["not as expected", *wrong]))


def shown(out, err, code):
    return [*("  " + line for line in out), *("  ! " + line for line in err), f"  ? {code}"]


# One test for each case of a transcript; of all that there are, if none is named.
def add_tests(*paths):
    paths = paths or sorted(glob.glob(os.path.join(t.SOURCE, "tests", "golden", "tools", "*.txt")))
    if not paths:
        raise ValueError("no transcripts")
    for path in paths:
        for case in parse(path):
            def test(self, path=path, case=case):
                self.check(path, case)
            name = f"test_{os.path.basename(path)[:-4]}_" + re.sub(r"\W+", "_", case.title)
            if hasattr(Transcripts, name):
                raise ValueError(f"{path}: two cases '{case.title}'")
            setattr(Transcripts, name, t.needs_root(test) if case.title.endswith("[root]") else test)


if __name__ == "__main__":
    add_tests(*sys.argv[3:])
    unittest.main(argv=sys.argv[:1])
