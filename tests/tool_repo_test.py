# Databases in the service repository, through the tool: a real daemon, its hatch, and users with and without rights.
import json
import os
import pwd
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import ostrel_tool as t

CONFIGD = os.path.join(os.path.abspath(t.BUILD), "repository", "cairn.configd")
CAIRNCTL = os.path.join(os.path.abspath(t.BUILD), "tools", "cairnctl")
DB = "repo:net/link:default"
NO_AUDIT = ("setpriv", "--bounding-set", "-audit_write", "--inh-caps", "-audit_write")
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


class RepositoryTest(t.ToolTest):
    def setUp(self):
        super().setUp()
        os.chmod(self.dir, 0o755)
        os.makedirs(self.path("system/transient"))
        os.makedirs(self.path("etc/meridon"))
        os.makedirs(self.path("store"))
        self.env["MERIDON_ROOT"] = self.dir
        self.daemon = None
        self.start_daemon()
        subprocess.run([CAIRNCTL, "add", "net/link:default"], env=self.env, check=True, stdout=subprocess.DEVNULL)

    def start_daemon(self):
        self.daemon = subprocess.Popen([CONFIGD, "-f", "-d", self.path("system/transient/repository_hatch"),
                                        "-r", self.path("store/repository.db")], env=self.env, stderr=subprocess.DEVNULL)
        self.addCleanup(self.end, self.daemon)
        for _ in range(500):
            if subprocess.run([CAIRNCTL, "status"], env=self.env, capture_output=True).returncode == 0:
                return
            time.sleep(0.02)
        self.fail("the daemon doesn't answer")

    def end(self, process, number=signal.SIGTERM):
        if process.poll() is None:
            process.send_signal(number)
        process.wait(30)
        for stream in (process.stdout, process.stderr):
            if stream:
                stream.close()
        return process.returncode

    def put(self, name, types, *props, db=DB):
        return self.tool("put", db, "object-pgname=" + name, "object-pgtype=" + types, "--", *props)

    def names(self, *words, db=DB):
        document = json.loads(self.text("walk", "--json", db, *words))
        return [found["id"]["object-pgname"] for found in document["objects"]]

    def cairnctl(self, *words, **more):
        return subprocess.run([CAIRNCTL, *words], env=self.env, check=True, capture_output=True, **more).stdout

    # Gives a group values that no read takes.
    def spoil(self, name, values):
        document = json.loads(self.cairnctl("export", "net/link"))
        for group in document["services"][0]["instances"][0]["groups"]:
            if group["name"] == name:
                group["properties"][0]["values"] = values
        self.cairnctl("delete", "--recursive", "net/link")
        self.cairnctl("import", "-", input=json.dumps(document).encode())


