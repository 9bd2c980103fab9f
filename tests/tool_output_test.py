# What the tool prints to terminals, and where there is no memory.
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

    def test_the_list_of_enclaves_has_a_head(self):
        self.env["MERIDON_ROOT"] = self.dir
        self.command = [t.program("enclavectl")]
        os.makedirs(self.path("run/enclaves"))
        self.write("run/enclaves/6", "name=old\nroot=/\nstate=down\n")
        self.assertEqual(self.plain("list"), "ID  NAME  STATE  LEADER  ROOT\n6   old   down   -       /\n")

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
    def test_running_out_of_memory_ends_with_its_code(self):
        self.write("d", "".join(f"n={i};\tx=string,{'y' * 400};\n" for i in range(100000)))
        if t.sanitized():
            self.skipTest("sanitizers need more memory than this test leaves")
        script = f"ulimit -v 60000; exec {t.OSTREL} --json walk d --sort n"
        done = subprocess.run(["bash", "-c", script], cwd=self.dir, capture_output=True, timeout=60)
        self.assertEqual((done.returncode, done.stdout), (9, b""), done.stderr)
        self.assertEqual(json.loads(done.stderr)["error"]["name"], "memory")


if __name__ == "__main__":
    t.main()
