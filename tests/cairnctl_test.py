# cairnctl against a real daemon: what an operator does, and what it says when that can't be done.
import json
import os
import signal
import subprocess
import time
import unittest

from ostrel_tool import BUILD, ToolTest, Result

CAIRNCTL = os.path.join(os.path.abspath(BUILD), "tools", "cairnctl")
CONFIGD = os.path.join(os.path.abspath(BUILD), "repository", "cairn.configd")


def prop(name, kind, *values):
    return {"name": name, "type": kind, "values": list(values)}


def group(name, kind, *properties, **more):
    return {"name": name, "type": kind, **{k: v for k, v in more.items() if k == "temporary"},
            "properties": list(properties), **{k: v for k, v in more.items() if k == "groups"}}


NOW = [group("eth0", "link", prop("mtu", "count", 1500, 2**64 - 1), prop("up", "boolean", True, False),
             prop("low", "integer", -2**63), prop("tags", "astring", "a", "", "ä\n"), prop("none", "uri"),
             prop("raw", "opaque", {"hex": "00ff"}), groups=[group("v4", "ip", groups=[group("deep", "x")])]),
       group("gone", "link", temporary=True)]
BEFORE = [group("eth0", "link", prop("mtu", "count", 9000))]
DOCUMENT = {"format": "cairn-repository", "version": 1, "services": [
    {"name": "net/link", "groups": [group("all", "defaults")], "instances": [
        {"name": "default", "groups": NOW, "snapshots": [
            {"name": "before", "groups": BEFORE}, {"name": "empty", "groups": []}]}]},
    {"name": "sys", "groups": [], "instances": []}]}


