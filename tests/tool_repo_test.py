# Updates of the service repository, through the tool, that meet other writers or are deferred.
import json
import os
import signal
import subprocess
import sys
import time
import unittest

import ostrel_tool as t

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


# A document of as many groups.
def groups(count):
    return t.document(*[({"object-pgname": f"g{i}", "object-pgtype": "t"}, {"p": "x"}) for i in range(count)])


class RepositoryTest(t.DaemonTest):
    def setUp(self):
        super().setUp()
        self.hatch = self.path("run/net")
        self.cairnctl("add", "net/link:default")

    def put(self, name, value):
        self.tool("put", DB, "object-pgname=" + name, "object-pgtype=t", "--", "p=" + value)

    def value(self, name):
        return self.text("get", DB, "object-pgname=" + name, "-p", "p").rstrip("\n")


class Commands(RepositoryTest):
    def test_of_two_that_make_the_same_groups_none_fails(self):
        self.write("objects", groups(300))
        imports = [self.start(t.OSTREL, "import", DB, "objects", stdout=subprocess.DEVNULL) for _ in range(3)]
        self.assertEqual([(0, b"")] * 3, [(each.wait(60), each.stderr.read()) for each in imports])
        self.assertEqual(300, len(self.text("walk", DB).splitlines()))


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
        self.put("g", "old")

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
            self.put("goes", "1")
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
        self.tool("import", "--no-wait", hatch, stdin=t.document(({"object-pgname": "g"}, {"p": "x"})))
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
        self.tool("import", "--no-wait", DB, stdin=groups(30), code=7)
        self.wait_for_put(DB)
        self.assertEqual(self.text("walk", DB), "object-pgname=g\tobject-pgtype=t\tp=new\n")


if __name__ == "__main__":
    t.main()
