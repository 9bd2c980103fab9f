# cairnctl against a real daemon: what an operator does, and what it says when that can't be done.
import contextlib
import json
import os
import signal
import sqlite3
import subprocess
import threading
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


NOW = [group("eth0", "link", prop("mtu", "count", 1500, 2**53, str(2**64 - 1)), prop("up", "boolean", True, False),
             prop("low", "integer", str(-2**63)), prop("tags", "astring", "a", "", "ä\n"), prop("none", "uri"),
             prop("raw", "opaque", {"hex": "00ff"}), groups=[group("v4", "ip", groups=[group("deep", "x")])]),
       group("gone", "link", temporary=True)]
BEFORE = [group("eth0", "link", prop("mtu", "count", 9000))]
DOCUMENT = {"format": "cairn-repository", "version": 2, "services": [
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
        self.assertIn(" 9007199254740992 18446744073709551615\n", self.good("show", "net/link:default").out.decode())
        for name in ("net/link", "sys"):
            self.good("delete", "-r", name)
        old = json.dumps(DOCUMENT).replace('"version": 2', '"version": 1')
        self.good("import", stdin=old.replace(f'"{2**64 - 1}"', str(2**64 - 1)).replace(f'"{-2**63}"', str(-2**63)).encode())
        self.assertEqual(self.good("export").json(), DOCUMENT)

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
        self.assertIn("- /eth0 mtu: count [9000]\n+ /eth0 mtu: count [1500,9007199254740992,18446744073709551615]\n", changed.out.decode())
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
        os.mkfifo(self.path("fifo"))
        self.assertEqual(self.ctl("backup", self.path("fifo")).code, 6)  # nor is a device replaced
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
        self.assertEqual(self.ctl("completion", "csh").code, 2)

    # What bash offers for the last of these words, each cut as bash cuts it.
    def complete(self, *words):
        script = """source <("$0" completion bash); PATH=$(dirname "$0"):$PATH
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _cairnctl; for reply in "${COMPREPLY[@]}"; do printf '%s\\n' "$reply"; done"""
        done = subprocess.run(["bash", "-uc", script, CAIRNCTL, "cairnctl", *words], cwd=self.dir, env=self.env,
                              capture_output=True, timeout=60)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return done.stdout.decode().splitlines()

    def test_bash_completes_what_the_repository_holds_and_runs_none_of_it(self):
        here = ("--hatch", self.hatch)
        evil = "a$(touch ran)`touch ran`;touch ran"
        for locator in ("net/link:default", "net/link:de:ep", "net/ring", evil):
            self.good("add", locator)
        self.assertEqual(self.complete("sh"), ["show"])
        self.assertEqual(self.complete(*here, "show", "net/l"), ["net/link", "net/link:default", "net/link:de:ep"])
        self.assertEqual(self.complete("--hatch", "=", self.hatch, "show", "net/link", ":"), ["default", "de:ep"])
        self.assertEqual(self.complete("show", *here, "net/link", ":", "de", ":"), ["ep"])
        for typed in ("", "a", "a\\$\\("):
            offered = self.complete(*here, "delete", typed)[-1]
            # What takes the word's place is that name and no more, once the shell has read it.
            said = subprocess.run(["bash", "-c", "printf %s " + offered], cwd=self.dir, capture_output=True)
            self.assertEqual(said.stdout.decode(), evil)
        self.assertEqual(self.complete("--hatch", self.hatch[:-1]), [self.hatch])
        self.assertEqual(self.complete(*here, "backup", self.hatch[:-1]), [self.hatch])
        self.assertEqual(self.complete(*here, "status", ""), [])
        self.assertFalse(os.path.exists(self.path("ran")))

    # A document of one service with an instance "i".
    def document(self, groups, snapshots=(), name="s", **more):
        return {"format": "cairn-repository", "version": 2, "services": [{"name": name, "groups": [], "instances": [
            {"name": "i", "groups": groups, "snapshots": [{"name": n, "groups": g} for n, g in snapshots], **more}]}]}

    def load(self, document):
        self.good("import", stdin=json.dumps(document).encode())

    def refused(self, document, says):
        result = self.ctl("--json", "import", stdin=json.dumps(document).encode())
        self.assertEqual(result.code, 6, result.err)
        self.assertIn(says, result.error()["message"])
        self.assertNotIn("json.exception", result.error()["message"])
        self.assertEqual(self.good("list").out, b"")

    def test_names_of_any_bytes_come_back_as_they_went_in(self):
        raw = group("\0" + "67ff", "\0" + "74fe", prop("\0" + "70fd", "count", 1))
        document = self.document([raw], [("\0" + "6eff", [raw])], name="\0" + "73ff")
        self.load(document)
        self.assertEqual(self.good("export").json(), document)
        place = b"s\xff:i"
        self.assertEqual(self.good("--json", "list").json(), ["\0" + "73ff", "\0" + place.hex()])
        self.assertEqual(self.good("--json", "snapshot", place).json(), ["\0" + "6eff"])
        self.assertEqual(self.good("--json", "show", place, "--snapshot", b"n\xff").json(), [raw])
        self.assertEqual(self.good("show", place).out, b"g\\xff (t\\xfe)\n  p\\xfd:count = 1\n")
        changed = self.ctl("--json", "diff", place, b"n\xff", "current")
        self.assertEqual((changed.code, changed.json()), (0, []))

    def test_names_that_nothing_can_have_are_refused_before_anything_is_made(self):
        for name in ("p\0q", "\0", "\0" + "0", "\0" + "6g", "\0" + "610062"):
            self.refused(self.document([], name=name), "NUL" if len(name) > 1 else "bytes")
            self.refused(self.document([group(name, "t")]), "name")
            self.refused(self.document([group("g", name)]), "type")
            self.refused(self.document([group("g", "t", prop(name, "count"))]), "name")
            self.refused(self.document([], [(name, [])]), "name")
        self.refused(self.document([], name="x:y"), "':'")
        self.refused(self.document([group("a/b", "t")]), "'/'")
        self.refused(self.document([group("g" * 256, "t")]), "256 bytes")
        self.refused(self.document([], [("n", []), ("n", [])]), "two of the name 'n'")
        doubled = self.document([group("g", "t")])
        doubled["services"][0]["instances"] *= 2
        self.refused(doubled, "two of the name 's:i'")
        self.refused(self.document([group("g", "t"), group("h", "t", temporary="yes")]), "temporary")
        self.refused({"format": "cairn-repository", "version": "x", "services": []}, "no document")

    def test_a_failed_import_takes_back_its_own_and_nothing_else(self):
        document = self.document([group(f"g{i}", "t") for i in range(3000)], name="first")
        document["services"][0]["groups"] = [group("own", "t")]
        document["services"][0]["instances"].append({"name": "last", "groups": [], "snapshots": []})
        document["services"] += self.document([], name="last")["services"]
        path = self.write("document", json.dumps(document))
        # Somebody else's, made when the import had looked whether it is free: of a service of its own, and of the import's.
        for locator, left in (("last:i", [b"last", b"last:i"]), ("first:last", [b"first", b"first:last"])):
            running = subprocess.Popen([CAIRNCTL, "--hatch", self.hatch, "import", path], env=self.env,
                                       stderr=subprocess.DEVNULL)
            while self.good("list").out == b"" and running.poll() is None:
                pass
            self.good("add", locator)
            self.assertEqual(running.wait(), 5)
            self.assertEqual(self.good("list").out.split(), left)
            self.assertEqual(json.loads(self.good("show", "--json", left[0].decode()).out), [])
            self.good("delete", "--recursive", left[0].decode())

    def test_nesting_has_an_end(self):
        deep = '{"name":"g","type":"t","properties":[],"groups":[' * 60000 + "]}" * 60000
        text = json.dumps(self.document(["HERE"])).replace('"HERE"', deep)
        result = self.ctl("import", "-n", stdin=text.encode())
        self.assertEqual(result.code, 6, result.code)
        self.assertIn("nested deeper than 512 groups", result.err.decode())
        value = json.dumps(self.document([group("g", "t", prop("p", "count", "HERE"))])).replace('"HERE"', "[" * 100000 + "]" * 100000)
        self.assertEqual(self.ctl("import", stdin=value.encode()).code, 6)

    def test_a_store_with_groups_too_deep_to_show_is_told_of(self):
        self.load(self.document([group("g", "t")]))
        self.load(self.document([group("g", "t")], name="other"))
        self.stop()
        store = sqlite3.connect(self.path("repository.db"))
        top, kind = store.execute("select id, kind from nodes where name = 'g' order by id").fetchone()
        free = store.execute("select next from state").fetchone()[0]
        for node in range(free, free + 60000):
            store.execute("insert into nodes values(?, ?, ?, 'g', 't', 0)", (node, kind, top))
            top = node
        store.execute("update state set next = ?", (top + 1,))
        store.commit()
        store.close()
        self.start()
        for words in (["show", "s:i"], ["export"], ["--json", "show", "s:i"]):
            result = self.ctl(*words)
            self.assertEqual((result.code, result.out), (1, b""), result.err)
            self.assertIn(b"'s:i': groups lie deeper in each other than 512", result.err)
        self.assertEqual(self.good("export", "other").json()["services"][0]["name"], "other")
        self.good("delete", "-r", "s")

    def test_snapshots_that_look_alike_but_differ_are_told_apart(self):
        def state(value):
            return [group("a", "t", prop("b", "astring", value)), group("a b", "t")]
        self.load(self.document([group("g", "t", temporary=True)],
                                [("one", state("OLD")), ("two", state("NEW")), ("three", [group("g", "t temporary")])]))
        changed = self.ctl("diff", "s:i", "one", "two")
        self.assertEqual((changed.code, changed.out), (10, b'- /a b: astring ["OLD"]\n+ /a b: astring ["NEW"]\n'))
        self.assertEqual(self.ctl("diff", "s:i", "three", "current").code, 10)

    # Runs cairnctl with the same words again and again, until the end of the with-statement.
    @contextlib.contextmanager
    def again_and_again(self, *words):
        end = threading.Event()

        def work():
            while not end.is_set():
                self.ctl(*words)
        worker = threading.Thread(target=work)
        worker.start()
        try:
            yield
        finally:
            end.set()
            worker.join()

    def test_an_export_beside_changes_is_whole_or_fails(self):
        groups = [group(f"g{i}", "t", groups=[group("below", "t")]) for i in range(700)]
        whole = self.document(groups, [("kept", groups), ("running", groups)])
        self.load(whole)
        for change in (["take", "running"], ["revert", "kept"]):
            with self.again_and_again("snapshot", "s:i", *change):
                during = self.ctl("--json", "export")
                if during.code != 0:
                    self.assertEqual((during.code, during.error()["name"]), (7, "busy"))
                else:
                    self.assertEqual(during.json(), whole)
                later = subprocess.Popen([CAIRNCTL, "--hatch", self.hatch, "export"], env=self.env,
                                         stdout=subprocess.PIPE)
                time.sleep(0.3)
            out = later.communicate()[0]  # what it tried in vain beside the changes it tried again
            self.assertEqual((later.returncode, json.loads(out)), (0, whole))

    def test_listings_pass_over_what_goes_meanwhile(self):
        services = [dict(self.document([group("g", "t")])["services"][0], name=f"s{i}") for i in range(200)]
        self.load(dict(DOCUMENT, services=services))

        def delete():
            for service in services:
                self.good("delete", "-r", service["name"])
        worker = threading.Thread(target=delete)
        worker.start()
        while worker.is_alive():
            for seen in (self.good("export").json()["services"],
                         [s for s in services if s["name"] in self.good("list").out.decode().split()]):
                self.assertEqual(seen, [s for s in services if s in seen])
        worker.join()
        self.assertEqual(self.good("list").out, b"")

    def test_a_backup_is_in_nobodys_way(self):
        self.import_document()
        self.write("copy.db.new", "of a run that was killed")
        self.good("backup", self.path("copy.db"))
        self.good("backup", self.path("copy.db"))
        self.assertEqual(self.read("copy.db.new"), b"of a run that was killed")
        self.assertEqual([n for n in sorted(os.listdir(self.dir)) if n.startswith("copy")], ["copy.db", "copy.db.new"])
        os.mkdir(self.path("taken"))
        self.assertEqual(self.ctl("backup", self.path("taken")).code, 6)
        self.assertEqual([n for n in os.listdir(self.dir) if n.startswith("taken")], ["taken"])
        self.assertEqual(self.ctl("backup", "/sys/copy.db").code, 3)  # no file can be made there

    def test_files_that_cannot_be_read_say_so(self):
        self.assertEqual(self.ctl("import", self.path("none")).code, 4)
        directory = self.ctl("import", self.dir)
        self.assertEqual(directory.code, 6)
        self.assertIn(b"Is a directory", directory.err)
        if os.geteuid() == 0:
            os.chmod(self.dir, 0o755)
            os.chmod(self.write("private", "{}"), 0o600)
            done = subprocess.run([CAIRNCTL, "--hatch", self.hatch, "import", self.path("private")], user=1, group=1,
                                  capture_output=True, env=self.env)
            self.assertEqual(done.returncode, 3, done.stderr)

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
