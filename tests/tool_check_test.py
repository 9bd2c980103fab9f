# What is wrong with a file: the findings of check, and paths that aren't plain files.
import os
import resource
import subprocess
import threading

import ostrel_tool as t


class Check(t.ToolTest):
    def findings(self, name="d", code=10):
        return [(f.get("line", 0), f["kind"], f["message"])
                for f in self.tool("--json", "check", name, code=code).json()["findings"]]

    def test_an_update_that_would_drop_a_line_is_refused_and_says_which(self):
        good = b"# kept as it may\na=1;\tx=int32,1;\n"
        for damage in (b"b=2;\tx=int32,2;\r\n", b"b=2;\tx=float,2;\n", b"b=2\0;\tx=int32,2;\n",
                       b"b=2;\tx=string," + b"y" * 1000000 + b";\n"):
            content = good + damage + b"c=3;\tx=int32,3;"
            self.write("d", content)
            for words in (("put", "d", "z=1", "--", "x=1"), ("set", "d", "a=1", "--", "x=2"), ("unset", "d", "a=1", "--", "x"),
                          ("rename", "d", "a=1", "--", "a=2"), ("remove", "d", "a=1"), ("copy", "other", "d")):
                self.write("other", b"q=1;\tx=int32,1;\n")
                error = self.tool("--json", *words, code=6).error()
                self.assertIn("would drop 1 line that can't be read", error["message"])
                self.assertEqual(error["line"], 3)
                self.assertIn("ostrel check", error["hint"])
                self.assertEqual(self.read("d"), content)
            self.assertIn("1 line can't be read", self.tool("walk", "d").err.decode())
        for words in (["export", "d"], ["copy", "d", "copy"], ["diff", "d", "copy"]):
            self.assertEqual(self.tool(*words).err.count(b"1 line can't be read"), 1, words)
        # Comments and lines in another form go knowingly alone.
        self.write("e", b"# comment\n\n  a=1;\tx=INT32,7;\nb=2\n" + damage)
        loss = "drop 1 line that can't be read, drop 2 comments or empty lines and rewrite 2 lines"
        self.assertIn("would " + loss, self.error(6, "put", "-n", "e", "c=3", "--", "x=1")["message"])
        self.assertIn("will " + loss, self.tool("put", "e", "c=3", "--force", "--", "x=1").err.decode())
        self.assertEqual(self.read("e"), b"a=1;\tx=int32,7;\nb=2;\t\nc=3;\tx=string,1;\n")
        self.tool("copy", "other", "d", "--replace")
        self.assertEqual(self.read("d"), self.read("other"))

    def test_sound_files_have_no_findings(self):
        self.write("d", b"# comment\n\n  a=1;\tx=uint32,-1,4294967295;y=BOOLEAN,TRUE;z=string,,\\,;e=int32;\n"
                        b"a=2;\na=3\na=4;\tx=uint64,-1;s=string,a\tb\xff;")
        self.assertEqual(self.findings(code=0), [])
        self.assertEqual(self.text("check", "d"), "")
        longest = b"a=1;\t" + b"".join(b"p%d=string,%s;" % (i, b"x" * 480) for i in range(4))
        self.write("long", longest + b"q=string," + b"y" * (2046 - len(longest) - 10) + b";\n")
        self.assertEqual(len(self.read("long")), 2047)
        self.assertEqual(self.findings("long", code=0), [])

    def test_each_fault_is_found_on_its_line(self):
        cases = [
            (b"a=1;\tx;", "syntax", "'x' has no type"),
            (b"a=1;\tx=;", "syntax", "'x' has no type"),
            (b"a=1;\tx=float,1;", "syntax", "'float'"),
            (b"a=1;\tx=boolean,yes;", "syntax", "neither true nor false"),
            (b"a=1;\tx=int32,1;;y=int32,2;", "syntax", "empty property"),
            (b"object-db-name=x;\t", "syntax", "object-db-name"),
            (b"a=1;\tx=int32,abc;", "number", "abc"),
            (b"a=1;\tx=int32,,5;", "number", "''"),
            (b"a=1;\tx=uint32,4294967296;", "number", "4294967296"),
            (b"a=1;\tx=int32,2147483648;", "number", "2147483648"),
            (b"a=1;\tx=uint64,18446744073709551615;", "number", "18446744073709551615"),
            (b"a=1;a=2;\t", "repeated", "twice"),
            (b"a=1;\tx=int32,1;x=int32,2;", "repeated", "twice"),
            (b"a=1;;b=2;\t", "identifier", "''"),
            (b"a=1; ", "identifier", "' '"),
            (b"a=1;\tx=string,a\0b;", "nul", "column 16"),
            (b"a=1;\tx=string," + b"y" * 2100 + b";", "long", "bytes"),
        ]
        for line, kind, told in cases:
            with self.subTest(line[:60]):
                self.write("d", b"# first\nok=1;\t\n" + line + b"\nok=2;\t\n")
                found = self.findings()
                self.assertEqual([(n, k) for n, k, _ in found], [(3, kind)])
                self.assertIn(told, found[0][2])
        self.assertTrue(self.tool("check", "d", code=10).out.startswith(b"d:3: long: "))

    def test_carriage_returns_doubled_objects_and_a_temporary_file(self):
        self.write("d", b"a=1;\tx=int32,1;\r\nb=1;\t\nB=1;\t\nb=1;c=2;\t\nb=1;\t\n")
        os.symlink("elsewhere", self.path("d.new"))
        found = self.findings()
        self.assertEqual([(n, k) for n, k, _ in found],
                         [(1, "crlf"), (1, "syntax"), (5, "doubled"), (0, "temporary")])
        self.assertIn("line 2", found[2][2])
        self.assertIn("isn't a plain file", found[3][2])
        self.write("e", b"b=1;\nb=X;\nB=1;\nb=x;\n")
        self.assertEqual([(n, k) for n, k, _ in self.findings("e")], [(4, "doubled")])
        self.tool("check", "--case", "e")

    # A line that is read but can't be written again stands in the way of every update: the hint of the one that fails
    # leads here.
    def test_lines_that_no_update_can_write_back_are_found(self):
        almost = b"a=1;\t" + b"".join(b"p%d=string,%s;" % (i, b"x" * 480) for i in range(4))
        cases = [
            (b"a=" + b"v" * 253 + b";\t", b"a=" + b"v" * 252 + b";\t", "255 bytes"),
            (b"a=1;\tx=string," + b"w" * 512 + b";", b"a=1;\tx=string," + b"w" * 511 + b";", "property x"),
            (b"a=1;\ty=int32,1;x=string,a," + b"\\;" * 256 + b";", b"a=1;\tx=string," + b"\\;" * 255 + b";", "property x"),
            (b"b=1;a=1\\", b"b=1;a=1\\\\", "backslash"),
            (b"a\\", b"a\\b", "backslash"),
            (almost + b"q=string," + b"y" * (2047 - len(almost) - 9), almost + b"q=string," + b"y" * (2047 - len(almost) - 11),
             "2047 bytes"),
        ]
        for bad, good, told in cases:
            with self.subTest(told):
                self.write("d", b"ok=1;\t\n" + good)
                self.assertEqual(self.findings(code=0), [])
                self.tool("put", "d", "ok=1", "--force", "--", "x=1")
                self.write("d", b"ok=1;\t\n" + bad)
                self.assertEqual([(n, k) for n, k, _ in self.findings()], [(2, "unwritable")])
                self.assertIn(told, self.findings()[0][2])
                self.assertIn("ostrel check", self.error(6, "put", "d", "ok=1", "--", "x=1")["hint"])

    # What check says isn't read must be just what the library doesn't read.
    def test_check_and_the_library_agree_about_lines(self):
        corpus = os.path.join(t.SOURCE, "tests", "golden", "lines")
        lines = [b"a=1;\tx;", b"a=1", b"a=1;\tx=string,a\\;", b"#x", b"\t#x", b"a=1;\tx=boolean,TRUE;", b"a=1;\t;", b";",
                 b"a=1;\tx=INT32,1", b"=1;\tx=int32,1;", b"a=1;\tx=int32,1;\r", b"x" * 3000, b"a\\;b=1;\tx=int32"]
        for folder, _, names in os.walk(corpus):
            for name in names:
                with open(os.path.join(folder, name), "rb") as f:
                    lines += f.read().split(b"\n")
        for line in lines:
            self.write("d", line + b"\n")
            read = len(self.tool("walk", "d", "--json").json()["objects"])
            found = [k for _, k, _ in self.findings(code=self.run_tool("check", "d").code)]
            stripped = line.lstrip(b" \t\v\f\r").split(b"\0")[0]
            object_line = bool(stripped) and not stripped.startswith(b"#")
            with self.subTest(line[:80]):
                self.assertEqual(read == 0, not object_line or "syntax" in found or "long" in found)

    def test_several_databases_are_checked_though_one_cannot_be(self):
        self.write("a", b"x;\ty;\n")
        self.write("raw", b"a\0b\n# fine\n")
        result = self.tool("--json", "check", "missing", "a", "raw:raw", ".", code=6)
        self.assertEqual([f["kind"] for f in result.json()["findings"]], ["syntax", "nul"])
        self.assertEqual(len(result.err.splitlines()), 2)


