# cairnctl against a real daemon: what an operator does, and what it says when that can't be done.
import copy
import json
import os
import signal
import sqlite3
import subprocess
import threading
import time

import ostrel_tool as t


def prop(name, kind, *values):
    return {"name": name, "type": kind, "values": list(values)}


def group(name, kind, *properties, **more):
    return {"name": name, "type": kind, **{k: v for k, v in more.items() if k == "temporary"},
            "properties": list(properties), **{k: v for k, v in more.items() if k == "groups"}}


# A document of one service with an instance "i".
def document(groups, snapshots=(), name="s"):
    return {"format": "cairn-repository", "version": 2, "services": [{"name": name, "groups": [], "instances": [
        {"name": "i", "groups": groups, "snapshots": [{"name": n, "groups": g} for n, g in snapshots]}]}]}


NOW = [group("eth0", "link", prop("mtu", "count", 1500, 2**53, str(2**64 - 1)), prop("up", "boolean", True, False),
             prop("low", "integer", str(-2**63)), prop("tags", "astring", "a", "", "ä\n"), prop("none", "uri"),
             prop("raw", "opaque", {"hex": "00ff"}), groups=[group("v4", "ip", groups=[group("deep", "x")])]),
       group("gone", "link", temporary=True)]
BEFORE = [group("eth0", "link", prop("mtu", "count", 9000))]
DOCUMENT = document(NOW, [("before", BEFORE), ("empty", [])], name="net/link")
DOCUMENT["services"][0]["groups"] = [group("all", "defaults")]
DOCUMENT["services"] += [{"name": "sys", "groups": [], "instances": []}]
PLACE = "net/link:i"


