# The programs of tracing/, run on the built library while the tool works.
import os
import re
import shutil
import signal
import subprocess
import sys
import time

import ostrel_tool as t

LIBRARY = os.path.realpath(os.path.join(t.BUILD, "common", "libostrel.so.1"))


class TracingTest(t.ToolTest):
    # A served database, since the tool updates a file by itself.
    def setUp(self):
        super().setUp()
        self.db = self.path("h/db")
        self.env["MERIDON_ROOT"] = self.dir
        server = subprocess.Popen([t.OSTREL, "serve", "--json", self.path("file"), self.db], env=self.env,
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: (server.terminate(), server.wait(60), server.stdout.close()))
        self.assertTrue(server.stdout.readline())

    def on_hatch(self, command, *words, **more):
        self.tool(command, "hatch:" + self.db, *words, **more)

    # What a program prints while `work` runs, from the moment that it sees what is done; and at its end. That comes once
    # there are `expected` rows: on a busy host the program is behind, and whatever it hasn't read by its end is lost.
    def trace(self, program, work, expected, *words):
        path = os.path.join(t.SOURCE, "tracing", program)
        with open(self.path("seen"), "wb") as out:
            tracer = subprocess.Popen(["bpftrace", "-B", "line", path, LIBRARY, *words], stdout=out, stderr=out,
                                      env=self.env)
        try:
            for self.warmed in range(1, 300):
                self.on_hatch("put", "warm=1", "--", "p=x")
                self.tool("walk", self.path("missing"), code=4)
                self.assertIsNone(tracer.poll(), self.read("seen"))
                if re.search(rb"warm=1;|\.cc:\d", self.read("seen")):
                    break
                time.sleep(0.1)
            else:
                self.fail("the tracer sees nothing")
            time.sleep(0.5)
            work()
            for _ in range(300):
                if len(self.rows(self.read("seen").decode())) >= expected:
                    break
                time.sleep(0.1)
        finally:
            self.end(tracer)
        return self.read("seen").decode()

    # It misses a signal that comes while it handles an event, and one more at its end would cost the summary.
    def end(self, tracer):
        for _ in range(5):
            tracer.send_signal(signal.SIGINT)  # does nothing once it has ended
            try:
                tracer.wait(5)
                return
            except subprocess.TimeoutExpired:
                pass
        tracer.kill()
        tracer.wait()
        self.fail("the tracer doesn't end")

    # Lines of this test's database, without the time and what the process is called.
    def rows(self, seen):
        return [re.sub(r" +", " ", line.split(" ostrel ", 1)[1]).replace(self.db, "db").strip()
                for line in seen.splitlines() if re.match(r"\d\d:\d\d:\d\d", line) and self.db in line and "warm=1;" not in line]

    def test_who_writes_what_and_whether_it_worked(self):
        def work():
            self.on_hatch("put", "a=1", "--", "p=x")
            self.on_hatch("rename", "a=1", "--", "a=2")
            self.on_hatch("remove", "a=2")
            self.on_hatch("walk")
        seen = self.trace("who.bt", work, 3)
        self.assertEqual(self.rows(seen), ["write db a=1;", "rename db a=1;-> a=2;", "remove db a=2;"])
        count = re.search(re.escape(f"@updates[{os.getuid()}, ostrel, {self.db}]: ") + r"(\d+)$", seen, re.M)
        self.assertIn(int(count[1]), range(4, 4 + self.warmed))  # of those that warmed it up, those that it saw

    def test_where_errors_arise(self):
        seen = self.trace("errors.bt", lambda: self.tool("walk", self.path("missing"), code=4), 0)
        places = re.findall(r"(\d+) +(\w+\.cc):(\d+)$", seen, re.M)
        self.assertTrue(places, seen)
        for error, source, line in places:
            with open(os.path.join(t.SOURCE, "common", source)) as f:
                self.assertRegex(f.read().splitlines()[int(line) - 1], "SETERR", (source, line))
            self.assertEqual(error, "4")
        self.assertRegex(seen, r"@errors\[\w+\.cc, \d+, 4\]: \d")

    def test_slow_operations_and_the_histogram_of_all(self):
        def work():
            self.on_hatch("put", "a=1", "--", "p=x")
            self.on_hatch("get", "a=1")
            self.on_hatch("walk")
        limit = 30
        seen = self.trace("slow.bt", work, 1, str(limit))
        rows = [row.split() for row in self.rows(seen)]
        self.assertIn(["write", "0", "db", "a=1;"], [row[:1] + row[2:] for row in rows], "it syncs the file")
        for row in rows:
            self.assertGreaterEqual(int(row[1]), limit)
        for kind in ("write", "read", "walk"):
            self.assertRegex(seen, r"@us\[" + kind + r"\]: \n\[.*\) +[1-9]\d* \|@")
        self.assertNotIn("@start", seen)


def why_not():
    if os.geteuid() != 0:
        return "bpftrace needs root"
    if shutil.which("bpftrace") is None:
        return "there is no bpftrace"
    probe = subprocess.run(["bpftrace", "-e", f"usdt:{LIBRARY}:ostrel:log {{ exit(); }} BEGIN {{ exit(); }}"],
                           capture_output=True, timeout=60)
    return None if probe.returncode == 0 else f"bpftrace can't attach here: {probe.stderr.decode()}"


why = why_not()
if why:
    print("skipped:", why)
    sys.exit(77)
t.main()
