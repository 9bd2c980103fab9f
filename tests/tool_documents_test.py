# Imports that are killed, meet others, or take long.
import json
import os
import signal
import subprocess
import time

import ostrel_tool as t


# A document of as many objects, each with one property.
def many(count, value):
    return t.document(*[({"name": f"n{i}"}, {"x": value}) for i in range(count)])


class Documents(t.ToolTest):
    # Whether a process has come to its work, in which it catches the signal. It holds the database by then.
    def catches(self, pid, number):
        with open(f"/proc/{pid}/status") as status:
            caught = next(int(line.split()[1], 16) for line in status if line.startswith("SigCgt"))
        return caught >> (number - 1) & 1

    def test_a_killed_import_leaves_the_old_database(self):
        before = self.write("a", "name=old;\t\n") and self.read("a")
        self.write("doc", many(30000, "1"))
        killed = 0
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGKILL):
            child = subprocess.Popen([t.OSTREL, "import", "a", "doc"], cwd=self.dir, env=self.env,
                                     stderr=subprocess.PIPE)
            while child.poll() is None and not self.catches(child.pid, signal.SIGTERM):
                time.sleep(0.001)
            child.send_signal(number)
            child.communicate(timeout=60)
            self.assertEqual(os.path.exists(self.path("a.new")), number == signal.SIGKILL and child.returncode != 0)
            if child.returncode != 0:
                killed += 1
                self.assertEqual(self.read("a"), before)
        self.assertGreater(killed, 0)
        self.tool("import", "a", "doc")
        self.assertEqual(self.read("a").count(b"\n"), 30001)
        self.assertEqual(sorted(os.listdir(self.dir)), ["a", "doc"])

    def test_an_update_by_somebody_else_is_not_overwritten(self):
        self.write("a", "name=old;\t\n")
        self.write("doc", many(40000, "1"))
        child = subprocess.Popen([t.OSTREL, "--json", "import", "a", "doc"], cwd=self.dir, env=self.env,
                                 stderr=subprocess.PIPE)
        self.addCleanup(child.stderr.close)
        while child.poll() is None and not os.path.exists(self.path("a.new")):
            time.sleep(0.01)
        self.write("other", "name=new;\t\n")
        os.rename(self.path("other"), self.path("a"))
        self.assertEqual(child.wait(60), 7)
        self.assertEqual(json.loads(child.stderr.read())["error"]["code"], 7)
        self.assertEqual(self.read("a"), b"name=new;\t\n")
        self.assertFalse(os.path.exists(self.path("a.new")))

    def test_commands_at_the_same_time_lose_nothing(self):
        self.write("a", b"n=0;\tx=string,0;\n")
        loops = [f"for i in 1 2 3 4 5 6 7 8; do {t.OSTREL} {words} || exit; done" for words in (
            "put a p=$i -- x=1", "set a n=0 -- x+=s$i", "set a n=0 -- x+=t$i",
            "import a doc$i", "rename a n=0 -- n=0", "put a r=$i -- x=1")]
        for i in range(1, 9):
            self.write(f"doc{i}", t.document(({"q": str(i)}, {})))
        children = [subprocess.Popen(["sh", "-c", loop], cwd=self.dir, env=self.env) for loop in loops]
        self.assertEqual([child.wait(120) for child in children], [0] * len(children))
        there = sorted(line.split(b";")[0] for line in self.read("a").splitlines())
        self.assertEqual(there, sorted([b"n=0"] + [b"%c=%d" % (c, i) for c in b"pqr" for i in range(1, 9)]))
        values = self.tool("get", "a", "n=0", "-p", "x").out.split()
        self.assertEqual(sorted(values), sorted([b"0"] + [b"%c%d" % (c, i) for c in b"st" for i in range(1, 9)]))
        self.assertEqual(sorted(os.listdir(self.dir)), sorted(["a"] + [f"doc{i}" for i in range(1, 9)]))

    def test_a_long_import_shows_its_progress_on_a_terminal_alone(self):
        # Warnings that nobody reads for a while make it long.
        self.write("doc", many(3000, "1\n"))

        def wait():
            while not os.path.exists(self.path("a.new")):
                time.sleep(0.01)
            time.sleep(1)
        self.assertIn(b" of 3000 (", self.on_terminal("import", "-k", "a", "doc", code=6, first=wait))
        self.assertNotIn(b" of 3000 (", self.tool("import", "-k", "b", "doc", code=6).err)


if __name__ == "__main__":
    t.main()
