# What the tests of the tools share: running one, in a directory of the test's own, and on a terminal of its own.
import json
import os
import pty
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time
import fcntl
import unittest

BUILD = sys.argv[1] if len(sys.argv) > 1 else "build/release"
SOURCE = sys.argv[2] if len(sys.argv) > 2 else "."
needs_root = unittest.skipUnless(os.geteuid() == 0, "needs root")


def program(name, folder="tools"):
    return os.path.join(os.path.abspath(BUILD), folder, name)


OSTREL, CAIRNCTL = program("ostrel"), program("cairnctl")


# Whether the tool was built with sanitizers, which reserve memory and take time of their own.
def sanitized():
    with open(os.path.join(BUILD, "CMakeCache.txt")) as f:
        return any(line.startswith("OSTREL_SANITIZE:") and line.rstrip()[-1] != "=" for line in f)


# A document of objects, each given as its identifiers and its properties, which are texts.
def document(*objects):
    return json.dumps({"format": "ostrel-objects", "version": 2, "objects": [
        {"id": id, "props": {name: {"type": "string", "values": [value]} for name, value in props.items()}}
        for id, props in objects]}).encode()


class Result:
    def __init__(self, code, out, err):
        self.code, self.out, self.err = code, out, err

    def json(self):
        return json.loads(self.out)

    def error(self):
        return json.loads(self.err.decode().splitlines()[-1])["error"]


class ToolTest(unittest.TestCase):
    command = None  # the words that a run begins with; None: ostrel

    def setUp(self):
        memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.dir = tempfile.mkdtemp(prefix="ostrel-tool-", dir=memory)
        self.scratch = tempfile.mkdtemp(prefix="ostrel-scratch-", dir=memory)
        for made in (self.dir, self.scratch):
            self.addCleanup(shutil.rmtree, made, ignore_errors=True)
        os.chmod(self.scratch, 0o1777)
        self.env = {k: v for k, v in os.environ.items() if k not in ("NO_COLOR", "COLUMNS", "MERIDON_ROOT")}
        self.env.update(TERM="xterm", TMPDIR=self.scratch)

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, name, content):
        with open(self.path(name), "wb") as f:
            f.write(content if isinstance(content, bytes) else content.encode())
        return self.path(name)

    def read(self, name):
        with open(self.path(name), "rb") as f:
            return f.read()

    def run_tool(self, *words, stdin=b"", **more):
        done = subprocess.run([*(self.command or [OSTREL]), *words], input=stdin, capture_output=True, cwd=self.dir, env=self.env,
                              timeout=60, **more)
        return Result(done.returncode, done.stdout, done.stderr)

    # Runs the tool and demands an exit code; gives what it printed.
    def tool(self, *words, code=0, **more):
        result = self.run_tool(*words, **more)
        self.assertEqual(result.code, code, f"{words}: {result.out!r} {result.err!r}")
        return result

    def text(self, *words, **more):
        return self.tool(*words, **more).out.decode()

    # The error of a run that has to fail with this code, as its JSON form says it.
    def error(self, code, *words, **more):
        result = self.tool("--json", *words, code=code, **more)
        self.assertEqual(result.error()["code"], code)
        return result.error()

    # Starts a program that is ended with the test, if it hasn't ended by then.
    def start(self, *words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, **more):
        process = subprocess.Popen(words, cwd=self.dir, env=self.env, stdout=stdout, stderr=stderr, **more)
        self.addCleanup(self.end, process)
        return process

    def end(self, process, number=signal.SIGTERM):
        if process.poll() is None:
            process.send_signal(number)
        process.wait(60)
        for stream in (process.stdout, process.stderr):
            if stream:
                stream.close()
        return process.returncode

    # Serves a database at self.hatch, and returns once that can be called.
    def serve(self, database, *words, below=(), **more):
        server = self.start(*below, OSTREL, "serve", "--json", database, self.hatch, *words, **more)
        line = server.stdout.readline()
        self.assertTrue(line, f"the server ended: {server.stderr.read() if not line else b''!r}")
        self.assertEqual(json.loads(line)["pid"], server.pid)
        return server

    # What a run prints with its standard output and error on a terminal of that many columns.
    def on_terminal(self, *words, columns=80, code=0, first=lambda: None):
        leader, follower = pty.openpty()
        fcntl.ioctl(follower, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        child = subprocess.Popen([*(self.command or [OSTREL]), *words], stdin=subprocess.DEVNULL, stdout=follower, stderr=follower,
                                 cwd=self.dir, env=self.env)
        os.close(follower)
        first()
        seen = b""
        try:
            while select.select([leader], [], [], 60)[0]:
                part = os.read(leader, 65536)
                if not part:
                    break
                seen += part
        except OSError:  # the other end is closed: that is how a terminal ends
            pass
        os.close(leader)
        self.assertEqual(child.wait(60), code)
        return seen.replace(b"\r\n", b"\n")


# With a repository's daemon of the test's own, whose store is a file in a directory of its own.
class DaemonTest(ToolTest):
    def setUp(self):
        super().setUp()
        for directory in ("system/transient", "store"):
            os.makedirs(self.path(directory))
        self.env["MERIDON_ROOT"] = self.dir
        self.start_daemon()

    def start_daemon(self):
        self.daemon = self.start(program("cairn.configd", "repository"), "-f", "-r", self.path("store/repository.db"),
                                 "-d", self.path("system/transient/repository_hatch"), stderr=subprocess.DEVNULL)
        for _ in range(500):
            if subprocess.run([CAIRNCTL, "status"], env=self.env, capture_output=True).returncode == 0:
                return
            time.sleep(0.02)
        self.fail("the daemon doesn't answer")

    def cairnctl(self, *words):
        subprocess.run([CAIRNCTL, *words], env=self.env, check=True, capture_output=True)


def main():
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
