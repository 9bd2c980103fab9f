# The commands that read and change single objects.
import os

import ostrel_tool as t


class Values(t.ToolTest):
    # What is put must come back byte for byte, as bare values, as JSON, and as the text that put takes again.
    def test_nasty_values_come_back_as_they_were_put(self):
        nasty = ["a,b", "c;d", "back\\slash", "=", "tab\there", "ümläut €", "", "x"]
        word = "v=" + ",".join(v.replace("\\", "\\\\").replace(",", "\\,") for v in nasty)
        self.tool("put", "d", "name=net 0", "zone=", "--", word)
        self.assertEqual(self.text("get", "d", "name=net 0", "zone=", "-p", "v").split("\n")[:-1], nasty)
        props = self.tool("get", "d", "name=net 0", "zone=", "--json").json()["props"]
        self.assertEqual(props["v"], {"type": "string", "values": nasty})
        line = self.text("walk", "d", "-p", "v").rstrip("\n").split("\t")
        self.assertEqual(line[:2], ["name=net 0", "zone="])
        self.tool("put", "e", *line[:2], "--", line[2])
        self.assertEqual(self.read("d"), self.read("e"))

    def test_numbers_keep_their_extremes_and_refuse_what_lies_beyond(self):
        for word, least, greatest in (("int32", -2**31, 2**31 - 1), ("uint32", 0, 2**32 - 1),
                                      ("int64", -2**63, 2**63 - 1), ("uint64", 0, 2**64 - 1)):
            with self.subTest(word):
                self.tool("put", "d", "n=1", "--", f"v:{word}={least},{greatest}")
                self.assertEqual(self.tool("get", "d", "n=1", "--json").json()["props"]["v"]["values"],
                                 [n if abs(n) <= 2**53 else str(n) for n in (least, greatest)])
                self.assertEqual(self.text("get", "d", "n=1", "-p", "v"), f"{least}\n{greatest}\n")
                before = self.read("d")
                for bad, said in ((least - 1, "range"), (greatest + 1, "range"),
                                  *((text, "isn't a number") for text in ("", "1x", " 1", "0x10", "1.0", "+1", "--1"))):
                    message = self.error(6, "put", "d", "n=1", "--", f"v:{word}={bad}")["message"]
                    for part in (said, word, str(bad)):
                        self.assertIn(part, message)
                self.assertEqual(self.read("d"), before)

    def test_empty_arrays_and_empty_strings(self):
        self.tool("put", "d", "a=1", "--", "none:int32", "first=,x")
        self.assertEqual(self.read("d"), b"a=1;\tnone=int32;first=string,,x;\n")
        self.assertEqual(self.tool("get", "d", "a=1", "--json").json()["props"],
                         {"none": {"type": "int32", "values": []}, "first": {"type": "string", "values": ["", "x"]}})
        # The format keeps no empty last value: that is said, and nothing else gets lost.
        self.assertRegex(self.tool("put", "d", "a=2", "--", "last=x,").err, b"warning.*last")
        self.assertEqual(self.text("get", "d", "a=2", "-p", "last"), "x\n")

    def test_words_that_are_no_identifiers_or_properties(self):
        for line in ("put d a -- x=1", "put d =a -- x=1", "put d -- x=1", "put d a=1 a=2 -- x=1", "put d a=1 -- x",
                     "put d a=1 -- =1", "put d a=1 -- x=1 x=2", "put d a=1 -- x:float=1", "put d a=1 -- x=\\q",
                     "put d a=1 -- x=\\x0", "put d a=1 -- x=\\x00", "put d a=1 -- x=\\", "put d a=1 -- x+=1", "put d a=1",
                     "put d a=1 x=1", "set d a=1 --", "get d", "remove d"):
            with self.subTest(line):
                self.error(2, *line.split(" "))
        self.tool("put", "d", "a=1", "--", "a\\:b=1", "plus\\+=2", "hex=\\x41\\t\\;")
        self.tool("put", "d", "--", "-a=1", "--", "x=1")
        self.assertEqual(self.text("get", "d", "-p", "x", "--", "-a=1"), "1\n")
        self.assertEqual(self.read("d"), b"a=1;\ta:b=string,1;plus+=string,2;hex=string,A\t\\;;\n-a=1;\tx=string,1;\n")

    def test_what_the_format_cannot_hold_is_refused_by_name_and_leaves_nothing_behind(self):
        self.tool("put", "d", "a=1", "--", "x=1")
        before = self.read("d")
        long = [f"p{i}={'x' * 500}" for i in range(5)]
        for words, told in ((["a=2", "--", "ok=1", "bad=a\\nb"], "bad"), (["a=2", "--", "big=" + "x" * 512], "big"),
                            (["a=" + "x" * 254, "--", "x=1"], "identifiers"), (["a=b\tc", "--", "x=1"], "identifiers"),
                            (["#a=1", "--", "x=1"], "identifiers"), (["a=2", "--", *long], "too long"),
                            (["object-db-name=x", "--", "x=1"], "object-db-name")):
            for trial in ((), ("-n",)):
                with self.subTest(told, trial=trial):
                    self.assertIn(told, self.error(6, "put", "d", *trial, *words)["message"])
                    self.assertEqual((self.read("d"), os.listdir(self.dir)), (before, ["d"]))