class Cairnctl(t.ToolTest):
    def setUp(self):
        super().setUp()
        os.chmod(self.dir, 0o755)
        self.hatch = self.path("hatch")
        self.command = [t.CAIRNCTL, "--hatch", self.hatch]
        self.start()
        self.addCleanup(self.stop)

    def start(self, hatch=None):
        self.daemon = subprocess.Popen([t.program("cairn.configd", "repository"), "-f", "-d", hatch or self.hatch,
                                        "-r", self.path("repository.db")])
        for _ in range(2000):
            if self.run_tool("status").code == 0:
                return
            time.sleep(0.005)
        self.fail("no daemon")

    def stop(self, how=signal.SIGTERM):
        if self.daemon.poll() is None:
            self.daemon.send_signal(how)
        self.daemon.wait()

    def load(self, what, *words, **more):
        return self.tool("import", *words, stdin=what if isinstance(what, bytes) else json.dumps(what).encode(), **more)

    def names(self):
        return self.text("list").split()

    def json(self, *words):
        return self.tool("--json", *words).json()

    def refused(self, what, says):
        error = self.load(what, "--json", code=6).error()
        self.assertIn(says, error["message"])
        self.assertNotIn("json.exception", error["message"])
        self.assertEqual(self.names(), [])

    def test_a_document_comes_back_as_it_went_in(self):
        self.load(DOCUMENT)
        self.assertEqual(self.tool("export").json(), DOCUMENT)
        part = self.tool("export", PLACE).json()["services"]
        self.assertEqual((len(part), part[0]["name"], part[0]["instances"]),
                         (1, "net/link", DOCUMENT["services"][0]["instances"]))
        self.stop()
        self.start()  # temporary groups are gone, all else is there
        kept = self.tool("export").json()["services"][0]["instances"][0]
        self.assertEqual((kept["groups"], kept["snapshots"]), (NOW[:1], DOCUMENT["services"][0]["instances"][0]["snapshots"]))
        self.tool("verify")
        self.assertIn(" 9007199254740992 18446744073709551615\n", self.text("show", PLACE))
        for name in ("net/link", "sys"):
            self.tool("delete", "-r", name)
        old = json.dumps(DOCUMENT).replace('"version": 2', '"version": 1')
        self.load(old.replace(f'"{2**64 - 1}"', str(2**64 - 1)).replace(f'"{-2**63}"', str(-2**63)).encode())
        self.assertEqual(self.tool("export").json(), DOCUMENT)

    def test_an_import_is_all_or_nothing(self):
        bad = copy.deepcopy(DOCUMENT)
        bad["services"][1]["groups"] = [group("a", "t"), group("a", "t")]  # the second can't be made
        self.load(bad, code=5)
        answer = self.load(DOCUMENT, "-n", "--json").json()
        self.assertEqual(answer, {"result": "imported", "dry_run": True, "services": ["net/link", "sys"]})
        self.assertEqual(self.names(), [])
        for before, after, says in (("1500", "-1", "isn't of type count"), ('"count"', '"cnt"', "no known type"),
                                    ("00ff", "00f", "isn't of type opaque"), ('"version": 2', '"version": "x"', "no document")):
            self.refused(json.dumps(DOCUMENT).replace(before, after).encode(), says)
        self.refused(b"{", "parse")
        self.refused(b"{}", "no document")
        self.load(DOCUMENT)
        self.load(DOCUMENT, code=5)
        self.assertEqual(self.tool("export").json(), DOCUMENT)

    def test_services_and_instances_are_made_listed_and_removed(self):
        self.assertEqual(self.json("add", "net/link:a"), {"result": "added", "dry_run": False, "locator": "net/link:a"})
        for locator in ("net/link:b", "other"):
            self.tool("add", locator)
        self.assertEqual(self.tool("add", "-n", "never").err, b"would add 'never'\n")
        self.error(5, "add", "net/link:a")
        self.error(6, "add", "net//link")
        self.assertEqual(self.names(), ["net/link", "net/link:a", "net/link:b", "other"])
        self.assertEqual(self.tool("list", "*:b", "--json", "--hatch", self.hatch).json(), ["net/link:b"])
        self.assertIn("--recursive", self.error(1, "remove", "net/link")["hint"])
        self.assertEqual(self.tool("delete", "-n", "other").err, b"would delete 'other'\n")
        self.tool("remove", "-r", "net/link")
        self.assertEqual(self.names(), ["other"])
        self.error(4, "show", "net/link")

    def test_snapshots_are_taken_compared_and_reverted_to(self):
        self.load(DOCUMENT)
        self.assertEqual(self.text("snapshot", PLACE), "before\nempty\n")
        self.assertEqual(self.text("diff", PLACE, "before", "before"), "")
        self.assertIn("- /eth0 mtu: count [9000]\n+ /eth0 mtu: count [1500,9007199254740992,18446744073709551615]\n",
                      self.text("diff", PLACE, "before", "current", code=10))
        self.assertEqual(self.json("snapshot", PLACE, "take", "now")["result"], "taken")
        self.tool("snapshot", PLACE, "revert", "before")
        self.assertEqual(self.json("show", PLACE), BEFORE + NOW[1:])
        self.assertEqual(self.json("show", PLACE, "--snapshot", "now"), NOW[:1])
        self.tool("snapshot", PLACE, "take", "now", "-n")
        self.assertEqual(self.json("show", PLACE, "--snapshot", "now"), NOW[:1])
        self.tool("snapshot", PLACE, "take", "now")
        self.assertEqual(self.json("show", PLACE, "--snapshot", "now"), BEFORE)
        self.tool("snapshot", PLACE, "remove", "now")
        for code, *words in ((4, PLACE, "delete", "now"), (2, PLACE, "take"), (2, PLACE, "break"), (6, "net/link", "list")):
            self.error(code, "snapshot", *words)
        self.assertIn('  mtu:count = 9000\n', self.text("show", PLACE))

    def test_a_backup_restores_and_is_in_nobodys_way(self):
        self.load(DOCUMENT)
        self.write("copy.db.new", "of a run that was killed")
        os.mkdir(self.path("taken"))
        os.mkfifo(self.path("fifo"))
        for path, code in (("copy.db", 0), ("copy.db", 0), ("taken", 6), ("fifo", 6), ("no/copy.db", 1), ("/sys/copy.db", 3)):
            self.tool("backup", self.path(path), code=code)
        self.assertEqual(self.read("copy.db.new"), b"of a run that was killed")
        self.assertEqual(sorted(n for n in os.listdir(self.dir) if n[:4] in ("copy", "take", "fifo")),
                         ["copy.db", "copy.db.new", "fifo", "taken"])
        self.assertEqual(os.stat(self.path("copy.db")).st_mode & 0o777, 0o600)
        self.tool("remove", "-r", "net/link")
        self.stop()
        os.rename(self.path("copy.db"), self.path("repository.db"))
        self.start()
        self.assertEqual(self.json("show", PLACE), NOW[:1])

    def test_it_says_what_is_wrong_with_the_daemon(self):
        status = self.json("status")
        self.assertEqual((status["pid"], status["writable"], status["file"]),
                         (self.daemon.pid, True, self.path("repository.db")))
        self.stop(signal.SIGKILL)
        dead = self.error(11, "list")
        self.assertEqual(dead["name"], "no_server")
        self.assertIn("cairn-configd", dead["hint"])

    @t.needs_root
    def test_the_repository_of_an_enclave_is_reached_by_its_name(self):
        self.stop()
        self.env["MERIDON_ROOT"] = self.dir
        os.makedirs(self.path("run/enclaves"))
        os.makedirs(self.path("inside/system/transient"))
        self.write("run/enclaves/7", f"name=web\nroot={self.path('inside')}\nstate=ready\n")
        self.command = [t.CAIRNCTL, "-E", "web"]
        self.start(self.path("inside/system/transient/repository_hatch"))
        self.tool("add", "within")
        self.command = [t.CAIRNCTL]
        self.assertEqual(self.text("list", "--enclave", "7"), "within\n")
        self.error(11, "list")
        self.error(4, "list", "-E", "none")
        self.error(2, "list", "-E", "7", "--hatch", self.hatch)

    def test_bash_completes_what_the_repository_holds_and_runs_none_of_it(self):
        here = ("--hatch", self.hatch)
        evil = "a$(touch ran)`touch ran`;touch ran"
        for locator in ("net/link:default", "net/link:de:ep", "net/ring", evil):
            self.tool("add", locator)
        for words, offered in (((*here, "show", "net/l"), ["net/link", "net/link:default", "net/link:de:ep"]),
                               (("--hatch", "=", self.hatch, "show", "net/link", ":"), ["default", "de:ep"]),
                               (("show", *here, "net/link", ":", "de", ":"), ["ep"]), ((*here, "status", ""), [])):
            self.assertEqual(self.complete("cairnctl", *words), offered)
        for typed in ("", "a", "a\\$\\("):
            offered = self.complete("cairnctl", *here, "delete", typed)[-1]
            # What takes the word's place is that name and no more, once the shell has read it.
            said = subprocess.run(["bash", "-c", "printf %s " + offered], cwd=self.dir, capture_output=True)
            self.assertEqual(said.stdout.decode(), evil)
        self.assertFalse(os.path.exists(self.path("ran")))

    def test_names_of_any_bytes_come_back_as_they_went_in(self):
        raw = group("\0" + "67ff", "\0" + "74fe", prop("\0" + "70fd", "count", 1))
        odd = document([raw], [("\0" + "6eff", [raw])], name="\0" + "73ff")
        self.load(odd)
        self.assertEqual(self.tool("export").json(), odd)
        place = b"s\xff:i"
        self.assertEqual(self.json("list"), ["\0" + "73ff", "\0" + place.hex()])
        self.assertEqual(self.json("snapshot", place), ["\0" + "6eff"])
        self.assertEqual(self.json("show", place, "--snapshot", b"n\xff"), [raw])
        self.assertEqual(self.tool("show", place).out, b"g\\xff (t\\xfe)\n  p\\xfd:count = 1\n")
        self.assertEqual(self.json("diff", place, b"n\xff", "current"), [])

    def test_documents_that_nothing_can_hold_are_refused_before_anything_is_made(self):
        for name in ("p\0q", "\0", "\0" + "0", "\0" + "6g", "\0" + "610062"):
            for what, says in ((document([], name=name), "NUL" if len(name) > 1 else "bytes"), (document([group(name, "t")]), "name"),
                               (document([group("g", name)]), "type"), (document([group("g", "t", prop(name, "count"))]), "name"),
                               (document([], [(name, [])]), "name")):
                self.refused(what, says)
        doubled = document([group("g", "t")])
        doubled["services"][0]["instances"] *= 2
        deep = '{"name":"g","type":"t","properties":[],"groups":[' * 60000 + "]}" * 60000
        here = json.dumps(document(["HERE"]))
        for what, says in ((document([], name="x:y"), "':'"), (document([group("a/b", "t")]), "'/'"), (doubled, "two of the name 's:i'"),
                           (document([group("g" * 256, "t")]), "256 bytes"), (document([], [("n", []), ("n", [])]), "two of the name 'n'"),
                           (document([group("g", "t"), group("h", "t", temporary="yes")]), "temporary"),
                           (here.replace('"HERE"', deep).encode(), "nested deeper than 512 groups"),
                           (here.replace('"HERE"', "[" * 100000 + "]" * 100000).encode(), "nested")):
            self.refused(what, says)

    def test_a_failed_import_takes_back_its_own_and_nothing_else(self):
        both = document([group(f"g{i}", "t") for i in range(3000)], name="first")
        both["services"][0]["groups"] = [group("own", "t")]
        both["services"][0]["instances"].append({"name": "last", "groups": [], "snapshots": []})
        both["services"] += document([], name="last")["services"]
        path = self.write("document", json.dumps(both))
        # Somebody else's, made when the import had looked whether it is free: of a service of its own, and of the import's.
        for locator, left in (("last:i", ["last", "last:i"]), ("first:last", ["first", "first:last"])):
            running = subprocess.Popen([*self.command, "import", path], env=self.env, stderr=subprocess.DEVNULL)
            while self.names() == [] and running.poll() is None:
                pass
            self.tool("add", locator)
            self.assertEqual(running.wait(), 5)
            self.assertEqual(self.names(), left)
            self.assertEqual(self.json("show", left[0]), [])
            self.tool("delete", "--recursive", left[0])

    def test_a_store_with_groups_too_deep_to_show_is_told_of(self):
        for name in ("s", "other"):
            self.load(document([group("g", "t")], name=name))
        self.stop()
        with sqlite3.connect(self.path("repository.db")) as store:
            top, kind = store.execute("select id, kind from nodes where name = 'g' order by id").fetchone()
            free = store.execute("select next from state").fetchone()[0]
            for node in range(free, free + 60000):
                store.execute("insert into nodes values(?, ?, ?, 'g', 't', 0)", (node, kind, top))
                top = node
            store.execute("update state set next = ?", (top + 1,))
        store.close()
        self.start()
        for words in (["show", "s:i"], ["export"], ["--json", "show", "s:i"]):
            result = self.tool(*words, code=1)
            self.assertEqual(result.out, b"")
            self.assertIn(b"'s:i': groups lie deeper in each other than 512", result.err)
        self.assertEqual(self.tool("export", "other").json()["services"][0]["name"], "other")
        self.tool("delete", "-r", "s")

    def test_snapshots_that_look_alike_but_differ_are_told_apart(self):
        def state(value):
            return [group("a", "t", prop("b", "astring", value)), group("a b", "t")]
        self.load(document([group("g", "t", temporary=True)],
                           [("one", state("OLD")), ("two", state("NEW")), ("three", [group("g", "t temporary")])]))
        self.assertEqual(self.text("diff", "s:i", "one", "two", code=10), '- /a b: astring ["OLD"]\n+ /a b: astring ["NEW"]\n')
        self.tool("diff", "s:i", "three", "current", code=10)

    # Runs `work` on another thread, and `beside` on this one for as long as it goes on.
    def beside(self, work, beside):
        worker = threading.Thread(target=work)
        worker.start()
        while worker.is_alive():
            beside()
        worker.join()

    def test_an_export_beside_changes_is_whole_or_fails(self):
        groups = [group(f"g{i}", "t", groups=[group("below", "t")]) for i in range(700)]
        whole = document(groups, [("kept", groups), ("running", groups)])
        self.load(whole)
        later = []

        def export(change):
            during = self.run_tool("--json", "export")
            if during.code != 0:
                self.assertEqual((during.code, during.error()["name"]), (7, "busy"))
            else:
                self.assertEqual(during.json(), whole)
            later.append(subprocess.Popen([*self.command, "export"], env=self.env, stdout=subprocess.PIPE))
            for _ in range(20):
                self.run_tool("snapshot", "s:i", *change)
        for change in (["take", "running"], ["revert", "kept"]):
            self.beside(lambda: export(change), lambda: self.run_tool("snapshot", "s:i", *change))
            out = later[-1].communicate()[0]  # what it tried in vain beside the changes it tried again
            self.assertEqual((later[-1].returncode, json.loads(out)), (0, whole))

    def test_listings_pass_over_what_goes_meanwhile(self):
        services = [dict(document([group("g", "t")])["services"][0], name=f"s{i}") for i in range(200)]
        self.load(dict(DOCUMENT, services=services))

        def look():
            for seen in (self.tool("export").json()["services"], [s for s in services if s["name"] in self.names()]):
                self.assertEqual(seen, [s for s in services if s in seen])
        self.beside(lambda: [self.tool("delete", "-r", service["name"]) for service in services], look)
        self.assertEqual(self.names(), [])

    @t.needs_root
    def test_what_a_user_may_not_do_or_read_says_so(self):
        self.error(4, "import", self.path("none"))
        self.assertIn("Is a directory", self.error(6, "import", self.dir)["message"])
        other = {"user": 1, "group": 1}
        self.tool("add", "a")
        os.chmod(self.write("private", "{}"), 0o600)
        self.error(3, "import", self.path("private"), **other)
        self.assertIn("cairn.modify", self.error(3, "add", "b", **other)["hint"])
        self.assertEqual(self.text("list", **other), "a\n")


if __name__ == "__main__":
    t.main()