class OddPaths(t.ToolTest):
    # Refused as an update, with the file untouched and a word that names the kind.
    def refused(self, name, word):
        for words in (["put", name, "a=1", "--", "x=1"], ["remove", name, "--all", "--yes"], ["import", name]):
            with self.subTest(words):
                self.assertIn(word, self.error(6, *words)["message"])

    def test_directories(self):
        os.mkdir(self.path("dir"))
        for words in (["walk", "dir"], ["get", "dir", "a=1"], ["export", "dir"], ["check", "dir"], ["walk", "raw:dir"]):
            with self.subTest(words):
                self.assertIn("irectory", self.error(6, *words)["message"])
        self.refused("dir", "directory")
        self.assertEqual(os.listdir(self.dir), ["dir"])

    def test_fifos_and_process_substitutions_can_be_read_but_not_updated(self):
        os.mkfifo(self.path("fifo"))

        def feed():
            with open(self.path("fifo"), "wb") as f:
                f.write(b"a=1;\tx=int32,5;\n")
        feeder = threading.Thread(target=feed)
        feeder.start()
        self.assertEqual(self.text("walk", "fifo"), "a=1\tx=5\n")
        feeder.join()
        self.refused("fifo", "FIFO")
        script = f"{t.OSTREL} walk <(echo a=1); {t.OSTREL} check <(echo a=1); {t.OSTREL} put <(echo a=1) a=1 -- x=1"
        done = subprocess.run(["bash", "-c", script], cwd=self.dir, capture_output=True, timeout=60)
        self.assertEqual((done.stdout, done.returncode), (b"a=1\n", 6))
        self.assertIn(b"FIFO", done.stderr)

    def test_devices(self):
        self.assertEqual(self.text("walk", "/dev/null"), "")
        self.refused("/dev/null", "device")
        for words in (["walk", "/dev/zero"], ["check", "/dev/zero"], ["check", "raw:/dev/zero"]):
            with self.subTest(words):
                self.assertIn("/dev/zero", self.error(6, *words)["where"])

    @t.unittest.skipIf(t.sanitized(), "sanitizers take memory of their own")
    def test_a_line_without_end_takes_no_memory(self):
        self.write("d", b"a=1;\t\n" + b"x" * (200 << 20) + b"\0\nb=1;\t\nb=1;")
        limit = lambda: resource.setrlimit(resource.RLIMIT_AS, (100 << 20, 100 << 20))
        findings = self.tool("--json", "check", "d", code=10, preexec_fn=limit).json()["findings"]
        self.assertEqual([(f["line"], f["kind"]) for f in findings], [(2, "long"), (4, "doubled")])
        self.assertIn(str((200 << 20) + 2), findings[0]["message"])
        findings = self.tool("--json", "check", "raw:d", code=10, preexec_fn=limit).json()["findings"]
        self.assertEqual([(f["line"], f["kind"]) for f in findings], [(2, "nul")])
        self.assertIn("would drop 1 line", self.error(6, "put", "d", "c=1", "--", "x=1", preexec_fn=limit)["message"])

    def test_links(self):
        os.symlink("nowhere", self.path("dangling"))
        error = self.error(4, "walk", "dangling")
        self.assertIn("nowhere", error["message"])
        self.write("real", "a=1;\t\n")
        os.symlink("real", self.path("link"))
        self.assertEqual(self.text("walk", "link"), "a=1\n")
        # An update would put a file in the place of the link.
        self.refused("link", "link to real")
        self.refused("dangling", "link to nowhere")
        self.assertEqual(sorted(os.listdir(self.dir)), ["dangling", "link", "real"])
        os.symlink("loop", self.path("loop"))
        self.assertIn("symbolic links", self.error(1, "walk", "loop")["message"])

    def test_what_keeps_an_update_from_being_made(self):
        self.write("d", "a=1;\t\n")
        self.write("other", "mine\n")
        os.link(self.path("other"), self.path("d.new"))
        for words in (["put", "d", "b=1", "--", "x=1"], ["rename", "d", "a=1", "--", "a=2"], ["remove", "d", "a=1"]):
            self.assertIn("d.new is in the way", self.error(6, *words)["message"])
        self.assertEqual((self.read("d"), self.read("other")), (b"a=1;\t\n", b"mine\n"))
        deep = "/".join(["x" * 200] * 5)
        os.makedirs(self.path(deep))
        self.tool("put", deep + "/" + "y" * 14, "a=1", "--", "x=1")
        self.assertIn("too long", self.error(6, "put", deep + "/" + "y" * 15, "a=1", "--", "x=1")["message"])

    def test_missing_things_are_told_apart(self):
        self.assertIn("no such file", self.error(4, "walk", "none")["message"])
        self.assertIn("no directory", self.error(4, "walk", "none/none")["message"])
        self.assertIn("no directory", self.error(4, "put", "none/none", "a=1", "--", "x=1")["message"])
        self.error(2, "walk", "")
        self.error(2, "walk", "file:")
        self.error(6, "walk", "x" * 1024)
        self.error(11, "walk", "hatch:/run/nothing-serves-here")
        self.assertIn("no repository", self.error(11, "walk", "repo:x")["message"])
        self.write("repo:x", "a=1;\t\n")
        self.assertEqual(self.text("walk", "./repo:x"), self.text("walk", "file:repo:x"))
        self.error(4, "walk", "-E", "no-such-enclave", "x")
        self.error(2, "walk", "-E", "10000", "x")

    @t.unittest.skipUnless(os.getuid() == 0, "needs root, to become somebody else")
    def test_a_file_of_somebody_else(self):
        os.chmod(self.dir, 0o755)
        self.write("d", "a=1;\t\n")
        before = self.read("d")
        drop = {"user": 65534, "group": 65534, "extra_groups": []}
        self.assertEqual(self.text("walk", "d", **drop), "a=1\n")
        for words in (["put", "d", "a=1", "--", "x=1"], ["import", "d"], ["remove", "d", "--all", "--yes"]):
            text = b'{"format":"ostrel-objects","version":1,"objects":[{"id":{"b":"1"},"props":{}}]}'
            self.assertIn("ermission", self.error(3, *words, stdin=text, **drop)["message"])
        os.chmod(self.path("d"), 0o600)
        error = self.error(3, "walk", "d", **drop)
        self.assertIn("ls -ld", error["hint"])
        # The file stays its owner's, though somebody else may replace it.
        os.chown(self.dir, 65534, 65534)
        os.chmod(self.path("d"), 0o644)
        for words in (["put", "d", "a=1", "--", "x=1"], ["set", "d", "a=1", "--", "x=1"], ["remove", "d", "a=1"]):
            self.assertIn("belongs to user 0", self.error(3, *words, **drop)["message"])
        self.assertEqual(self.read("d"), before)
        self.assertEqual(os.listdir(self.dir), ["d"])


if __name__ == "__main__":
    t.main()
