# What the tool prints where: terminals, errors, full disks, enclaves.
import json
import os
import re
import subprocess

import ostrel_tool as t


class Terminal(t.ToolTest):
    def plain(self, *words, **more):
        return re.sub(rb"\x1b\[[0-9;]*m", b"", self.on_terminal(*words, **more)).decode()

    def test_a_table_is_aligned_by_columns_and_not_by_bytes(self):
        self.write("d", "n=ä;\tx=string,1;\nn=日本;\tx=string,2;\nn=e\u0301e;\tx=string,3;\n")
        self.assertEqual(self.plain("walk", "d"), "n     x\nä     1\n日本  2\ne\u0301e    3\n")

    def test_wide_tables_wrap_their_last_column(self):
        self.write("d", "n=a;\t" + "".join(f"prop{i}=int32,{i};" for i in range(12)) + "\n")
        lines = self.plain("walk", "d", columns=40).splitlines()
        self.assertEqual(lines[0], "n  properties")
        self.assertTrue(all(len(line) <= 40 for line in lines), lines)
        self.assertEqual(" ".join(line[3:] for line in lines[1:]), " ".join(f"prop{i}={i}" for i in range(12)))
        self.assertEqual(self.plain("walk", "d", "-p", "prop3", columns=40), "n  prop3\na  3\n")
        self.assertEqual(len(self.plain("walk", "d", columns=200).splitlines()), 2)

    # A stored value must not be able to move a cursor, set a title, or turn the writing round.
    def test_control_characters_never_reach_a_terminal(self):
        evil = b"\x1b[2J\x07\x9b\xff\xc2\x9bx\xe2\x80\xaey\x7f\x08\r"
        self.write("d", b"n=" + evil.replace(b"\r", b"") + b";\tx=string," + evil + b";" + evil + b"=string,1;\n")
        os.rename(self.path("d"), self.path("db"))
        shown = [self.on_terminal("walk", "db"), self.on_terminal("check", "./db", code=0)]
        name = self.tool("export", "db").json()["objects"][0]["id"]["n"]
        ident = b"n=" + bytes.fromhex(name[1:]) if name[0] == "\0" else b"n=" + name.encode()
        shown += [self.on_terminal("get", "db", ident), self.on_terminal("get", "db", ident, "-p", "x"),
                  self.on_terminal("get", "db", b"a=" + evil, code=4), self.on_terminal("walk", b"no" + evil, code=4),
                  self.on_terminal(b"com" + evil, code=2), self.on_terminal("diff", "db", "/dev/null", code=10),
                  self.on_terminal("put", "-n", "db", ident, "--", b"x=" + evil)]
        self.assertIn(rb"\x1b[2J\x07\x9b\xff\xc2\x9bx\xe2\x80\xaey\x7f\x08\r", shown[3])
        for text in shown:
            text = re.sub(rb"\x1b\[[0-9;]*m", b"", text)  # the tool's own colours
            self.assertIsNone(re.search(rb"[\x00-\x08\x0b-\x1f\x7f]|\xc2[\x80-\x9f]|\xe2\x80\xae", text), text)
            text.decode()
        # A script gets the bytes as they are.
        self.assertEqual(self.tool("get", "db", ident, "-p", "x").out, evil + b"\n")


class Ends(t.ToolTest):
    def test_errors_as_json_name_code_place_and_next_step(self):
        error = self.error(4, "walk", "none")
        self.assertEqual((error["name"], error["where"]), ("not_found", "none"))
        self.assertTrue(error["message"] and error["hint"])
        self.assertEqual(self.run_tool("--json", "walk", "none").out, b"")
        text = self.tool("walk", "none", code=4).err.decode().splitlines()
        self.assertEqual([line.split(": ")[1] for line in text], ["error", "hint"])

    def test_running_out_of_memory_ends_with_its_code(self):
        self.write("d", "".join(f"n={i};\tx=string,{'y' * 400};\n" for i in range(100000)))
        if t.sanitized():
            self.skipTest("sanitizers need more memory than this test leaves")
        script = f"ulimit -v 60000; exec {t.OSTREL} --json walk d --sort n"
        done = subprocess.run(["bash", "-c", script], cwd=self.dir, capture_output=True, timeout=60)
        self.assertEqual((done.returncode, done.stdout), (9, b""), done.stderr)
        self.assertEqual(json.loads(done.stderr)["error"]["name"], "memory")

    def test_a_full_disk_is_told_apart_and_keeps_the_database(self):
        os.mkdir(self.path("small"))
        script = """mount -t tmpfs -o size=64k t small
$tool put small/d a=1 -- x=1
cp small/d copy
dd if=/dev/zero of=small/fill bs=4k 2>/dev/null || true
for words in "import small/d big" "set small/d a=1 -- x=2"; do
code=0; $tool --json $words || code=$?
cmp small/d copy; echo $code
done; ls small"""
        objects = [{"id": {"n": str(i)}, "props": {}} for i in range(9000)]
        self.write("big", json.dumps({"format": "ostrel-objects", "version": 1, "objects": objects}))
        done = self.with_mounts(script)
        self.assertEqual(done.stdout.split(), [b"9", b"9", b"d", b"fill"], done.stderr)
        for line in done.stderr.splitlines():
            self.assertIn("no space", json.loads(line)["error"]["message"])

    # Each is refused before anything is made, in a dry run too, and the hint is about this fault.
    def test_places_where_nothing_can_be_replaced_are_named(self):
        for name in ("bound", "ro/d"):
            os.makedirs(os.path.dirname(self.path(name)), exist_ok=True)
            self.write(name, "a=1;\tx=string,1;\n")
        script = "mount --bind bound bound; mount -t tmpfs t ro; cp bound ro/d; mount -o remount,ro ro; exec $tool --json \"$@\""
        for db, code, said in (("bound", 6, "mounted there by itself"), ("ro/d", 1, "read-only"), ("ro/new", 1, "read-only"),
                               ("/proc/x", 6, "takes no files"), ("/sys/x", 6, "takes no files"), ("Repo:x", 2, "no kind"),
                               ("https:x", 2, "./https:x")):
            for words in (["put", db, "a=1", "--", "x=2"], ["put", "-n", db, "a=1", "--", "x=2"], ["remove", db, "--all", "--yes"],
                          ["import", db, "doc"]):
                if words[0] == "remove" and db in ("ro/new", "/proc/x", "/sys/x"):
                    continue  # there is nothing
                self.write("doc", '{"format":"ostrel-objects","version":2,"objects":[{"id":{"b":"1"},"props":{}}]}')
                done = self.with_mounts(script, *words)
                error = json.loads(done.stderr)["error"]
                self.assertEqual(done.returncode, code, error)
                self.assertIn(said, error["message"] + error["hint"], words)
        self.assertEqual(sorted(os.listdir(self.dir)), ["bound", "doc", "ro"])


