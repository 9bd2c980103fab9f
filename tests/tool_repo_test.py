# Databases in the service repository, through the tool: a real daemon, its hatch, and users with and without rights.
import json
import os
import signal
import subprocess
import sys
import time
import unittest

import ostrel_tool as t

CONFIGD = os.path.join(os.path.abspath(t.BUILD), "repository", "cairn.configd")
CAIRNCTL = os.path.join(os.path.abspath(t.BUILD), "tools", "cairnctl")
DB = "repo:net/link:default"
NO_AUDIT = ("setpriv", "--bounding-set", "-audit_write", "--inh-caps", "-audit_write")
MANY = "p:int32=" + ",".join(map(str, range(129)))  # more values than are read
# Writes to one group without a pause: in turns what it held before and something else, or always something new.
OTHER_WRITER = """
import ctypes, itertools, sys
lib = ctypes.CDLL(sys.argv[1])
db, ids, zero = ctypes.c_void_p(), ctypes.c_void_p(), ctypes.c_uint64(0)
lib.ostrel_db_open(b"net/link:default", 0, ctypes.c_void_p.in_dll(lib, "ostrel_cairn_db_cmds"), zero, ctypes.byref(db))
lib.ostrel_idlist_init(ctypes.byref(ids), None)
lib.ostrel_idlist_add(ids, b"object-pgname", b"g")
values = {"turns": itertools.cycle((b"old", b"other")), "new": (b"other%d" % i for i in itertools.count())}
for value in values[sys.argv[2]]:
    props = ctypes.c_void_p()
    lib.attrlist_alloc(ctypes.byref(props), 1, 0)
    lib.ostrel_atl_add_one_string(props, b"p", value)
    lib.ostrel_db_write(db, ids, zero, props)
    lib.attrlist_free(props)
"""


def group(name, types=None, **props):
    return {"object-pgname": name, **({"object-pgtype": types} if types else {})}, props or {"p": "x"}


class RepositoryTest(t.ToolTest):
    def setUp(self):
        super().setUp()
        os.chmod(self.dir, 0o755)
        for directory in ("system/transient", "etc/meridon", "store"):
            os.makedirs(self.path(directory))
        self.env["MERIDON_ROOT"] = self.dir
        self.hatch = self.path("run/net")
        self.start_daemon()
        self.cairnctl("add", "net/link:default")

    def start_daemon(self):
        self.daemon = self.start(CONFIGD, "-f", "-d", self.path("system/transient/repository_hatch"),
                                 "-r", self.path("store/repository.db"), stderr=subprocess.DEVNULL)
        for _ in range(500):
            if subprocess.run([CAIRNCTL, "status"], env=self.env, capture_output=True).returncode == 0:
                return
            time.sleep(0.02)
        self.fail("the daemon doesn't answer")

    def put(self, name, types, *props, db=DB):
        return self.tool("put", db, "object-pgname=" + name, "object-pgtype=" + types, "--", *props)

    def value(self, name, *words):
        return self.text("get", DB, *words, "object-pgname=" + name, "-p", "p").rstrip("\n")

    def names(self, *words, db=DB):
        document = json.loads(self.text("walk", "--json", db, *words))
        return [found["id"]["object-pgname"] for found in document["objects"]]

    def cairnctl(self, *words, **more):
        return subprocess.run([CAIRNCTL, *words], env=self.env, check=True, capture_output=True, **more).stdout

    # Gives a group values that no read takes.
    def spoil(self, name, values):
        document = json.loads(self.cairnctl("export", "net/link"))
        for found in document["services"][0]["instances"][0]["groups"]:
            if found["name"] == name:
                found["properties"][0]["values"] = values
        self.cairnctl("delete", "--recursive", "net/link")
        self.cairnctl("import", "-", input=json.dumps(document).encode())


