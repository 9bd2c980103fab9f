# What is wrong with a file: the findings of check, and paths that aren't plain files.
import os
import resource
import subprocess

import ostrel_tool as t


class Check(t.ToolTest):
    def findings(self, *words, code=10):
        return [(f.get("line", 0), f["kind"], f["message"])
                for f in self.tool("--json", "check", "d", *words, code=code).json()["findings"]]

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
            (b"ok=1;\t", "doubled", "line 2"),
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
        # Carriage returns, other case and a temporary file; and what is no fault.
        os.symlink("elsewhere", self.path("d.new"))
        longest = b"a=1;\t" + b"".join(b"p%d=string,%s;" % (i, b"x" * 480) for i in range(4))
        for content, kinds, case_kinds in (
                (b"a=1;\tx=int32,1;\r\nb=1;\t\nB=1;\t\nb=1;c=2;\t\nb=1;\t\n", [(1, "crlf"), (1, "syntax"), (5, "doubled")],
                 [(1, "crlf"), (1, "syntax"), (5, "doubled")]),
                (b"b=1;\nb=X;\nB=1;\nb=x;\n", [(4, "doubled")], []),
                (longest + b"q=string," + b"y" * (2046 - len(longest) - 10) + b";\n", [], []),
                (b"# comment\n\n  a=1;\tx=uint32,-1,4294967295;y=BOOLEAN,TRUE;z=string,,\\,;e=int32;\n"
                 b"a=2;\na=3\na=4;\tx=uint64,-1;s=string,a\tb\xff;", [], [])):
            self.write("d", content)
            for words, wanted in (((), kinds), (("--case",), case_kinds)):
                found = self.findings(*words)
                self.assertEqual([(n, k) for n, k, _ in found], wanted + [(0, "temporary")])
                self.assertIn("isn't a plain file", found[-1][2])
        os.remove(self.path("d.new"))
        self.assertEqual(self.text("check", "d"), "")

    # A line that is read but can't be written again stands in the way of every update: the hint of the one that fails
    # leads here.
    def test_lines_that_no_update_can_write_back_are_found(self):
        almost = b"a=1;\t" + b"".join(b"p%d=string,%s;" % (i, b"x" * 480) for i in range(4))
        for bad, good, told in (
                (b"a=" + b"v" * 253 + b";\t", b"a=" + b"v" * 252 + b";\t", "255 bytes"),
                (b"a=1;\tx=string," + b"w" * 512 + b";", b"a=1;\tx=string," + b"w" * 511 + b";", "property x"),
                (b"a=1;\ty=int32,1;x=string,a," + b"\\;" * 256, b"a=1;\tx=string," + b"\\;" * 255, "property x"),
                (b"b=1;a=1\\", b"b=1;a=1\\\\", "backslash"),
                (b"a\\", b"a\\b", "backslash"),
                (almost + b"q=string," + b"y" * (2038 - len(almost)), almost + b"q=string," + b"y" * (2036 - len(almost)),
                 "2047 bytes")):
            with self.subTest(told):
                self.write("d", b"ok=1;\t\n" + good)
                self.assertEqual(self.findings(code=0), [])
                self.tool("put", "d", "ok=1", "--force", "--", "x=1")
                self.write("d", b"ok=1;\t\n" + bad)
                found = self.findings()
                self.assertEqual([(n, k) for n, k, _ in found], [(2, "unwritable")])
                self.assertIn(told, found[0][2])
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

    def test_directories_and_devices(self):
        os.mkdir(self.path("dir"))
        self.assertEqual(self.text("walk", "/dev/null"), "")
        for line, word in (("walk dir", "irectory"), ("get dir a=1", "irectory"), ("export dir", "irectory"),
                           ("check dir", "irectory"), ("walk raw:dir", "irectory"), ("walk /dev/zero", ""),
                           ("check /dev/zero", ""), ("check raw:/dev/zero", "")):
            with self.subTest(line):
                error = self.error(6, *line.split())
                self.assertIn(word, error["message"])
                self.assertIn(line.split()[1], error["where"])
        self.refused("dir", "directory")
        self.refused("/dev/null", "device")
        self.assertEqual(os.listdir(self.dir), ["dir"])

    def test_fifos_and_process_substitutions_can_be_read_but_not_updated(self):
        os.mkfifo(self.path("fifo"))
        feeder = self.start("sh", "-c", "echo 'a=1;\tx=int32,5;' >fifo")
        self.assertEqual(self.text("walk", "fifo"), "a=1\tx=5\n")
        feeder.wait(60)
        self.refused("fifo", "FIFO")
        script = f"{t.OSTREL} walk <(echo a=1); {t.OSTREL} check <(echo a=1); {t.OSTREL} put <(echo a=1) a=1 -- x=1"
        done = subprocess.run(["bash", "-c", script], cwd=self.dir, capture_output=True, timeout=60)
        self.assertEqual((done.stdout, done.returncode), (b"a=1\n", 6))
        self.assertIn(b"FIFO", done.stderr)

    @t.unittest.skipIf(t.sanitized(), "sanitizers take memory of their own")
    def test_a_line_without_end_takes_no_memory(self):
        self.write("d", b"a=1;\t\n" + b"x" * (200 << 20) + b"\0\nb=1;\t\nb=1;")
        limit = lambda: resource.setrlimit(resource.RLIMIT_AS, (100 << 20, 100 << 20))
        for name, found in (("d", [(2, "long"), (4, "doubled")]), ("raw:d", [(2, "nul")])):
            findings = self.tool("--json", "check", name, code=10, preexec_fn=limit).json()["findings"]
            self.assertEqual([(f["line"], f["kind"]) for f in findings], found)
            self.assertIn(str((200 << 20) + 2) if name == "d" else "NUL", findings[0]["message"])
        self.assertIn("would drop 1 line", self.error(6, "put", "d", "c=1", "--", "x=1", preexec_fn=limit)["message"])

    # An update would put a file in the place of the link.
    def test_links(self):
        os.symlink("nowhere", self.path("dangling"))
        self.assertIn("nowhere", self.error(4, "walk", "dangling")["message"])
        self.write("real", "a=1;\t\n")
        os.symlink("real", self.path("link"))
        self.assertEqual(self.text("walk", "link"), "a=1\n")
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
        for code, line, said in (
                (4, "walk none", "no such file"), (4, "walk none/none", "no directory"), (2, "walk file:", "needs a name"),
                (4, "put none/none a=1 -- x=1", "no directory"), (6, "walk " + "x" * 1024, "1024 bytes"),
                (11, "walk hatch:/run/nothing-serves-here", "no server"), (11, "walk repo:x", "no repository"),
                (4, "walk -E no-such-enclave x", "no enclave"), (2, "walk -E 10000 x", "numbers"),
                (2, "walk ftp:x", "write file:PATH, raw:PATH, repo:LOCATOR or hatch:PATH")):
            with self.subTest(line):
                error = self.error(code, *line.split())
                self.assertIn(said, error["message"] + error.get("hint", ""))
        self.error(2, "walk", "")
        self.write("repo:x", "a=1;\t\n")
        self.assertEqual(self.text("walk", "./repo:x"), self.text("walk", "file:repo:x"))

    @t.unittest.skipUnless(os.getuid() == 0, "needs root, to become somebody else")
    def test_a_file_of_somebody_else(self):
        t.install_tool(type(self))
        os.chmod(self.dir, 0o755)
        self.write("d", "a=1;\t\n")
        before = self.read("d")
        self.assertEqual(self.as_user("nobody", "walk", "d").out, b"a=1\n")
        for words in (["put", "d", "a=1", "--", "x=1"], ["import", "d"], ["remove", "d", "--all", "--yes"]):
            error = self.user_error("nobody", 3, *words, stdin=t.document(({"b": "1"}, {})))
            self.assertIn("ermission", error["message"])
        os.chmod(self.path("d"), 0o600)
        self.assertIn("ls -ld", self.user_error("nobody", 3, "walk", "d")["hint"])
        # The file stays its owner's, though somebody else may replace it.
        os.chown(self.dir, 65534, 65534)
        os.chmod(self.path("d"), 0o644)
        for words in (["put", "d", "a=1", "--", "x=1"], ["set", "d", "a=1", "--", "x=1"], ["remove", "d", "a=1"]):
            self.assertIn("belongs to user 0", self.user_error("nobody", 3, *words)["message"])
        self.assertEqual((self.read("d"), os.listdir(self.dir)), (before, ["d"]))


if __name__ == "__main__":
    t.main()
