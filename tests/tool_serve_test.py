# A database served at a hatch, and who gets how far: real users, real signals, real servers that die.
import os
import pwd
import resource
import signal
import socket
import stat
import time

import ostrel_tool as t

READER, WRITER, STRANGER = "daemon", "bin", "nobody"
RIGHTS = f"{READER}: ostrel.read\n{WRITER}: ostrel.read, ostrel.write\nsync: ostrel.write\n"


class ServeTest(t.ToolTest):
    @classmethod
    def setUpClass(cls):
        t.install_tool(cls)

    def setUp(self):
        super().setUp()
        os.chmod(self.dir, 0o755)
        os.makedirs(self.path("etc/meridon"))
        self.write("etc/meridon/rights", RIGHTS)
        self.env["MERIDON_ROOT"] = self.dir
        self.hatch = self.path("run/links")
        self.db = "hatch:" + self.hatch

    def serve(self, *words, database="links.db", **more):
        return super().serve(database, *words, **more)


class Serving(ServeTest):
    def test_each_user_gets_as_far_as_the_rights_go(self):
        self.tool("put", "links.db", "name=eth0", "--", "mtu:uint32=1500")
        os.chmod(self.path("links.db"), 0o600)
        self.serve()
        for user in (READER, WRITER):
            self.assertIn("1500", self.as_user(user, "walk", self.db).out.decode())
            self.assertEqual(self.as_user(user, "auth", self.db).out, b"read: allowed\n")
        before = self.read("links.db")
        for user in (READER, STRANGER):
            for words in (["put", self.db, "name=eth1", "--", "a=1"], ["remove", self.db, "name=eth0"],
                          ["rename", self.db, "name=eth0", "--", "name=x"], ["remove", self.db, "--all", "--yes"],
                          ["import", self.db, "/dev/null"]):
                self.assertIn("doesn't allow", self.user_error(user, 3, *words)["message"])
            refused = self.as_user(user, "auth", self.db, "--write", "--json", code=3)
            self.assertEqual(refused.json(), {"operation": "write", "allowed": False})
        self.assertEqual(self.read("links.db"), before)
        self.assertIn("ostrel auth", self.user_error(STRANGER, 3, "walk", self.db)["hint"])
        os.chmod(self.path("etc/meridon/rights"), 0o664)
        self.assertIn("rights doesn't count", self.user_error(READER, 3, "walk", self.db)["hint"])
        self.assertIn(b"others may write it", self.as_user(READER, "auth", self.db, code=3).err)
        os.chmod(self.path("etc/meridon/rights"), 0o644)
        self.as_user(WRITER, "set", self.db, "name=eth0", "--", "mtu=9000")
        self.assertEqual(self.text("get", "links.db", "name=eth0", "-p", "mtu"), "9000\n")

    # Who may update but not read is not told what is there, and gets no failure for that.
    def test_who_may_only_update_can_update(self):
        self.serve()
        self.tool("put", self.db, "name=a", "--", "v=1")
        self.assertIn("v", self.error(6, "put", self.db, "name=b", "--", "v=" + "x" * 600)["message"])
        put = self.as_user("sync", "put", self.db, "name=b", "--json", "--", "v=2")
        self.assertEqual(put.json()["result"], "written")
        self.as_user("sync", "rename", self.db, "name=b", "--", "name=c")
        self.as_user("sync", "remove", self.db, "name=a")
        self.assertEqual(self.text("walk", "links.db"), "name=c\tv=2\n")
        self.user_error("sync", 3, "walk", self.db)
        self.user_error("sync", 3, "put", self.db, "name=d", "--new", "--", "v=1")

    def test_rights_of_other_names_and_of_everybody(self):
        server = self.serve("--read-auth", "", "--write-auth", "net.links.change")
        self.tool("put", self.db, "name=a", "--", "v=1")
        self.assertEqual(self.as_user(STRANGER, "walk", self.db).out, b"name=a\tv=1\n")
        self.user_error(WRITER, 3, "put", self.db, "name=a", "--", "v=2")
        self.write("etc/meridon/rights", f"{STRANGER}: net.links.*\n")  # it is looked at for each call
        self.as_user(STRANGER, "put", self.db, "name=a", "--", "v=3")
        self.assertEqual(self.end(server), 0)
        said = self.start(t.OSTREL, "serve", "links.db", self.hatch, "--read-auth", "").stderr.readline()
        self.assertIn(b"everybody may read", said)
        self.assertIn(b"ostrel.write", said)
        for bad in ("a b", "a,b", "net.*", "x" * 1024):
            self.error(2, "serve", "links.db", self.hatch, "--read-auth", bad)

    def test_a_raw_file_is_walked_and_no_more(self):
        self.write("raw.txt", "one\ntwo\n")
        self.serve(database="raw:raw.txt")
        self.assertEqual(len(self.text("walk", self.db).splitlines()), 2)
        self.assertIn("isn't a file", self.error(8, "check", self.db)["message"])
        self.assertIn("ostrel walk", self.error(6, "put", self.db, "name=b", "--", "v=1")["hint"])
        self.error(6, "remove", self.db, "--all", "--yes")
        self.assertEqual(self.read("raw.txt"), b"one\ntwo\n")