class Commands(RepositoryTest):
    # The same words do the same to a file, a repository, and either of them behind a server.
    def test_each_command_works_on_each_store(self):
        eth0, v4 = ("object-pgname=eth0", "object-pgtype=link"), ("object-pgname=eth0/v4", "object-pgtype=link/addr")
        ipv4 = ("object-pgname=eth0/ipv4", v4[1])
        for stored, served in (("links.db", False), (DB, False), ("links.db", True), (DB, True)):
            if served and os.geteuid() != 0:
                continue
            with self.subTest(stored, served=served):
                server = self.serve(stored) if served else None
                d = "hatch:" + self.hatch if served else stored
                self.tool("put", d, *eth0, "--", "p:uint32=1500", "up:boolean=true", "tags=lan,uplink")
                self.error(5, "put", d, "--new", *eth0, "--", "p=1")
                self.tool("put", d, *v4, "--", "address=10.0.0.1")
                self.tool("set", d, *eth0, "--", "p=9000", "tags+=new")
                self.tool("unset", d, *eth0, "--", "up")
                lines = "\t".join((*eth0, "p=9000", "tags=lan,uplink,new")) + "\n" + "\t".join((*v4, "address=10.0.0.1\n"))
                for trial in (["set", d, "-n", *eth0, "--", "p=1"], ["put", d, *eth0, "-n", "--", "p:uint32=1"],
                              ["remove", d, *v4, "-n"], ["remove", d, "--all", "-n"]):
                    self.assertIn("would be", self.text(*trial))
                self.error(2, "remove", d, "--all")
                self.assertEqual((self.text("walk", d), self.text("walk", stored)), (lines, lines))
                self.assertEqual(self.text("get", d, *eth0, "-p", "tags"), "lan\nuplink\nnew\n")
                self.tool("rename", d, *v4, "--", *ipv4)
                self.error(4, "get", d, *v4)
                document = self.tool("export", d).out
                self.tool("remove", d, *ipv4)
                self.assertEqual(self.names(db=d), ["eth0"])
                for counts in ((1, 1), (0, 2)):
                    told = self.tool("import", "--json", d, stdin=document).json()
                    self.assertEqual((told["added"], told["replaced"], told["unchanged"]), (counts[0], 0, counts[1]))
                self.tool("copy", d, "copy.db")
                self.tool("diff", d, "copy.db")
                self.tool("put", d, "object-pgname=wlan0", "object-pgtype=link", "--", "p=1")
                self.tool("diff", d, "copy.db", code=10)
                self.assertEqual(self.tool("copy", "copy.db", d, "--replace", "--json").json()["removed"], 1)
                self.assertEqual(self.names(db=d), ["eth0", "eth0/ipv4"])
                self.tool("remove", d, "--all", "--yes")
                self.assertEqual(self.text("walk", d, code=0 if stored == DB else 4), "")
                if server:
                    self.assertEqual(self.end(server), 0)
                os.remove(self.path("copy.db"))

    # What a repository would keep, or refuse, is known before: a trial fails as the update does, which changes nothing.
    def test_what_a_repository_refuses_is_explained_and_a_trial_fails_alike(self):
        self.put("a/b", "t/u", "p=x", "up:boolean=true")
        before = self.text("export", DB)
        for words, said in (
                (("put", DB, "object-pgname=big", "object-pgtype=t", "--", MANY), "129 values"),
                (("put", DB, "object-pgname=new", "--", "p=1"), "type for each level"),
                (("put", DB, "object-pgname=a/b/c", "object-pgtype=t", "--", "p=1"), "type for each level"),
                (("put", DB, "name=x", "--", "p=1"), "object-pgname=PATH"),
                (("put", DB, "object-pgname=x*", "object-pgtype=t", "--", "p=1"), "'*'"),
                (("put", DB, "object-pgname=new", "object-pgtype=t*", "--", "p=1"), "'*'"),
                (("put", DB, "object-pgname=" + "/".join("abcdefghi"), "object-pgtype=t", "--", "p=1"), "too long"),
                (("put", DB, "object-pgname=a//c", "object-pgtype=t/t/t", "--", "p=1"), "empty names"),
                (("put", DB, "object-pgname=a/b", "--", "n" * 256 + "=1"), "name of a property"),
                (("put", DB, "object-db-enclave=77", "object-pgname=a/b", "--", "p=1"), "isn't an identifier"),
                (("put", DB, "object-pgname=A/B", "--", "p:boolean=true"), "another kind"),
                (("set", DB, "object-pgname=a/b", "--", "up:string=x"), "another kind"),
                (("set", DB, "object-pgname=a/b", "--", "tags=a,,b"), "empty value among several"),
                (("rename", DB, "object-pgname=a", "--", "object-pgname=z", "object-pgtype=t"), "holds groups"),
                (("rename", DB, "object-pgname=a/b", "--", "object-pgname=a/b/c", "object-pgtype=t/u/v"), "below itself"),
                (("rename", DB, "object-pgname=a/b", "--", "object-pgname=z"), "type for each level")):
            for trial in ((), ("-n",)):
                self.assertIn(said, self.error(6, words[0], *trial, *words[1:])["message"], words)
        self.assertEqual(self.text("export", DB), before)
        self.tool("set", DB, "object-pgname=a/b", "--", "tags=")
        self.tool("set", DB, "object-pgname=a/b", "--", MANY.rsplit(",", 1)[0].replace("p:", "n:"))
        self.assertIn("no object", self.error(4, "get", DB, "object-pgname=none")["message"])
        self.assertIn("cairnctl add", self.error(4, "walk", "repo:net/other")["hint"])
        self.end(self.daemon)
        self.assertIn("no repository", self.error(11, "walk", DB)["message"])
        self.start_daemon()
        self.assertEqual(self.names(), ["a", "a/b"])

    # Somebody else's values can be more than this tool reads.
    def test_a_group_that_cant_be_read_is_named_replaced_and_removed(self):
        for values in (["v"] * 129, ["a", "", "b"]):
            self.put("a", "t", "p=1")
            self.put("bad", "t", "p=1")
            self.spoil("bad", values)
            for words in (("walk", DB), ("get", DB, "object-pgname=bad"), ("set", DB, "object-pgname=bad", "--", "q=1")):
                error = self.error(6, *words)
                self.assertIn("object-pgname=bad can't be read", error["message"], words)
                self.assertIn("ostrel put", error["hint"])
            self.error(5, "put", DB, "object-pgname=bad", "--new", "--", "p=1")
            self.tool("put", DB, "object-pgname=bad", "--", "p=3")
            self.assertEqual(self.names(), ["a", "bad"])
            self.spoil("bad", values)
            self.tool("remove", DB, "object-pgname=bad")
            self.assertEqual(self.names(), ["a"])
            self.put("bad", "t", "p=1")
            self.spoil("bad", values)
            self.assertEqual(self.tool("remove", "--json", DB, "--all", "--yes").json()["objects"], 2)
            self.assertEqual(self.names(), [])

    def test_groups_that_differ_in_case_alone_are_updated_one_by_one(self):
        for name in ("Foo", "FOO", "Bar", "BAR"):
            self.tool("put", "--case", DB, "object-pgname=" + name, "object-pgtype=t", "--", "p=" + name)
        begun = time.monotonic()
        self.tool("rename", DB, "object-pgname=Foo", "--", "object-pgname=new", "object-pgtype=zz")
        self.tool("remove", DB, "object-pgname=Bar")
        self.assertLess(time.monotonic() - begun, 20)
        self.assertEqual(sorted(self.names()), ["BAR", "FOO", "new"])
        self.assertEqual(self.value("bar"), "BAR")

    def test_of_two_that_make_the_same_groups_none_fails(self):
        self.write("objects", t.document(*[group(f"g{i}", "t") for i in range(300)]))
        imports = [self.start(t.OSTREL, "import", DB, "objects", stdout=subprocess.DEVNULL) for _ in range(3)]
        self.assertEqual([(0, b"")] * 3, [(each.wait(60), each.stderr.read()) for each in imports])
        self.assertEqual(300, len(self.names()))

    def test_a_walk_selects_by_what_groups_have(self):
        self.put("a", "t", "p=1")
        self.put("a/b", "t/u", "p=1")
        both = ["a", "a/b"]
        for words, names in ((("foo=bar",), []), (("foo=",), []), (("object-pgname=",), both), (("object-pgtype=",), both),
                             (("object-pgname=none",), []), (("object-pgtype=t/*",), ["a/b"]), (("object-pgtype=/",), []),
                             (("object-pgtype=", "object-pgname=a"), ["a"]), (("object-pgname=a", "object-pgtype=x"), []),
                             (("object-pgname=a/b", "object-pgtype=*/u"), ["a/b"])):
            with self.subTest(words):
                self.assertEqual(self.names(*words), names)

    def test_the_level_above_is_reached_by_its_name(self):
        service = "object-db-name=net/link"
        self.put("a", "t", "p=1")
        self.tool("put", DB, service, "object-pgname=s", "object-pgtype=t", "--", "p=2")
        self.assertEqual((self.names(), self.names(service), self.names(db="repo:net/link")), (["a"], ["s"], ["s"]))
        self.tool("set", DB, service, "object-pgname=s", "--", "p=3")
        self.assertEqual(self.value("s", service), "3")
        self.tool("rename", DB, service, "object-pgname=s", "--", "object-pgname=s", "object-pgtype=t")
        self.assertEqual((self.names(), self.names(service)), (["a", "s"], []))
        self.tool("remove", DB, "object-pgname=s")
        self.error(6, "walk", "file.db", service)
        for words in (("walk", DB), ("put", DB, "object-pgname=s", "object-pgtype=t")):
            error = self.error(6, *words, "object-db-name=net/other", *(("--", "p=1") if words[0] == "put" else ()))
            self.assertIn("neither the service", error["message"])
        document = self.text("export", DB).replace('"object-pgname"', '"object-db-name":"net/link","object-pgname"')
        self.assertIn("another database", self.error(6, "import", DB, stdin=document.encode())["message"])

    def test_an_import_is_checked_before_anything_is_changed(self):
        good = [group("q/r", "t/u"), group("q", "t")]
        bad = [group("new"), group("/".join("abcdefghi"), "t"), ({"name": "x"}, {})]
        mixed = t.document(good[0], *bad, good[1])
        for trial in ((), ("-n",)):
            self.assertEqual(self.error(6, "import", *trial, DB, stdin=mixed)["path"], "/objects/1")
        self.assertEqual(self.names(), [])
        for trial in (("-n",), ()):
            counts = self.tool("import", "-k", "--json", *trial, DB, stdin=mixed, code=6).json()
            self.assertEqual((counts["added"], counts["refused"]), (2, 3))
        self.assertEqual(self.names(), ["q", "q/r"])
        self.tool("remove", DB, "--all", "--yes")
        self.tool("import", DB, stdin=t.document(good[0], group("q", "w")))
        self.assertEqual(self.text("walk", DB), "object-pgname=q\tobject-pgtype=w\tp=x\n"
                                                "object-pgname=q/r\tobject-pgtype=w/u\tp=x\n")
        self.assertIn(b"keeps its types", self.tool("import", DB, stdin=t.document(good[1])).err)
        # What is to stay isn't taken along by a group that goes, and other types make no other group.
        below = t.document(good[0])
        self.assertIn("below it", self.error(6, "import", "--replace", DB, stdin=below)["message"])
        self.tool("import", "--replace", DB, stdin=t.document(group("q/r", "t/w"), group("q", "z")))
        self.assertEqual(self.names(), ["q", "q/r"])
        cut = group("a/b", "t" * 200 + "/" + "u" * 54)
        self.assertIn(b"may have been cut", self.tool("import", DB, stdin=t.document(cut)).err)