class Cairnctl(ToolTest):
    def setUp(self):
        super().setUp()
        self.hatch = self.path("hatch")
        self.start()
        self.addCleanup(self.stop)

    def start(self):
        self.daemon = subprocess.Popen([CONFIGD, "-f", "-d", self.hatch, "-r", self.path("repository.db")])
        for _ in range(2000):
            if self.ctl("status").code == 0:
                return
            time.sleep(0.005)
        self.fail("no daemon")

    def stop(self, how=signal.SIGTERM):
        if self.daemon.poll() is None:
            self.daemon.send_signal(how)
        self.daemon.wait()

    def ctl(self, *words, stdin=b""):
        done = subprocess.run([CAIRNCTL, "--hatch", self.hatch, *words], input=stdin, capture_output=True, env=self.env)
        return Result(done.returncode, done.stdout, done.stderr)

    def good(self, *words, **more):
        result = self.ctl(*words, **more)
        self.assertEqual(result.code, 0, result.err)
        return result

    def import_document(self):
        self.good("import", self.write("document", json.dumps(DOCUMENT)))

    def test_a_document_comes_back_as_it_went_in(self):
        self.import_document()
        self.assertEqual(self.good("export").json(), DOCUMENT)
        part = self.good("export", "net/link:default").json()["services"]
        self.assertEqual([s["name"] for s in part], ["net/link"])
        self.assertEqual(part[0]["instances"], DOCUMENT["services"][0]["instances"])
        self.stop()
        self.start()  # temporary groups are gone, all else is there
        kept = self.good("export").json()["services"][0]["instances"][0]
        self.assertEqual(kept["groups"], NOW[:1])
        self.assertEqual(kept["snapshots"], DOCUMENT["services"][0]["instances"][0]["snapshots"])
        self.assertEqual(self.ctl("verify").code, 0)

    def test_an_import_is_all_or_nothing(self):
        bad = json.loads(json.dumps(DOCUMENT))
        bad["services"][1]["groups"] = [group("a", "t"), group("a", "t")]  # the second can't be made
        self.assertEqual(self.ctl("import", stdin=json.dumps(bad).encode()).code, 5)
        self.assertEqual(self.good("list").out, b"")
        self.good("import", "-n", self.write("document", json.dumps(DOCUMENT)))
        self.assertEqual(self.good("list").out, b"")
        self.import_document()
        self.assertEqual(self.ctl("import", self.path("document")).code, 5)
        for text, says in (("{", "parse"), ("{}", "no document"), (json.dumps(DOCUMENT).replace("1500", "-1"), "isn't of type count"),
                           (json.dumps(DOCUMENT).replace('"count"', '"cnt"'), "no known type"),
                           (json.dumps(DOCUMENT).replace("00ff", "00f"), "isn't of type opaque")):
            result = self.ctl("import", stdin=text.encode())
            self.assertEqual(result.code, 6, result.err)
            self.assertIn(says, result.err.decode())
        self.assertEqual(self.good("export").json(), DOCUMENT)

    def test_services_and_instances_are_made_listed_and_deleted(self):
        self.good("add", "net/link:a")
        self.good("add", "net/link:b")
        self.good("add", "other")
        self.good("add", "-n", "never")
        self.assertEqual(self.ctl("add", "net/link:a").code, 5)
        self.assertEqual(self.ctl("add", "net//link").code, 6)
        self.assertEqual(self.good("list").out.decode().split(), ["net/link", "net/link:a", "net/link:b", "other"])
        self.assertEqual(self.good("--json", "list", "*:b").json(), ["net/link:b"])
        refused = self.ctl("delete", "net/link")
        self.assertEqual(refused.code, 1)
        self.assertIn("--recursive", refused.err.decode())
        self.good("delete", "-r", "net/link")
        self.assertEqual(self.good("list").out.decode().split(), ["other"])
        self.assertEqual(self.ctl("show", "net/link").code, 4)

    def test_snapshots_are_taken_compared_and_reverted_to(self):
        self.import_document()
        place = "net/link:default"
        self.assertEqual(self.good("snapshot", place).out.split(), [b"before", b"empty"])
        self.assertEqual(self.good("diff", place, "before", "before").out, b"")
        changed = self.ctl("diff", place, "before", "current")
        self.assertEqual(changed.code, 10)
        self.assertIn("- /eth0 mtu: count [9000]\n+ /eth0 mtu: count [1500,18446744073709551615]\n", changed.out.decode())
        self.good("snapshot", place, "take", "now")
        self.good("snapshot", place, "revert", "before")
        self.assertEqual(self.good("--json", "show", place).json(), BEFORE + NOW[1:])
        self.assertEqual(self.good("--json", "show", place, "--snapshot", "now").json(), NOW[:1])
        self.good("snapshot", place, "take", "now")
        self.assertEqual(self.good("--json", "show", place, "--snapshot", "now").json(), BEFORE)
        self.good("snapshot", place, "delete", "now")
        self.assertEqual(self.ctl("snapshot", place, "revert", "now").code, 4)
        self.assertEqual(self.ctl("snapshot", place, "take").code, 2)
        self.assertEqual(self.ctl("snapshot", place, "break").code, 2)
        self.assertEqual(self.ctl("snapshot", "net/link", "list").code, 6)
        self.assertIn('  mtu:count = 9000\n', self.good("show", place).out.decode())

    def test_a_backup_restores(self):
        self.import_document()
        self.good("backup", self.path("copy.db"))
        self.assertEqual(os.stat(self.path("copy.db")).st_mode & 0o777, 0o600)
        self.good("delete", "-r", "net/link")
        self.stop()
        os.rename(self.path("copy.db"), self.path("repository.db"))
        self.start()
        self.assertEqual(self.good("--json", "show", "net/link:default").json(), NOW[:1])
        self.assertEqual(self.ctl("backup", self.path("no/copy.db")).code, 1)

    def test_it_says_what_is_wrong_with_the_daemon(self):
        status = self.good("--json", "status").json()
        self.assertEqual((status["pid"], status["writable"], status["file"]),
                         (self.daemon.pid, True, self.path("repository.db")))
        self.stop(signal.SIGKILL)
        dead = self.ctl("--json", "list")
        self.assertEqual(dead.code, 11)
        self.assertIn("cairn-configd", dead.error()["hint"])
        self.assertEqual(self.ctl("frobnicate").code, 2)
        self.assertEqual(self.ctl("--help").code, 0)
        self.assertEqual(self.ctl("version").code, 0)
        for shell in ("bash", "zsh", "fish"):
            self.assertIn(b"snapshot", self.good("completion", shell).out)

    @unittest.skipIf(os.geteuid() != 0, "acting as another user needs root")
    def test_users_without_the_right_are_refused(self):
        os.chmod(self.dir, 0o755)
        self.good("add", "a")
        words = [CAIRNCTL, "--hatch", self.hatch]
        done = subprocess.run(words + ["add", "b"], user=1, group=1, capture_output=True, env=self.env)
        self.assertEqual(done.returncode, 3)
        self.assertIn(b"cairn.modify", done.stderr)
        self.assertEqual(subprocess.run(words + ["list"], user=1, group=1, capture_output=True, env=self.env).stdout, b"a\n")


if __name__ == "__main__":
    unittest.main(argv=["cairnctl_test"])
