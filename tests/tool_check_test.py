# What check finds, against what the library reads, and in files that are large.
import os
import resource

import ostrel_tool as t


class Check(t.ToolTest):
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
            found = [f["kind"] for f in self.run_tool("--json", "check", "d").json()["findings"]]
            stripped = line.lstrip(b" \t\v\f\r").split(b"\0")[0]
            object_line = bool(stripped) and not stripped.startswith(b"#")
            with self.subTest(line[:80]):
                self.assertEqual(read == 0, not object_line or "syntax" in found or "long" in found)

    @t.unittest.skipIf(t.sanitized(), "sanitizers take memory of their own")
    def test_a_line_without_end_takes_no_memory(self):
        self.write("d", b"a=1;\t\n" + b"x" * (200 << 20) + b"\0\nb=1;\t\nb=1;")
        limit = lambda: resource.setrlimit(resource.RLIMIT_AS, (100 << 20, 100 << 20))
        for name, found in (("d", [(2, "long"), (4, "doubled")]), ("raw:d", [(2, "nul")])):
            findings = self.tool("--json", "check", name, code=10, preexec_fn=limit).json()["findings"]
            self.assertEqual([(f["line"], f["kind"]) for f in findings], found)
            self.assertIn(str((200 << 20) + 2) if name == "d" else "NUL", findings[0]["message"])
        self.assertIn("would drop 1 line", self.error(6, "put", "d", "c=1", "--", "x=1", preexec_fn=limit)["message"])


if __name__ == "__main__":
    t.main()