class Commands(RepositoryTest):
    def test_each_command_works_on_a_repository(self):
        self.put("eth0", "link", "mtu:uint32=1500", "up:boolean=true", "tags=lan,uplink")
        self.put("eth0/v4", "link/addr", "address=10.0.0.1")
        self.assertEqual(self.text("get", DB, "object-pgname=ETH0", "-p", "mtu"), "1500\n")
        self.assertEqual(self.names(), ["eth0", "eth0/v4"])
        self.assertEqual(self.names("object-pgtype=link/*"), ["eth0/v4"])
        self.assertEqual(self.names("object-pgname=none"), [])
        self.tool("set", DB, "object-pgname=eth0", "--", "mtu=9000", "tags+=new")
        self.assertEqual(self.text("get", DB, "object-pgname=eth0", "-p", "mtu"), "9000\n")
        self.tool("unset", DB, "object-pgname=eth0", "--", "up")
        self.tool("set", DB, "object-pgname=eth0", "-n", "--", "mtu=1")
        self.assertEqual(self.text("get", DB, "object-pgname=eth0", "-p", "mtu"), "9000\n")
        self.tool("rename", DB, "object-pgname=eth0/v4", "--", "object-pgname=eth0/ipv4", "object-pgtype=link/addr")
        document = self.text("export", DB)
        self.tool("remove", DB, "object-pgname=eth0/ipv4")
        self.assertEqual(self.names(), ["eth0"])
        self.tool("import", DB, stdin=document.encode())
        self.assertEqual(self.names(), ["eth0", "eth0/ipv4"])
        again = self.tool("import", "--json", DB, stdin=document.encode()).json()
        self.assertEqual((again["added"], again["replaced"], again["unchanged"]), (0, 0, 2))
        self.tool("copy", DB, "file.db")
        self.tool("diff", DB, "file.db")
        self.put("wlan0", "link", "mtu=1")
        self.tool("diff", DB, "file.db", code=10)
        self.tool("copy", "--replace", "file.db", DB)
        self.assertEqual(self.names(), ["eth0", "eth0/ipv4"])
        self.error(2, "remove", DB, "--all")
        self.tool("remove", DB, "--all", "--yes")
        self.assertEqual(self.names(), [])

    def test_a_replacing_import_takes_no_group_along_that_is_to_stay(self):
        self.put("a", "t", "p=1")
        self.put("a/b", "t/u", "p=2")
        below = json.loads(self.text("export", DB))
        below["objects"] = [o for o in below["objects"] if "a/b" in json.dumps(o["id"])]
        self.assertIn("below it", self.error(6, "import", "--replace", DB, stdin=json.dumps(below).encode())["message"])
        self.assertEqual(self.names(), ["a", "a/b"])
        other_type = self.text("export", DB).replace("t/u", "t/w")
        self.tool("import", "--replace", DB, stdin=other_type.encode())
        self.assertEqual(self.names(), ["a", "a/b"])

    def test_what_a_repository_refuses_is_explained(self):
        self.put("a/b", "t/u", "p=x")
        for words, said in (
                (("put", DB, "object-pgname=new", "--", "p=1"), "type for each level"),
                (("put", DB, "object-pgname=a/b/c", "object-pgtype=t", "--", "p=1"), "type for each level"),
                (("put", DB, "name=x", "--", "p=1"), "object-pgname=PATH"),
                (("put", DB, "object-pgname=x*", "object-pgtype=t", "--", "p=1"), "'*'"),
                (("put", DB, "object-pgname=" + "/".join("abcdefghi"), "object-pgtype=t", "--", "p=1"), "too long"),
                (("set", DB, "object-pgname=a/b", "--", "p:int32=1"), "another kind"),
                (("rename", DB, "object-pgname=a", "--", "object-pgname=z", "object-pgtype=t"), "holds groups")):
            self.assertIn(said, self.error(6, *words)["message"], words)
        self.assertIn("no object", self.error(4, "get", DB, "object-pgname=none")["message"])
        missing = self.error(4, "walk", "repo:net/other")
        self.assertIn("cairnctl add", missing["hint"])
        self.assertEqual(self.names(), ["a", "a/b"])
        self.end(self.daemon)
        self.assertIn("no repository", self.error(11, "walk", DB)["message"])
        self.start_daemon()
        self.assertEqual(self.names(), ["a", "a/b"])

    # What a repository would keep, or refuse, is known before: a trial fails as the update does, which changes nothing.
    def test_an_update_that_would_be_refused_or_unreadable_fails_in_a_trial_too(self):
        self.put("a/b", "t/u", "p=x", "up:boolean=true")
        before = self.text("export", DB)
        many = "p:int32=" + ",".join(map(str, range(129)))
        for words, said in (
                (("put", DB, "object-pgname=big", "object-pgtype=t", "--", many), "129 values"),
                (("set", DB, "object-pgname=a/b", "--", "tags=a,,b"), "empty value among several"),
                (("set", DB, "object-pgname=a/b", "--", "up:string=x"), "another kind"),
                (("put", DB, "object-pgname=A/B", "--", "p:boolean=true"), "another kind"),
                (("put", DB, "object-pgname=a/b", "--", "n" * 256 + "=1"), "name of a property"),
                (("put", DB, "object-pgname=new", "--", "p=1"), "type for each level"),
                (("put", DB, "object-pgname=a//c", "object-pgtype=t/t/t", "--", "p=1"), "empty names"),
                (("put", DB, "object-pgname=new", "object-pgtype=t*", "--", "p=1"), "'*'"),
                (("put", DB, "object-db-enclave=77", "object-pgname=a/b", "--", "p=1"), "isn't an identifier"),
                (("rename", DB, "object-pgname=a", "--", "object-pgname=z", "object-pgtype=t"), "holds groups"),
                (("rename", DB, "object-pgname=a/b", "--", "object-pgname=a/b/c", "object-pgtype=t/u/v"), "below itself"),
                (("rename", DB, "object-pgname=a/b", "--", "object-pgname=z"), "type for each level")):
            for trial in ((), ("-n",)):
                self.assertIn(said, self.error(6, words[0], *trial, *words[1:])["message"], words)
        self.assertEqual(self.text("export", DB), before)
        self.tool("set", DB, "object-pgname=a/b", "--", "tags=")
        self.tool("set", DB, "object-pgname=a/b", "--", many.rsplit(",", 1)[0].replace("p:", "n:"))

    # Somebody else's values can be more than this tool reads.
    def test_a_group_that_cant_be_read_is_named_replaced_and_removed(self):
        self.put("a", "t", "p=1")
        for values in (["v"] * 129, ["a", "", "b"]):
            self.put("bad", "t", "p=1")
            self.spoil("bad", values)
            for words in (("walk", DB), ("export", DB), ("get", DB, "object-pgname=bad"),
                          ("set", DB, "object-pgname=bad", "--", "q=1")):
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
            self.put("a", "t", "p=1")

    def test_groups_that_differ_in_case_alone_are_updated_one_by_one(self):
        for name in ("Foo", "FOO", "Bar", "BAR"):
            self.tool("put", "--case", DB, "object-pgname=" + name, "object-pgtype=t", "--", "p=" + name)
        begun = time.monotonic()
        self.tool("rename", DB, "object-pgname=Foo", "--", "object-pgname=new", "object-pgtype=zz")
        self.tool("remove", DB, "object-pgname=Bar")
        self.assertLess(time.monotonic() - begun, 20)
        self.assertEqual(sorted(self.names()), ["BAR", "FOO", "new"])
        self.assertEqual(self.text("get", DB, "object-pgname=bar", "-p", "p"), "BAR\n")

    def test_of_two_that_make_the_same_groups_none_fails(self):
        self.put("g", "t", "p=1")
        document = json.loads(self.text("export", DB))
        one = document["objects"][0]
        document["objects"] = [{**one, "id": {**one["id"], "object-pgname": "g%d" % i}} for i in range(300)]
        self.write("objects", json.dumps(document).encode())
        imports = []
        for _ in range(3):
            with open(self.path("objects"), "rb") as objects:
                imports.append(subprocess.Popen([t.OSTREL, "import", DB], stdin=objects, env=self.env,
                                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE))
        self.assertEqual([(0, b"")] * 3, [(each.wait(), each.stderr.read()) for each in imports])
        for each in imports:
            each.stderr.close()
        self.assertEqual(301, len(self.names()))

    def test_a_walk_selects_by_what_groups_have(self):
        self.put("a", "t", "p=1")
        self.put("a/b", "t/u", "p=1")
        for words, names in (((), ["a", "a/b"]), (("foo=bar",), []), (("foo=",), []), (("object-pgname=",), ["a", "a/b"]),
                             (("object-pgtype=", "object-pgname=a"), ["a"]), (("object-pgtype=",), ["a", "a/b"]),
                             (("object-pgname=a", "object-pgtype=x"), []), (("object-pgname=a/b", "object-pgtype=*/u"), ["a/b"])):
            self.assertEqual(self.names(*words), names, words)
        self.assertEqual(self.names("object-pgtype=/"), [])

    def test_the_level_above_is_reached_by_its_name(self):
        service = "object-db-name=net/link"
        self.put("a", "t", "p=1")
        self.tool("put", DB, service, "object-pgname=s", "object-pgtype=t", "--", "p=2")
        self.assertEqual(self.names(service), ["s"])
        self.assertEqual(self.names(), ["a"])
        self.assertEqual(self.names(db="repo:net/link"), ["s"])
        self.tool("set", DB, service, "object-pgname=s", "--", "p=3")
        self.assertEqual(self.text("get", DB, service, "object-pgname=s", "-p", "p"), "3\n")
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
        def document(*objects):
            return json.dumps({"format": "ostrel-objects", "version": 1, "objects": [
                {"id": id, "props": {"p": {"type": "string", "values": ["x"]}}} for id in objects]}).encode()
        good = [{"object-pgname": "q/r", "object-pgtype": "t/u"}, {"object-pgname": "q", "object-pgtype": "t"}]
        bad = [{"object-pgname": "new"}, {"object-pgname": "/".join("abcdefghi"), "object-pgtype": "t"}, {"name": "x"}]
        mixed = document(good[0], *bad, good[1])
        for trial in ((), ("-n",)):
            self.assertEqual(self.error(6, "import", *trial, DB, stdin=mixed)["path"], "/objects/1")
        self.assertEqual(self.names(), [])
        for trial in (("-n",), ()):
            counts = self.tool("import", "-k", "--json", *trial, DB, stdin=mixed, code=6).json()
            self.assertEqual((counts["added"], counts["refused"]), (2, 3))
        self.assertEqual(self.names(), ["q", "q/r"])
        self.tool("remove", DB, "--all", "--yes")
        self.tool("import", DB, stdin=document(good[0], {"object-pgname": "q", "object-pgtype": "w"}))
        self.assertEqual(self.text("walk", DB), "object-pgname=q\tobject-pgtype=w\tp=x\n"
                                                "object-pgname=q/r\tobject-pgtype=w/u\tp=x\n")
        self.assertIn(b"keeps its types", self.tool("import", DB, stdin=document(good[1])).err)
        cut = {"object-pgname": "a/b", "object-pgtype": "t" * 200 + "/" + "u" * 54}
        self.assertIn(b"may have been cut", self.tool("import", DB, stdin=document(cut)).err)