@unittest.skipUnless(os.geteuid() == 0, "needs root")
class Served(RepositoryTest):
    # A daemon whose store is a file system of its own, with one group.
    def start_on_mounted_store(self):
        self.end(self.daemon)
        if subprocess.run(["mount", "-t", "tmpfs", "none", self.path("store")], capture_output=True).returncode != 0:
            self.skipTest("needs the privilege to mount")
        self.addCleanup(subprocess.run, ["umount", "-l", self.path("store")])
        self.start_daemon()
        self.cairnctl("add", "net/link:default")
        self.put("g", "t", "p=old")

    def set_readonly(self, word):
        for _ in range(200):
            if subprocess.run(["mount", "-o", "remount," + word, self.path("store")], capture_output=True).returncode == 0:
                return
            time.sleep(0.05)
        self.fail("can't be mounted again")

    # An update that is deferred, waits, and lands as soon as the store can be written.
    def wait_for_put(self, db, codes=(0,), meanwhile=lambda: None):
        waiting = self.start(t.OSTREL, "put", db, "object-pgname=g", "--", "p=new")
        self.assertIn(b"waiting", waiting.stderr.readline())
        self.set_readonly("rw")
        meanwhile()
        self.assertIn(waiting.wait(30), codes)

    def test_a_repository_is_served_to_those_with_the_right(self):
        t.install_tool(type(self))
        self.write("etc/meridon/rights", "daemon: ostrel.read, ostrel.write\nbin: ostrel.write\n")
        self.serve(DB)
        hatch = "hatch:" + self.hatch
        done = self.as_user("daemon", "put", hatch, "object-pgname=ok", "object-pgtype=t", "--", "p=1")
        self.assertEqual(done.err, b"")
        self.user_error("nobody", 3, "walk", hatch)
        self.assertIn("ostrel.elsewhere", self.user_error("daemon", 3, "walk", hatch, "object-db-name=net/ip")["hint"])
        self.assertIn("right to read", self.user_error("bin", 6, "remove", hatch, "--all", "--yes")["hint"])
        self.assertIn("there is no object", self.user_error("daemon", 4, "get", hatch, "object-pgname=none")["message"])
        # A group that can't be read is in no other one's way.
        self.put("bad", "t", "p=1")
        self.spoil("bad", ["v"] * 129)
        self.as_user("daemon", "rename", hatch, "object-pgname=ok", "--", "object-pgname=new", "object-pgtype=t")
        self.assertEqual(self.value("new"), "1")
        self.end(self.daemon)
        self.assertIn("for a repository at its daemon", self.user_error("daemon", 1, "walk", hatch)["hint"])

    def test_a_server_that_ends_waits_for_what_is_deferred_and_tells_of_each(self):
        self.start_on_mounted_store()
        hatch = "hatch:" + self.hatch
        landed = {"object": "object-pgname=g;", "operation": "update", "outcome": "landed"}
        refused = {"object": "object-pgname=goes;", "operation": "remove", "outcome": "refused"}
        removed = {**refused, "outcome": "landed"}
        # The last one may not write records, and learns no names from them.
        for below, extra, code, told, said in (
                ((), 0, 0, [landed], "1 have landed, 0 were refused or given up and 0 are left behind"),
                ((), 2, 7, [landed, removed, refused], "2 have landed, 1 were refused or given up"),
                (NO_AUDIT, 0, 0, [], "1 have ended, 0 were refused or given up")):
            self.put("goes", "t", "p=1")
            server = self.serve(DB, below=below)
            self.set_readonly("ro")
            self.tool("put", hatch, "object-pgname=g", "--no-wait", "--", f"p=new{extra}", code=7)
            for _ in range(extra):  # the second one will find nothing to remove
                self.tool("remove", hatch, "object-pgname=goes", "--no-wait", code=7)
            server.send_signal(signal.SIGTERM)
            time.sleep(0.5)
            self.assertIsNone(server.poll(), "it waits")
            self.error(11, "walk", hatch)
            self.set_readonly("rw")
            self.assertEqual(server.wait(30), code)
            end = json.loads(server.stdout.read())
            end["updates"].sort(key=lambda update: (update["operation"] == "remove", update["outcome"]))
            self.assertEqual(end, {"deferred": 1 + extra, "left_behind": 0, "updates": told})
            self.assertIn(said, server.stderr.read().decode())
            self.assertEqual(self.value("g"), f"new{extra}")

        server = self.serve(DB)
        self.set_readonly("ro")
        self.tool("put", hatch, "object-pgname=g", "--no-wait", "--", "p=lost", code=7)
        for _ in range(2):
            server.send_signal(signal.SIGTERM)
            time.sleep(0.5)
        self.assertEqual(server.wait(30), 7)
        said = server.stderr.read().decode()
        self.assertIn("update of object-pgname=g; is left behind", said)
        self.assertIn("1 are left behind", said)

    @unittest.skipIf(t.sanitized(), "the other writer is no program of the sanitizer")
    def test_what_another_writer_made_of_it_is_no_deferral(self):
        self.start_on_mounted_store()
        self.serve(DB)
        hatch = "hatch:" + self.hatch

        def write_beside(values):
            return self.start(sys.executable, "-c", OTHER_WRITER, os.path.abspath(t.BUILD) + "/common/libostrel.so.1", values)

        def put(db, value, *below):
            done = subprocess.run([*below, t.OSTREL, "put", db, "object-pgname=g", "--no-wait", "--", "p=" + value],
                                  env=self.env, capture_output=True)
            self.assertEqual((done.returncode, done.stderr), (0, b""), (db, below))
        # A tool that sees no server has only the values to go by, and one that comes back says nothing.
        other = write_beside("new")
        for i in range(10):
            put(hatch, f"mine{i}", "unshare", "-pf")
        self.end(other, signal.SIGKILL)
        other = write_beside("turns")
        for i in range(10):
            for db, *below in ((DB,), (hatch,), (DB, *NO_AUDIT)):
                put(db, f"mine{i}", *below)
        self.tool("import", "--no-wait", hatch, stdin=t.document(group("g")))
        for db, codes in ((DB, [0]), (hatch, [0, 7])):  # a server's thread may have ended before anybody sees what it wrote
            other.send_signal(signal.SIGSTOP)
            self.set_readonly("ro")
            self.wait_for_put(db, codes, lambda: other.send_signal(signal.SIGCONT))
        self.assertIsNone(other.poll())

    # Nobody goes on with an update of this process's own when it has ended.
    def test_an_own_update_that_is_deferred_is_waited_for_or_given_up(self):
        self.start_on_mounted_store()
        self.set_readonly("ro")
        self.env["MALLOC_PERTURB_"] = "165"  # what is used after it was freed shows
        for _ in range(20):
            error = self.error(7, "put", "--no-wait", DB, "object-pgname=g", "--", "p=lost")
            self.assertIn("run the command again", error["hint"])
        self.tool("import", "--no-wait", DB, stdin=t.document(*[group(f"g{i}", "t") for i in range(30)]), code=7)
        self.wait_for_put(DB)
        self.assertEqual((self.names(), self.value("g")), (["g"], "new"))


if __name__ == "__main__":
    t.main()
