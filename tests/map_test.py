"""The map leads where it says: every file, function and type that docs/architecture.md names is there, each step of a path
in the file that stands in that step, and a source's divisions are those that its head lists."""

import pathlib
import re
import sys
import unittest

SOURCE = pathlib.Path(sys.argv[2])
ROOMS = ("common", "live", "platform", "repository", "tools", "tests", "tracing", "bench", "fuzz", "examples", "scripts")
FILES = [path for room in ROOMS for path in sorted((SOURCE / room).rglob("*")) if path.is_file()]
CODE = {path: path.read_text() for path in FILES if path.suffix in (".cc", ".h")}
MAP = (SOURCE / "docs/architecture.md").read_text()


def tokens(text):
    return re.findall(r"`([^`\n]+)`", text)


def files_named(name):
    return [path for path in FILES + list((SOURCE / "docs").rglob("*")) if f"/{path.relative_to(SOURCE)}".endswith("/" + name)]


def holds(path, name):
    """Whether a source declares or defines a function, a type or a member of that name outside of its comments; of a member,
    also its class."""
    code = re.sub(r"//.*|/\*.*?\*/", "", CODE[path])
    return all(re.search(rf"\b{re.escape(part)}\b", code) for part in name.split("::"))


def steps():
    """Each numbered step of the map with the sources that it names, or else those of the step before."""
    section, sources = "", []
    for paragraph in re.split(r"\n(?=\d+\. |## )|\n\n", MAP):
        if paragraph.startswith("## "):
            section, sources = paragraph.splitlines()[0], []
        if not re.match(r"\d+\. ", paragraph):
            continue
        named = [word for word in tokens(paragraph) if re.fullmatch(r"[\w/.]+\.(cc|h)", word)]
        sources = [path for word in named for path in files_named(word)] or sources
        yield f"{section}: {paragraph.splitlines()[0]}", paragraph, sources


class Map(unittest.TestCase):
    def test_every_file_and_name_is_there(self):
        words = set(re.findall(r"\w+", "\n".join(path.read_text(errors="replace") for path in FILES)))
        for word in set(tokens(MAP)):
            if re.fullmatch(r"[\w./*-]+\.(cc|h|py|sh|map|md|bt|7)", word):
                found = files_named(word) or list(SOURCE.glob(word))
                self.assertTrue(found, f"no file {word}")
            elif re.fullmatch(r"[\w/-]+/", word):
                self.assertTrue((SOURCE / word).is_dir() or (SOURCE / "platform" / word).is_dir(), f"no folder {word}")
            elif name := re.fullmatch(r"([A-Za-z_]\w*(?:::\w+)*)(\(\))?", word):
                for part in name[1].split("::"):
                    self.assertIn(part, words, f"nothing is called {word}")

    def test_each_step_of_a_path_is_in_its_file(self):
        counted = 0
        for where, text, sources in steps():
            for word in tokens(text):
                if name := re.fullmatch(r"([A-Za-z_]\w*(?:::\w+)*)\(\)", word):
                    self.assertTrue(any(holds(path, name[1]) for path in sources),
                                    f"{where}\n{word} isn't in {[path.name for path in sources]}")
                    counted += 1
        self.assertGreater(counted, 30)

    def test_each_source_of_the_library_has_its_layer(self):
        table = MAP.partition("## Layers of the library")[2].partition("\n## ")[0]
        listed = {word for word in tokens(table) if word.startswith("libostrel")}
        sources = [path for path in CODE if path.parent == SOURCE / "common" and path.suffix == ".cc"]
        self.assertTrue(sources)
        for path in sources:
            families = {name for name in listed if name.endswith(".h") and path.stem.startswith(name[:-len(".h")] + "_")}
            self.assertTrue(path.name in listed or f"{path.stem}.h" in listed or families, f"{path.name} stands in no layer of the map")

    def test_the_divisions_of_a_source_are_those_of_its_head(self):
        for path, code in CODE.items():
            head = re.match(r"(?://.*\n)+|/\*(?:.*\n)+? \*/\n", code)
            listed = head and re.search(r"Divisions: ([^.]+)\.", re.sub(r"\n(//| \*) ", " ", head[0]))
            marked = [name.lower() for name in re.findall(r"^// ---- (.+?) -*$", code, re.MULTILINE)]
            if listed:
                self.assertEqual([name.strip().lower() for name in re.split("[;,]", listed[1])], marked, path.name)
            elif path.suffix == ".cc" and path.relative_to(SOURCE).parts[0] not in ("tests", "bench"):
                self.assertLess(len(marked), 4, f"{path.name} has divisions, and no list of them")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
