# The tool enclavectl, as its user meets it: what it prints, where, its exit codes, and what it leaves in the registry.
import os
import subprocess

import ostrel_tool as t


class Enclavectl(t.ToolTest):
    command = [t.program("enclavectl")]

    def setUp(self):
        super().setUp()
        self.env["MERIDON_ROOT"] = self.dir
        os.mkdir(self.path("root"))
        os.symlink("root", self.path("link"))
        self.web = ["5", "--name", "web", "--root", self.path("link")]

    def test_a_record_is_written_for_all_to_read_with_the_root_without_links(self):
        self.tool("add", *self.web, preexec_fn=lambda: os.umask(0o077))
        self.assertEqual(self.read("run/enclaves/5").decode(), f"name=web\nroot={self.path('root')}\nstate=ready\n")
        self.assertEqual(os.stat(self.path("run/enclaves/5")).st_mode & 0o777, 0o644)
        shown = {"id": 5, "name": "web", "state": "ready", "root": self.path("root")}
        self.assertEqual(self.tool("list", "--json").json(), {"enclaves": [shown]})
        self.assertEqual(self.tool("show", "5", "--json").json(), shown)
        self.assertEqual(self.error(4, "show", "none")["hint"], "'enclavectl list' shows the enclaves")
        self.assertIn("exists already", self.error(5, "add", "5", "--name", "other", "--root", "/")["message"])
        self.assertIn("has the name 'web' already", self.error(5, "add", "7", "--name", "web", "--root", "/", "-n")["message"])

    def test_words_that_fit_no_record_are_refused(self):
        good = {"ID": "7", "--name": "x", "--root": "/"}
        for changes in ({"ID": "0"}, {"ID": "10000"}, {"ID": "05"}, {"ID": "five"}, {"--name": "7"}, {"--name": "global"},
                        {"--name": "a/b"}, {"--name": "x" * 64}, {"--root": self.path("none")}, {"--root": "/etc/passwd"},
                        {"--root": "/sys/kernel/../../etc/passwd/x"}, {"--state": "up"}, {"--leader": "999999999"}, {"--leader": "0"}):
            words = {**good, **changes}
            self.assertTrue(self.error(6, "add", words.pop("ID"), *sum(words.items(), ()))["hint"], changes)
        for words in (["add"], ["add", "7", "--name", "x"], ["add", "7", "--name", "x", "--root", "/", "--leader", "one"],
                      ["set-state", "web"], ["set-state", "web", "down", "--leader", "1", "--no-leader"]):
            self.error(2, *words)
        self.assertFalse(os.path.exists(self.path("run/enclaves")))

    def test_a_dry_run_changes_nothing(self):
        told = self.tool("add", *self.web, "-n")
        self.assertEqual((told.out, told.err[:24]), (b"", b"would add enclave 5 (web)"[:24]))
        self.assertFalse(os.path.exists(self.path("run")))
        self.tool("add", *self.web)
        before = self.read("run/enclaves/5")
        for words, result in ((["set-state", "web", "down"], "changed"), (["remove", "web"], "removed")):
            answer = self.tool(*words, "-n", "--json").json()
            self.assertEqual((answer["result"], answer["dry_run"], answer["done"], answer["enclave"]["id"]), (result, True, False, 5))
        self.assertEqual(self.read("run/enclaves/5"), before)

    def test_a_leader_is_known_until_it_ends(self):
        leader = subprocess.Popen(["sleep", "1000"])
        self.addCleanup(lambda: (leader.kill(), leader.wait()))
        self.tool("add", "6", "--name", "old", "--root", "/", "--state", "down")
        made = self.tool("add", "10", "--name", "db", "--root", "/", "--leader", str(leader.pid), "--json").json()
        self.assertEqual((made["result"], made["done"], made["enclave"]["state"], made["enclave"]["leader_alive"]),
                         ("added", True, "running", True))
        self.assertEqual(self.text("list"), f"6\told\tdown\t-\t/\n10\tdb\trunning\t{leader.pid}\t/\n")
        self.assertEqual(self.text("show", "db"), f"id: 10\nname: db\nstate: running\nroot: /\nleader: {leader.pid}\n")
        self.assertRegex(self.on_terminal("list").decode(), r"^ID +NAME +STATE +LEADER +ROOT\n6 ")
        leader.kill()
        leader.wait()
        self.assertIs(self.tool("show", "db", "--json").json()["leader_alive"], False)
        self.assertIn(f"leader: {leader.pid} (gone)\n", self.text("show", "db"))
        self.tool("set-state", "10", "down", "--no-leader")
        self.assertIn("state: down\nroot: /\nleader: -\n", self.text("show", "db"))
        self.tool("set-state", "db", "running", "--leader", str(os.getpid()))
        self.assertIn(b"leader=%d\n" % os.getpid(), self.read("run/enclaves/10"))
        self.error(4, "set-state", "none", "down")
        self.error(6, "set-state", "db", "Down")

    def test_a_record_that_cannot_be_understood_is_shown_and_removed_by_its_number(self):
        self.tool("add", *self.web)
        self.write("run/enclaves/8", "nonsense\n")
        self.assertEqual([e["state"] for e in self.tool("list", "--json").json()["enclaves"]], ["ready", "invalid"])
        self.assertIn("can't be understood", self.error(1, "show", "8")["message"] + self.error(1, "show", "8")["hint"])
        self.error(5, "add", "8", "--name", "new", "--root", "/")
        for words in (["show", "05"], ["show", "0"], ["show", "-1"], ["show", "99999"], ["remove", "05"], ["set-state", "05", "down"]):
            self.error(4, *words)
        self.tool("remove", "8")
        self.tool("remove", "web")
        self.assertIn("there is no enclave 'web'", self.error(4, "remove", "web")["message"])
        self.assertEqual(os.listdir(self.path("run/enclaves")), [".lock"])

    @t.needs_root
    def test_another_user_changes_nothing(self):
        self.tool("add", *self.web)
        os.chmod(self.dir, 0o755)
        self.assertIn("only root", self.error(3, "remove", "web", user=1000, group=1000)["hint"])


if __name__ == "__main__":
    t.main()
