# How a server of a database begins and ends: signals, its manager, its limits.
import os
import resource
import signal
import socket
import stat

import ostrel_tool as t


class Lives(t.ToolTest):
    def setUp(self):
        super().setUp()
        self.env["MERIDON_ROOT"] = self.dir
        self.hatch = self.path("run/links")

    def test_each_signal_ends_it_cleanly(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            server = self.serve("links.db")
            self.assertEqual(stat.S_IMODE(os.stat(self.hatch).st_mode), 0o644)
            directory = os.stat(os.path.dirname(self.hatch))
            self.assertEqual((stat.S_IMODE(directory.st_mode), directory.st_uid, directory.st_gid), (0o755, 16, 65))
            self.assertEqual(self.end(server, number), 0)
            self.assertEqual(os.listdir(self.path("run")), [])

    def test_the_manager_hears_when_it_is_ready_and_when_it_ends(self):
        for name in (self.path("notify"), "@ostrel-notify-%d" % os.getpid()):
            manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
            self.addCleanup(manager.close)
            manager.settimeout(30)
            manager.bind(name.replace("@", "\0"))
            self.env["NOTIFY_SOCKET"] = name
            server = self.serve("links.db")
            self.assertEqual(manager.recv(100), b"READY=1")
            self.tool("walk", "hatch:" + self.hatch, code=4)
            server.send_signal(signal.SIGTERM)
            self.assertEqual(manager.recv(100), b"STOPPING=1")
            self.assertEqual(server.wait(60), 0)
        self.env["NOTIFY_SOCKET"] = self.path("nobody-listens")
        self.assertEqual(self.end(self.serve("links.db")), 0)

    # Each connection takes a descriptor: a soft limit isn't what ends it.
    def test_it_raises_its_own_limit(self):
        hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        server = self.serve("links.db", preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (64, hard)))
        self.assertEqual(resource.prlimit(server.pid, resource.RLIMIT_NOFILE)[0], hard)


if __name__ == "__main__":
    if os.geteuid() != 0:
        print("skipped: serving needs root")
        raise SystemExit(77)
    t.main()