class Objects(t.ToolTest):
    def setUp(self):
        super().setUp()
        self.tool("put", "d", "name=eth0", "zone=z1", "--", "mtu:uint32=1500", "tags=lan,uplink", "up:boolean=true")
        self.tool("put", "d", "name=lo", "--", "mtu:uint32=65536")
        self.before = self.read("d")

    def second_line(self):
        return self.read("d").split(b"\n")[1]

    def test_put_replaces_everything_and_keeps_the_place(self):
        result = self.tool("--json", "put", "d", "zone=z1", "name=ETH0", "--", "x=1").json()
        self.assertEqual((result["result"], result["dry_run"]), ("replaced", False))
        self.assertEqual(self.read("d"), b"name=eth0;zone=z1;\tx=string,1;\nname=lo;\tmtu=uint32,65536;\n")
        self.assertEqual(self.tool("--json", "put", "d", "name=new", "--", "x=1").json()["result"], "created")
        self.error(5, "put", "d", "--new", "name=lo", "--", "x=1")
        self.tool("put", "--case", "d", "name=LO", "--", "x=1")
        self.assertEqual(self.read("d").count(b"\n"), 4)

    def test_set_merges_and_keeps_stored_types(self):
        self.tool("set", "d", "name=lo", "--", "mtu=9000", "tags+=b,a,b", "n:int64=-1")
        self.tool("set", "d", "name=lo", "--", "tags+=c,a", "tags-=b,nothing", "n-=5")
        self.assertEqual(self.second_line(), b"name=lo;\tmtu=uint32,9000;tags=string,a,c;n=int64,-1;")
        self.tool("set", "d", "name=lo", "--", "mtu:string=big")
        self.assertEqual(self.text("get", "d", "name=lo", "-p", "mtu"), "big\n")
        before = self.read("d")
        self.assertIn("int64", self.error(6, "set", "d", "name=lo", "--", "n+=x")["message"])
        self.error(6, "set", "d", "name=lo", "--", "n:string+=x")
        self.error(4, "set", "d", "name=none", "--", "mtu=1")
        self.assertEqual(self.read("d"), before)

    def test_unset_drops_all_or_nothing(self):
        self.error(4, "unset", "d", "name=eth0", "zone=z1", "--", "mtu", "missing")
        self.assertEqual(self.read("d"), self.before)
        self.tool("unset", "d", "name=eth0", "zone=z1", "--", "mtu", "up")
        self.assertEqual(self.text("walk", "d", "name=eth0"), "name=eth0\tzone=z1\ttags=lan,uplink\n")

    def test_get_wants_all_identifiers_and_names_them_otherwise(self):
        self.assertIn("'name=eth0' 'zone=z1'", self.error(4, "get", "d", "name=eth0")["hint"])
        self.assertIn("no property", self.error(4, "get", "d", "name=lo", "-p", "nope")["message"])
        self.write("twice", "a=1;\tx=string,1;\na=1;\tx=string,2;\n")
        self.assertIn("several", self.error(6, "get", "twice", "a=1")["message"])
        self.assertEqual(self.text("get", "d", "name=eth0", "zone=z1", "-p", "mtu", "-p", "tags"), "1500\nlan\nuplink\n")

    def test_rename_keeps_the_object_and_refuses_taken_identifiers(self):
        self.error(5, "rename", "d", "name=lo", "--", "zone=Z1", "name=eth0")
        self.error(4, "rename", "d", "name=none", "--", "name=x")
        self.tool("rename", "d", "name=lo", "--", "name=LO")  # another spelling of itself isn't taken
        self.tool("rename", "d", "name=lo", "--", "name=loop", "zone=z2")
        self.assertEqual(self.second_line(), b"name=loop;zone=z2;\tmtu=uint32,65536;")

    def test_remove_one_or_all_but_never_all_by_accident(self):
        for words in (["remove", "d"], ["remove", "d", "--all"], ["remove", "d", "--all", "--yes", "name=lo"]):
            self.error(2, *words)
        self.assertEqual(self.read("d"), self.before)
        self.error(4, "remove", "d", "name=eth0")
        self.tool("remove", "d", "name=eth0", "zone=z1")
        self.assertEqual(self.text("walk", "d"), "name=lo\tmtu=65536\n")
        self.tool("remove", "d", "--all", "--yes")
        self.assertFalse(os.path.exists(self.path("d")))
        self.error(4, "remove", "d", "--all", "--yes")

    def test_a_dry_run_changes_nothing_but_finds_the_same_faults(self):
        os.utime(self.path("d"), (1, 1))
        for line in ("put d -n a=1 -- x=1", "put -n none a=1 -- x=1", "set d -n name=lo -- mtu=1", "unset d -n name=lo -- mtu",
                     "rename d -n name=lo -- name=x", "remove d -n name=lo", "remove d -n --all"):
            with self.subTest(line):
                self.assertIn("would be", self.text(*line.split()))
                self.assertTrue(self.tool("--json", *line.split()).json()["dry_run"])
        self.error(4, "remove", "d", "-n", "name=none")
        self.error(5, "rename", "d", "-n", "name=lo", "--", "name=eth0", "zone=z1")
        self.assertEqual((os.listdir(self.dir), os.stat(self.path("d")).st_mtime), (["d"], 1))

    def test_walk_selects_sorts_and_picks(self):
        for n, m in (("a", "-5"), ("b", "-10"), ("c", "9"), ("d", "10")):
            self.tool("put", "w", "n=" + n, "k=v", "--", "m:int32=" + m, "o=1")
        self.tool("put", "w", "n=e", "--", "o=2")
        for line, printed in (("w --sort m -p m", "n=b\tk=v\tm=-10\nn=a\tk=v\tm=-5\nn=c\tk=v\tm=9\nn=d\tk=v\tm=10\nn=e\n"),
                              ("w N=a", ""),  # names of identifiers keep their case
                              ("w n=A -p o", "n=a\tk=v\to=1\n"), ("--case w n=A", ""), ("-x w n=a", ""),
                              ("-x w n=a k=v -t -p m", "n=a\tk=v\tm:int32=-5\n"),
                              ("w k= -p none", "n=a\tk=v\nn=b\tk=v\nn=c\tk=v\nn=d\tk=v\n")):  # an empty value is any
            with self.subTest(line):
                self.assertEqual(self.text("ls", *line.split()), printed)
        for word, names in (("k=v", ["a", "b", "c", "d"]), ("n=none", [])):
            self.assertEqual([o["id"]["n"] for o in self.tool("ls", "w", word, "--json").json()["objects"]], names)


if __name__ == "__main__":
    t.main()