class Lives(ServeTest):
    def test_each_signal_ends_it_cleanly(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            server = self.serve()
            self.assertEqual(stat.S_IMODE(os.stat(self.hatch).st_mode), 0o644)
            directory = os.stat(os.path.dirname(self.hatch))
            self.assertEqual((stat.S_IMODE(directory.st_mode), directory.st_uid, directory.st_gid), (0o755, 16, 65))
            self.assertEqual(self.end(server, number), 0)
            self.assertEqual(os.listdir(self.path("run")), [])

    def test_a_server_that_isnt_there_is_no_connection(self):
        self.assertIn("serve", self.error(11, "walk", self.db)["hint"])
        server = self.serve()
        self.tool("put", self.db, "name=a", "--", "v=1")
        self.end(server, signal.SIGKILL)
        for words in (["walk", self.db], ["get", self.db, "name=a"], ["put", self.db, "name=b", "--", "v=1"],
                      ["auth", self.db]):
            self.assertIn("no server", self.error(11, *words)["message"])
        self.serve()  # what the dead one left is no obstacle
        self.assertEqual(self.text("walk", self.db), "name=a\tv=1\n")
        self.write("plain.db", "name=a;\tv=string," + "x" * 400 + ";\n")
        self.assertIn("file:", self.error(11, "walk", "hatch:" + self.path("plain.db"))["hint"])

    def test_the_manager_hears_when_it_is_ready_and_when_it_ends(self):
        for name in (self.path("notify"), "@ostrel-notify-%d" % os.getpid()):
            manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            self.addCleanup(manager.close)
            manager.settimeout(30)
            manager.bind(name.replace("@", "\0"))
            self.env["NOTIFY_SOCKET"] = name
            server = self.serve()
            self.assertEqual(manager.recv(100), b"READY=1")
            self.tool("walk", self.db, code=4)
            server.send_signal(signal.SIGTERM)
            self.assertEqual(manager.recv(100), b"STOPPING=1")
            self.assertEqual(server.wait(60), 0)
        self.env["NOTIFY_SOCKET"] = self.path("nobody-listens")
        self.assertEqual(self.end(self.serve()), 0)

    # What is opened next would get the numbers of the streams, and the messages.
    def test_it_serves_without_standard_streams(self):
        self.write("links.db", "name=net0;\tmtu=uint32,1500;\n")
        for closed in ("2>&-", "<&- >&- 2>&-"):
            with self.subTest(closed):
                server = self.start("sh", "-c", f'exec "$0" serve links.db "$1" --read-auth "" --write-auth "" {closed}',
                                    t.OSTREL, self.hatch)
                for _ in range(100):
                    result = self.run_tool("walk", self.db)
                    if result.code == 0 or server.poll() is not None:
                        break
                    time.sleep(0.05)
                self.assertEqual(result.out, b"name=net0\tmtu=1500\n", result.err)
                self.assertEqual(self.end(server), 0)

    # Each connection takes a descriptor: a soft limit isn't what ends it.
    def test_it_raises_its_own_limit(self):
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        server = self.serve(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (64, hard)))
        self.assertEqual(resource.prlimit(server.pid, resource.RLIMIT_NOFILE)[0], hard)


class Refusals(ServeTest):
    def test_places_that_arent_its_own(self):
        os.makedirs(self.path("open"))
        os.chmod(self.path("open"), 0o777)
        os.makedirs(self.path("theirs"))
        os.chown(self.path("theirs"), 65534, 65534)
        os.symlink("/tmp", self.path("link"))
        for path in ("/x", "/tmp/x", "/run/x", "/etc/x", self.path("link/x"), self.path("open/x"), self.path("theirs/x")):
            before = os.stat(os.path.dirname(path))
            self.assertIn("serving would change", self.error(6, "serve", "links.db", path)["message"])
            after = os.stat(os.path.dirname(path))
            self.assertEqual((before.st_mode, before.st_uid), (after.st_mode, after.st_uid))
        self.error(4, "serve", "links.db", self.path("a/b/c"))
        self.error(2, "serve", self.db, self.hatch)
        self.error(11, "serve", "repo:x:default", self.hatch)

    def test_what_lies_at_the_path_is_left_alone(self):
        os.mkdir(self.path("run"))
        self.write("run/links", "name=a;\tv=string,1;\n")
        os.chmod(self.hatch, 0o600)
        self.error(5, "serve", "links.db", self.hatch)
        self.assertEqual((self.read("run/links"), stat.S_IMODE(os.stat(self.hatch).st_mode)),
                         (b"name=a;\tv=string,1;\n", 0o600))
        os.remove(self.hatch)
        for make in (os.mkdir, os.mkfifo, lambda path: os.symlink("/etc/passwd", path)):
            make(self.hatch)
            self.error(5, "serve", "links.db", self.hatch)
            (os.rmdir if os.path.isdir(self.hatch) else os.remove)(self.hatch)
        self.assertEqual(stat.S_IMODE(os.stat("/etc/passwd").st_mode), 0o644)
        server = self.serve()
        self.assertIn(str(server.pid), self.error(5, "serve", "links.db", self.hatch)["message"])

    def test_without_the_right_to_change_owners(self):
        os.mkdir(self.path("run"))
        os.chown(self.path("run"), pwd.getpwnam(STRANGER).pw_uid, 0)
        error = self.user_error(STRANGER, 3, "serve", "links.db", self.hatch)
        self.assertIn("needs root", error["message"])
        self.assertEqual(os.listdir(self.path("run")), [])


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("skipped: serving needs root")
        raise SystemExit(77)
    t.main()
