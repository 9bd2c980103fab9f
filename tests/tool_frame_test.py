# What all tools have in common: how they begin, what they say and where, and how they end.
import json
import os
import re
import shutil
import subprocess

import ostrel_tool as t

TOOLS = {"ostrel": 1, "cairnctl": 8, "enclavectl": 8}  # the sections of their manual pages
SHELLS = ("bash", "zsh", "fish")


class Frame(t.ToolTest):
    def setUp(self):
        super().setUp()
        self.env["MERIDON_ROOT"] = self.dir
        os.makedirs(self.path("run/enclaves"))

    def each(self):
        for name in TOOLS:
            self.command = [t.program(name)]
            yield name

    # The commands with their other names, as help lists them.
    def commands(self):
        listed = re.findall(r"^  (\w[\w, -]*?)  +\w", self.text("--help").partition("Subcommands:")[2], re.M)
        return [names.split(", ") for names in listed]

    def test_each_command_has_help_and_stands_in_the_manual_page_with_all_its_options(self):
        for name in self.each():
            page = os.path.join(t.SOURCE, "docs", "man", f"{name}.{TOOLS[name]}")
            with open(page) as f:
                text = f.read().replace("\\-", "-")
            self.assertGreater(len(self.commands()), 6)
            for names in self.commands():
                self.assertRegex(text, rf"(?m)^\.It (Ic|Cm) .*\b{names[0]}\b")
                for word in names:
                    shown = self.text(word, "--help")
                    self.assertIn(f"Usage: {name} {names[0]} ", shown)
                    for option in re.findall(r"^ .*--([\w-]+)", shown, re.M):
                        self.assertIn(f" -{option}", text + " -help", f"{word} --{option}")
            listed = re.findall(r"\d+", self.text("--help").partition("Exit codes:")[2].partition(".\n")[0])
            self.assertEqual(listed, re.findall(r"\b\d+\b", text.partition("EXIT STATUS")[2].partition(".Sh")[0].replace("2n", "")))
            if shutil.which("mandoc"):
                done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True)
                self.assertEqual((done.returncode, done.stdout), (0, b""))

    def test_the_same_words_mean_the_same(self):
        for name in self.each():
            words = [word for names in self.commands() for word in names]
            for word in ("list", "show", "remove", "completion", "version"):
                self.assertIn(word, words)
            self.assertRegex(self.text("version"), rf"^{name} \d+\.\d+\.\d+\n$")
            self.assertEqual(self.text("--version"), self.text("version"))
            for json_too in (["--json", "version"], ["version", "--json"]):
                self.assertEqual(f"{name} {self.tool(*json_too).json()['version']}\n", self.text("version"))

    def test_output_that_cannot_be_written_is_a_failure_and_a_closed_pipe_an_end(self):
        self.write("d", "n=a;\tx=int32,1;\n" * 3)
        for name in self.each():
            for words in [["version"], ["--help"], ["completion", "bash"], ["version", "--json"]] + (
                    [["walk", "d"], ["export", "d"], ["walk", "d", "--json"]] if name == "ostrel" else []):
                done = subprocess.run(["bash", "-c", '"$@" >/dev/full', "sh", *self.command, *words], capture_output=True, cwd=self.dir)
                self.assertEqual(done.returncode, 1, words)
                self.assertIn(b"can't be written", done.stderr)
                script = '"$@" 2>err | true; echo ${PIPESTATUS[0]}; exec "$@" <&- >&- 2>&-'
                done = subprocess.run(["bash", "-c", script, "sh", *self.command, *words], capture_output=True, cwd=self.dir)
                self.assertIn(done.stdout, (b"141\n", b"0\n"))  # of the signal, or it was written in time
                self.assertEqual((self.read("err"), done.returncode), (b"", 1))

    def test_colour_is_for_terminals_that_want_it(self):
        self.write("d", "n=a;\tx=int32,1;\n")
        self.assertIn(b"\x1b[1m", self.on_terminal("walk", "d"))
        for name in self.each():
            self.assertIn(b"\x1b[1;31merror", self.on_terminal("frob", code=2))
            for variable, value in (("NO_COLOR", "1"), ("TERM", "dumb")):
                before = dict(self.env)
                self.env[variable] = value
                self.assertNotIn(b"\x1b", self.on_terminal("frob", code=2))
                if name == "ostrel":
                    self.assertNotIn(b"\x1b", self.on_terminal("walk", "d"))
                self.env = before


class Completion(t.ToolTest):
    def test_scripts_parse_and_know_every_command(self):
        for name in TOOLS:
            self.command = [t.program(name)]
            for shell in SHELLS:
                script = self.tool("completion", shell).out
                for word in (name, "completion", "remove", "show", "list"):
                    self.assertIn(word.encode(), script)
                if shutil.which(shell):
                    done = subprocess.run([shell, "-n", self.write("script", script)], capture_output=True)
                    self.assertEqual((done.returncode, done.stderr), (0, b""), shell)


if __name__ == "__main__":
    t.main()
