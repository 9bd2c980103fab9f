# Whole databases: export, import, copy, diff.
import json
import os
import signal
import subprocess
import time

import ostrel_tool as t


def document(*objects):
    return json.dumps({"format": "ostrel-objects", "version": 1, "objects": list(objects)}).encode()


def thing(name, **props):
    return {"id": {"name": name}, "props": {k: {"type": "string", "values": [v]} for k, v in props.items()}}


NASTY = (b"name=net0;zone=;\tmtu=uint32,-1;on=boolean,true,false;tags=string,a\\,b,,c\\;d,\\\\;none=int64;"
         b"big=uint64,-1,9007199254740992;small=int64,-9223372036854775808;\n"
         b"name=\xff\xfe;\traw\x80=string,\xc3\xa4,\xc3,\x01\t;\n"
         b"z=\xe2\x82\xac;a=2;m=3;\t\n")


class Documents(t.ToolTest):
    def test_export_and_import_keep_bytes_order_types_and_numbers(self):
        self.write("a", NASTY)
        exported = self.tool("export", "a").out
        parsed = json.loads(exported)
        self.assertEqual((parsed["format"], parsed["version"]), ("ostrel-objects", 2))
        first = parsed["objects"][0]["props"]
        self.assertEqual(list(first), ["mtu", "on", "tags", "none", "big", "small"])
        self.assertEqual(first["mtu"], {"type": "uint32", "values": [4294967295]})
        self.assertEqual(first["big"]["values"], ["18446744073709551615", 9007199254740992])
        self.assertEqual(first["small"]["values"], ["-9223372036854775808"])
        self.assertEqual(parsed["objects"][1]["id"], {"name": "\0fffe"})
        self.assertEqual(list(parsed["objects"][2]["id"]), ["z", "a", "m"])
        in_floats = json.dumps(json.loads(exported, parse_int=lambda digits: int(float(digits)))).encode()
        in_numbers = exported.replace(b'"18446744073709551615"', b"18446744073709551615").replace(b'version":2', b'version":1')
        for text in (in_floats, in_numbers, exported):
            self.tool("import", "--replace", "b", stdin=text)
            self.assertEqual(self.read("b"), NASTY)
            os.remove(self.path("b"))
        self.tool("import", "b", stdin=exported)
        self.assertEqual(self.tool("export", "b").out, exported)
        self.tool("diff", "a", "b")
        self.tool("copy", "a", "c")
        self.assertEqual(self.read("c"), NASTY)
        self.assertEqual(os.stat(self.path("b")).st_mode & 0o777, 0o644)
        self.write("empty", b"# nothing but this\n")
        self.tool("import", "d", stdin=self.tool("export", "empty").out)
        self.assertEqual(self.read("d"), b"")
        self.tool("diff", "empty", "d")
        self.error(4, "export", "missing")

    def test_import_updates_keeps_and_adds_like_single_updates(self):
        self.write("kept", "# kept\nname=one;\tx=string,1;\n")
        self.tool("import", "kept", stdin=document(thing("one", x="1")))
        self.assertEqual(self.read("kept"), b"# kept\nname=one;\tx=string,1;\n")
        self.write("a", "name=One;\tx=string,1;\n# comment\nname=two;\tx=string,2;\nname=three;\n")
        os.chmod(self.path("a"), 0o640)
        os.chown(self.path("a"), -1, 65534 if os.getuid() == 0 else -1)
        before = os.stat(self.path("a"))
        self.write("doc", document(thing("TWO", y="9"), thing("four"), thing("one", x="1")))
        told = self.tool("--json", "import", "a", "doc", "--force").json()
        self.assertEqual(told, {"dry_run": False, "added": 1, "replaced": 1, "unchanged": 1, "removed": 0, "refused": 0})
        self.assertEqual(self.read("a"), b"name=One;\tx=string,1;\nname=two;\ty=string,9;\nname=three;\t\nname=four;\t\n")
        told = self.tool("--json", "import", "a", "doc", "--replace").json()
        self.assertEqual((told["removed"], told["unchanged"]), (1, 3))
        self.assertEqual(self.read("a"), b"name=two;\ty=string,9;\nname=four;\t\nname=One;\tx=string,1;\n")
        self.tool("import", "a", "doc", "--case")
        self.assertEqual(self.read("a").count(b"\n"), 5)
        self.write("a.new", "left behind")  # open to somebody who may not read the database
        with open(self.path("a.new"), "rb") as strangers:
            self.tool("set", "a", "name=four", "--", "x=1")
            self.assertEqual(strangers.read(), b"left behind")
        after = os.stat(self.path("a"))
        self.assertEqual((after.st_mode, after.st_gid), (before.st_mode, before.st_gid))

    def test_a_bad_element_is_named_and_nothing_is_imported(self):
        before = self.write("a", "name=old;\t\n") and self.read("a")
        base = json.loads(document(thing("good", x="1"), thing("bad", x="1")))

        def changed(change):
            copy = json.loads(json.dumps(base))
            change(copy["objects"][1])
            return json.dumps(copy).encode()

        def prop(value):
            return changed(lambda o: o["props"].update(x=value))
        cases = [
            (prop({"type": "uint32", "values": [1, -1]}), "/objects/1/props/x/values/1"),
            (prop({"type": "int32", "values": [2147483648]}), "/objects/1/props/x/values/0"),
            (prop({"type": "int64", "values": [1.5]}), "/objects/1/props/x/values/0"),
            (prop({"type": "int64", "values": ["1.0"]}), "/objects/1/props/x/values/0"),
            (prop({"type": "boolean", "values": [1]}), "/objects/1/props/x/values/0"),
            (prop({"type": "string", "values": ["a\0b"]}), "/objects/1/props/x/values/0"),
            (prop({"type": "string", "values": ["\0f"]}), "/objects/1/props/x/values/0"),
            (prop({"type": "string", "values": ["a\nb"]}), "/objects/1"),
            (prop({"type": "float", "values": []}), "/objects/1/props/x/type"),
            (prop({"type": "string", "values": [], "value": ""}), "/objects/1/props/x"),
            (prop({"type": "string", "values": [], "more": 1}), "/objects/1/props/x/more"),
            (changed(lambda o: o.update(id={})), "/objects/1/id"),
            (changed(lambda o: o.update(id={"a": 1})), "/objects/1/id/a"),
            (changed(lambda o: o.update(id={"object-db-name": "/etc/passwd"})), "/objects/1"),
            (changed(lambda o: o.update(id={"name": "GOOD"})), "/objects/1"),
            (changed(lambda o: o["props"].update({"a/b~c": 1})), "/objects/1/props/a~1b~0c"),
            (document().replace(b"[]", b"[" * 1000 + b"]" * 1000), "/objects" + "/0" * 15),
            (document(thing("a")).replace(b'"props"', b'"id": {"name": "b"}, "props"'), "/objects/0/id"),
            (document().replace(b'"version": 1', b'"version": 3'), "/version"),
            (document().replace(b"ostrel-objects", b"something"), "/format"),
            (document().replace(b"{", b'{"more": 1,', 1), "/more"),
        ]
        for text, path in cases:
            with self.subTest(path, text=text[:200]):
                error = self.error(6, "import", "a", stdin=text)
                self.assertEqual(error["path"], path)
                self.assertEqual(self.read("a"), before)
        for text in (b"", b"{", b"[]", b"nonsense", b'{"format":"ostrel-objects","version":1}', b'"\xff"', b"\0",
                     document().replace(b'"version": 1', b'"version": 1e999')):
            with self.subTest(text=text):
                self.assertNotIn("exception", self.error(6, "import", "a", stdin=text)["message"])
        self.assertIn("line 2", self.error(6, "import", "a", stdin=b"{\n]")["message"])
        self.assertEqual(self.read("a"), before)
        self.assertEqual(os.listdir(self.dir), ["a"])
        self.error(4, "import", "a", "no-such-file")
        self.error(4, "import", "no/such/dir", stdin=document(thing("a")))

    def test_keep_going_takes_the_good_ones_and_tells_of_the_others(self):
        bad = thing("bad")
        bad["props"]["x"] = {"type": "int32", "values": ["no"]}
        self.assertIn("1 added", self.text("import", "-n", "a", stdin=document(thing("one"))))
        self.error(6, "import", "-n", "a", stdin=document(thing("one", x="a\nb")))
        self.assertEqual(os.listdir(self.dir), [])
        text = document(thing("one"), bad, thing("two", x="a\nb"), thing("ONE", y="2"), thing("three"))
        result = self.tool("--json", "import", "-k", "a", stdin=text, code=6)
        self.assertEqual((result.json()["added"], result.json()["refused"]), (2, 3))
        paths = [json.loads(line)["warning"]["path"] for line in result.err.decode().splitlines()]
        self.assertEqual(paths, ["/objects/1/props/x/values/0", "/objects/2", "/objects/3"])
        self.assertEqual(self.read("a"), b"name=one;\t\nname=three;\t\n")

    # Whether a process has come to its work, in which it catches the signal. It holds the database by then.
    def catches(self, pid, number):
        with open(f"/proc/{pid}/status") as status:
            caught = next(int(line.split()[1], 16) for line in status if line.startswith("SigCgt"))
        return caught >> (number - 1) & 1

    def test_a_killed_import_leaves_the_old_database(self):
        before = self.write("a", "name=old;\t\n") and self.read("a")
        many = document(*[thing(f"n{i}", x="1") for i in range(30000)])
        self.write("doc", many)
        killed = 0
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGKILL):
            child = subprocess.Popen([t.OSTREL, "import", "a", "doc"], cwd=self.dir, env=self.env,
                                     stderr=subprocess.PIPE)
            while child.poll() is None and not self.catches(child.pid, signal.SIGTERM):
                time.sleep(0.001)
            child.send_signal(number)
            child.communicate(timeout=60)
            self.assertEqual(os.path.exists(self.path("a.new")), number == signal.SIGKILL and child.returncode != 0)
            if child.returncode != 0:
                killed += 1
                self.assertEqual(self.read("a"), before)
        self.assertGreater(killed, 0)
        self.tool("import", "a", "doc")
        self.assertEqual(self.read("a").count(b"\n"), 30001)
        self.assertEqual(sorted(os.listdir(self.dir)), ["a", "doc"])

    def test_an_update_by_somebody_else_is_not_overwritten(self):
        self.write("a", "name=old;\t\n")
        self.write("doc", document(*[thing(f"n{i}", x="1") for i in range(40000)]))
        child = subprocess.Popen([t.OSTREL, "--json", "import", "a", "doc"], cwd=self.dir, env=self.env,
                                 stderr=subprocess.PIPE)
        self.addCleanup(child.stderr.close)
        while child.poll() is None and not os.path.exists(self.path("a.new")):
            time.sleep(0.01)
        self.write("other", "name=new;\t\n")
        os.rename(self.path("other"), self.path("a"))
        self.assertEqual(child.wait(60), 7)
        self.assertEqual(json.loads(child.stderr.read())["error"]["code"], 7)
        self.assertEqual(self.read("a"), b"name=new;\t\n")
        self.assertFalse(os.path.exists(self.path("a.new")))

    def test_commands_at_the_same_time_lose_nothing(self):
        self.write("a", b"n=0;\tx=string,0;\n")
        loops = [f"for i in 1 2 3 4 5 6 7 8; do {t.OSTREL} {words} || exit; done" for words in (
            "put a p=$i -- x=1", "set a n=0 -- x+=s$i", "set a n=0 -- x+=t$i",
            "import a doc$i", "rename a n=0 -- n=0", "put a r=$i -- x=1")]
        for i in range(1, 9):
            self.write(f"doc{i}", document({"id": {"q": str(i)}, "props": {}}))
        children = [subprocess.Popen(["sh", "-c", loop], cwd=self.dir, env=self.env) for loop in loops]
        self.assertEqual([child.wait(120) for child in children], [0] * len(children))
        there = sorted(line.split(b";")[0] for line in self.read("a").splitlines())
        self.assertEqual(there, sorted([b"n=0"] + [b"%c=%d" % (c, i) for c in b"pqr" for i in range(1, 9)]))
        values = self.tool("get", "a", "n=0", "-p", "x").out.split()
        self.assertEqual(sorted(values), sorted([b"0"] + [b"%c%d" % (c, i) for c in b"st" for i in range(1, 9)]))
        self.assertEqual(sorted(os.listdir(self.dir)), sorted(["a"] + [f"doc{i}" for i in range(1, 9)]))

    def test_a_long_import_shows_its_progress_on_a_terminal_alone(self):
        # Warnings that nobody reads for a while make it long.
        self.write("doc", document(*[thing(f"n{i}", x="1\n") for i in range(3000)]))

        def wait():
            while not os.path.exists(self.path("a.new")):
                time.sleep(0.01)
            time.sleep(1)
        self.assertIn(b" of 3000 (", self.on_terminal("import", "-k", "a", "doc", code=6, first=wait))
        self.assertNotIn(b" of 3000 (", self.tool("import", "-k", "b", "doc", code=6).err)

    def test_a_raw_file_is_exported_and_copied_line_by_line(self):
        self.write("raw", "# one\n\n  three\tx\n")
        objects = self.tool("export", "raw:raw").json()["objects"]
        self.assertEqual(objects[1], {"id": {"object-rawline": "line2"},
                                      "props": {"object-rawline": {"type": "string", "value": ""}}})
        self.assertEqual(objects[2]["props"]["object-rawline"]["value"], "  three\tx")
        self.write("raw", "# one\n  three\tx\n")
        self.tool("copy", "raw:raw", "a")
        self.tool("diff", "raw:raw", "a")
        self.error(8, "import", "raw:raw", stdin=document())
        self.error(8, "copy", "a", "raw:raw")
        self.error(6, "walk", "raw:raw", "object-rawline=line1")

    def test_diff_tells_every_kind_of_difference(self):
        self.write("a", "n=1;\tx=string,1;y=int32,1;\nn=2;\tx=string,1;\nn=3;\tp=int32,1;q=int32,2;\n")
        self.write("b", "n=4;\tx=string,1;\nn=3;\tq=int32,2;p=int64,1;\nn=1;\ty=int32,1;x=string,1;\n")
        found = self.tool("--json", "diff", "a", "b", code=10).json()["differences"]
        self.assertEqual([(d["kind"], d["id"]["n"]) for d in found], [("removed", "2"), ("changed", "3"), ("added", "4")])
        self.assertEqual(found[1]["props"], {"p": {"before": {"type": "int32", "values": [1]},
                                                   "after": {"type": "int64", "values": [1]}}})
        self.assertEqual(self.tool("diff", "a", "b", code=10).out.decode().splitlines(),
                         ["- n=2", "-   x:string=1", "  n=3", "-   p:int32=1", "+   p:int64=1", "+ n=4", "+   x:string=1"])
        self.write("c", "n=a;\nn=A;\n")
        self.write("d", "n=A;\n")
        self.assertEqual(len(self.tool("--json", "diff", "c", "d", code=10).json()["differences"]), 1)
        self.error(4, "diff", "a", "missing")


if __name__ == "__main__":
    t.main()