@unittest.skipUnless(os.geteuid() == 0, "needs root")
class Served(RepositoryTest):
    def serve(self, *words, below=()):
        self.hatch = self.path("run/net")
        server = subprocess.Popen([*below, t.OSTREL, "serve", "--json", DB, self.hatch, *words], cwd=self.dir, env=self.env,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(self.end, server)
        self.assertTrue(server.stdout.readline())
        return server

    # A daemon whose store is a file system of its own, with one group.
    def start_on_mounted_store(self):
        self.end(self.daemon)
        self.mount_store()
        self.start_daemon()
        subprocess.run([CAIRNCTL, "add", "net/link:default"], env=self.env, check=True, stdout=subprocess.DEVNULL)
        self.put("g", "t", "p=old")

    def mount_store(self):
        if subprocess.run(["mount", "-t", "tmpfs", "none", self.path("store")], capture_output=True).returncode != 0:
            self.skipTest("needs the privilege to mount")
        self.addCleanup(subprocess.run, ["umount", "-l", self.path("store")])

    def set_readonly(self, word):
        for _ in range(200):
            if subprocess.run(["mount", "-o", "remount," + word, self.path("store")], capture_output=True).returncode == 0:
                return
            time.sleep(0.05)
        self.fail("can't be mounted anew")

    def test_a_repository_is_served_to_those_with_the_right(self):
        tree = tempfile.mkdtemp(prefix="ostrel-repo-")
        self.addCleanup(shutil.rmtree, tree, ignore_errors=True)
        os.chmod(tree, 0o755)
        subprocess.run(["cmake", "--install", t.BUILD, "--prefix", tree], check=True, stdout=subprocess.DEVNULL)
        self.write("etc/meridon/rights", "daemon: ostrel.read, ostrel.write\nbin: ostrel.write\n")
        server = self.serve()
        tool = os.path.join(tree, "bin", "ostrel")

        def as_user(name, *words):
            entry = pwd.getpwnam(name)
            return subprocess.run([tool, *words], env=self.env, cwd="/", capture_output=True, user=entry.pw_uid,
                                  group=entry.pw_gid, extra_groups=[])
        hatch = "hatch:" + self.hatch
        done = as_user("daemon", "put", hatch, "object-pgname=eth0", "object-pgtype=link", "--", "mtu:uint32=1500")
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        self.assertEqual(as_user("nobody", "walk", hatch).returncode, 3)
        elsewhere = as_user("daemon", "walk", hatch, "object-db-name=net/ip")
        self.assertEqual((elsewhere.returncode, b"ostrel.elsewhere" in elsewhere.stderr), (3, True))
        refused = as_user("bin", "remove", hatch, "--all", "--yes")
        self.assertEqual(refused.returncode, 6)
        self.assertIn(b"right to read", refused.stderr)
        self.assertEqual(as_user("daemon", "get", hatch, "object-pgname=eth0", "-p", "mtu").stdout, b"1500\n")
        self.assertIn(b"eth0", as_user("daemon", "walk", hatch).stdout)
        self.assertEqual(as_user("daemon", "walk", hatch, "object-pgname=none").returncode, 0)
        self.assertIn(b"there is no object", as_user("daemon", "get", hatch, "object-pgname=none").stderr)
        renamed = as_user("daemon", "rename", hatch, "object-pgname=eth0", "--", "object-pgname=e1", "object-pgtype=link")
        self.assertEqual((renamed.returncode, renamed.stderr), (0, b""))
        self.assertEqual(self.names(), ["e1"])
        self.put("e1/v4", "link/addr", "p=1")
        self.assertEqual(as_user("daemon", "remove", hatch, "--all", "--yes").returncode, 0)
        self.assertEqual(self.names(), [])
        self.put("eth0", "link", "mtu:uint32=1500")
        self.assertEqual(self.text("get", DB, "object-pgname=eth0", "-p", "mtu"), "1500\n")
        self.end(self.daemon)
        self.assertIn(b"for a repository at its daemon", as_user("daemon", "walk", hatch).stderr)
        self.assertEqual(self.end(server), 0)

    def test_a_group_that_cant_be_read_is_in_no_other_ones_way(self):
        self.put("ok", "t", "p=1")
        self.put("bad", "t", "p=1")
        self.spoil("bad", ["v"] * 129)
        self.serve("--read-auth", "", "--write-auth", "")
        self.tool("rename", "hatch:" + self.hatch, "object-pgname=ok", "--", "object-pgname=new", "object-pgtype=t")
        self.assertEqual(self.text("get", DB, "object-pgname=new", "-p", "p"), "1\n")

    def test_a_server_that_ends_waits_for_what_is_deferred(self):
        self.start_on_mounted_store()
        server = self.serve()
        self.set_readonly("ro")
        self.tool("put", "hatch:" + self.hatch, "object-pgname=g", "--no-wait", "--", "p=new", code=7)
        server.send_signal(signal.SIGTERM)
        time.sleep(0.5)
        self.assertIsNone(server.poll(), "it waits")
        self.error(11, "walk", "hatch:" + self.hatch)
        self.set_readonly("rw")
        self.assertEqual(server.wait(30), 0)
        said = server.stderr.read().decode()
        self.assertIn("1 updates are deferred", said)
        self.assertIn("1 have landed, 0 were refused or given up and 0 are left behind", said)
        self.assertIn("update of object-pgname=g; has landed", said)
        self.assertEqual(json.loads(server.stdout.read()), {"deferred": 1, "left_behind": 0, "updates": [
            {"object": "object-pgname=g;", "operation": "update", "outcome": "landed"}]})
        self.assertEqual(self.text("get", DB, "object-pgname=g", "-p", "p"), "new\n")

        server = self.serve()
        self.set_readonly("ro")
        self.tool("put", "hatch:" + self.hatch, "object-pgname=g", "--no-wait", "--", "p=lost", code=7)
        for _ in range(2):
            server.send_signal(signal.SIGTERM)
            time.sleep(0.5)
        self.assertEqual(server.wait(30), 7)
        said = server.stderr.read().decode()
        self.assertIn("update of object-pgname=g; is left behind", said)
        self.assertIn("1 are left behind", said)

    def test_each_deferred_update_is_told_of_by_name(self):
        self.start_on_mounted_store()
        self.put("goes", "t", "p=1")
        server = self.serve()
        self.set_readonly("ro")
        hatch = "hatch:" + self.hatch
        self.tool("put", hatch, "object-pgname=g", "--no-wait", "--", "p=new", code=7)
        for _ in range(2):  # the second one will find nothing to remove
            self.tool("remove", hatch, "object-pgname=goes", "--no-wait", code=7)
        server.send_signal(signal.SIGTERM)
        time.sleep(0.5)
        self.set_readonly("rw")
        self.assertEqual(server.wait(30), 7)
        outcomes = sorted((u["object"], u["operation"], u["outcome"]) for u in json.loads(server.stdout.read())["updates"])
        self.assertEqual(outcomes, [("object-pgname=g;", "update", "landed"), ("object-pgname=goes;", "remove", "landed"),
                                    ("object-pgname=goes;", "remove", "refused")])
        self.assertIn("2 have landed, 1 were refused or given up", server.stderr.read().decode())

    # Who may not write records learns no names from them.
    def test_a_server_without_the_privilege_of_audit_counts_deferred_updates(self):
        self.start_on_mounted_store()
        server = self.serve(below=NO_AUDIT)
        self.set_readonly("ro")
        self.tool("put", "hatch:" + self.hatch, "object-pgname=g", "--no-wait", "--", "p=new", code=7)
        server.send_signal(signal.SIGTERM)
        time.sleep(0.5)
        self.set_readonly("rw")
        self.assertEqual(server.wait(30), 0)
        self.assertEqual(json.loads(server.stdout.read()), {"deferred": 1, "left_behind": 0, "updates": []})
        self.assertIn("1 have ended, 0 were refused or given up", server.stderr.read().decode())

    @unittest.skipIf(t.sanitized(), "the other writer is no program of the sanitizer")
    def test_what_another_writer_made_of_it_is_no_deferral(self):
        self.start_on_mounted_store()
        self.serve()
        hatch = "hatch:" + self.hatch

        def write_beside(values):
            writer = subprocess.Popen([sys.executable, "-c", OTHER_WRITER,
                                       os.path.join(t.BUILD, "common", "libostrel.so.1"), values], env=self.env)
            self.addCleanup(self.end, writer, signal.SIGKILL)
            return writer

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
        many = json.dumps({"format": "ostrel-objects", "version": 1, "objects": [
            {"id": {"object-pgname": "g"}, "props": {"p": {"type": "string", "values": ["mine"]}}}]})
        self.tool("import", "--no-wait", hatch, stdin=many.encode())
        for db, codes in ((DB, [0]), (hatch, [0, 7])):  # a server's thread may have ended before anybody sees what it wrote
            other.send_signal(signal.SIGSTOP)
            self.set_readonly("ro")
            waiting = subprocess.Popen([t.OSTREL, "put", db, "object-pgname=g", "--", "p=mine"], env=self.env,
                                       stderr=subprocess.PIPE)
            self.addCleanup(self.end, waiting)
            self.assertIn(b"waiting", waiting.stderr.readline())
            self.set_readonly("rw")
            other.send_signal(signal.SIGCONT)
            self.assertIn(waiting.wait(30), codes)
        self.assertIsNone(other.poll())

    # Nobody goes on with an update of this process's own when it has ended.
    def test_an_own_update_that_is_deferred_is_waited_for_or_given_up(self):
        self.start_on_mounted_store()
        self.set_readonly("ro")
        self.env["MALLOC_PERTURB_"] = "165"  # what is used after it was freed shows
        for _ in range(20):
            result = self.run_tool("put", "--json", "--no-wait", DB, "object-pgname=g", "--", "p=lost")
            self.assertEqual(result.code, 7)
            self.assertIn("run the command again", result.error()["hint"])
        many = json.dumps({"format": "ostrel-objects", "version": 1, "objects": [
            {"id": {"object-pgname": f"g{i}", "object-pgtype": "t"}, "props": {}} for i in range(30)]})
        self.tool("import", "--no-wait", DB, stdin=many.encode(), code=7)
        waiting = subprocess.Popen([t.OSTREL, "put", DB, "object-pgname=g", "--", "p=new"], env=self.env,
                                   stderr=subprocess.PIPE)
        self.addCleanup(self.end, waiting)
        self.assertIn(b"waiting", waiting.stderr.readline())
        self.set_readonly("rw")
        self.assertEqual(waiting.wait(30), 0)
        self.assertEqual(self.names(), ["g"])
        self.assertEqual(self.text("get", DB, "object-pgname=g", "-p", "p"), "new\n")


if __name__ == "__main__":
    t.main()