@t.needs_root
class Enclaves(t.ToolTest):
    def setUp(self):
        super().setUp()
        self.env["MERIDON_ROOT"] = self.path("host")
        os.makedirs(self.path("host/run/enclaves"))
        os.makedirs(self.path("inside/etc"))
        self.write("host/run/enclaves/7", f"name=web\nroot={self.path('inside')}\nstate=running\n")

    def test_every_command_reaches_a_database_inside_an_enclave(self):
        here = ["-E", "web", "/etc/d"]
        self.assertEqual(self.tool("--json", "enclaves").json()["enclaves"],
                         [{"id": 7, "name": "web", "state": "running", "root": self.path("inside")}])
        self.assertEqual(self.text("enclaves"), f"7\tweb\trunning\t-\t{self.path('inside')}\n")
        self.write("host/run/enclaves/9", f"name=dead\nroot=/\nstate=running\nleader={os.getpid()}\nleader_start=1\n")
        self.assertEqual(self.text("enclaves").splitlines()[1], f"9\tdead\trunning\t{os.getpid()} (gone)\t/")
        for words in ([], ["--json"]):
            listed = subprocess.run([t.program("enclavectl"), "list", *words], env=self.env, capture_output=True).stdout
            self.assertIn(listed.strip(b"{}\n"), self.tool("enclaves", *words).out)
        self.tool("put", *here, "n=1", "--", "x=1")
        self.assertEqual(self.read("inside/etc/d"), b"n=1;\tx=string,1;\n")
        self.assertEqual(self.text("walk", "-E", "7", "/etc/d"), "n=1\tx=1\n")
        exported = self.tool("export", *here).out
        self.tool("import", "-E", "web", "/etc/e", stdin=exported)
        self.assertEqual(self.read("inside/etc/e"), self.read("inside/etc/d"))
        made = os.stat(self.path("inside/etc/e"))
        self.assertEqual((made.st_uid, made.st_gid, made.st_mode & 0o777), (17, 65, 0o644))
        self.tool("copy", *here, "outside")
        self.tool("diff", "outside", "/etc/d", "--other-enclave", "web")
        self.tool("check", *here)
        self.write("inside/etc/bad", "a=1;\tx\n")
        self.assertIn("/etc/bad:1: syntax", self.text("check", "-E", "web", "/etc/bad", code=10))
        os.mkfifo(self.path("inside/etc/fifo"))
        self.error(6, "check", "-E", "web", "/etc/fifo")
        self.assertEqual(self.error(4, "walk", "-E", "web", "/etc/none")["where"], "/etc/none")
        self.error(4, "get", *here, "n=2")
        self.assertIn("no enclave 8", self.error(4, "walk", "-E", "8", "/etc/d")["message"])
        self.tool("remove", *here, "--all", "--yes")
        self.assertFalse(os.path.exists(self.path("inside/etc/d")))

    def test_an_enclave_that_is_down_is_no_missing_file(self):
        self.write("host/run/enclaves/7", f"name=web\nroot={self.path('inside')}\nstate=down\n")
        for words in (["walk", "-E", "7", "/etc/d"], ["put", "-E", "7", "/etc/d", "n=1", "--", "x=1"]):
            error = self.error(1, *words)
            self.assertIn("ostrel enclaves", error["hint"])


if __name__ == "__main__":
    t.main()
