# Conversions through a table of property descriptors, and files that are set aside.
import json
import os

import ostrel_tool as t

TABLE = {"format": "ostrel-properties", "version": 1, "properties": [
    {"name": "mode", "type": "string", "description": "what it does",
     "values": [{"name": "auto", "value": 0}, {"name": "manual", "value": 1}, {"name": "?", "value": 2}]},
    {"name": "features", "type": "string", "bitfield": True,
     "values": [{"name": "rx", "value": 1}, {"name": "tx", "value": 2}, {"name": "top", "value": 1 << 63}]},
    {"name": "servers", "type": "string", "delimiters": ", "},
    {"name": "mtu", "type": "uint64"},
    {"name": "up", "type": "boolean"},
    {"name": "raw", "type": "uint64", "convert": False}]}

WORKING = ("  mode:uint64=1,0\n  features:uint64=9223372036854775809\n  servers:string=a\\, b\n"
           "  mtu:string=0x10\n  up:string=TRUE\n  raw:string=7x\n")


class Convert(t.ToolTest):
    def setUp(self):
        super().setUp()
        self.write("t", json.dumps(TABLE))
        self.tool("put", "d", "n=1", "--", *WORKING.strip().split("\n  "))

    def convert(self, *words, table="t", **more):
        return self.tool("convert", "d", "n=1", "--table", table, *words, **more)

    def test_an_object_goes_both_ways_and_stays_as_it_is(self):
        before = self.read("d")
        stored = self.convert("--to-persist").out.decode()
        self.assertEqual(stored, "n=1\n  raw:string=7x\n  mode:string=manual,auto\n  features:string=rx,top\n"
                                 "  servers:string=a,b\n  mtu:uint64=16\n  up:boolean=true\n")
        as_json = self.convert("--to-persist", "--json").json()
        self.assertEqual(as_json["props"]["features"], {"type": "string", "values": ["rx", "top"]})
        self.tool("put", "d", "n=2", "--", *stored.split()[1:])
        back = self.text("convert", "d", "n=2", "--from-persist", "-t", "t")
        self.assertEqual(back, "n=2\n  raw:string=7x\n  mtu:uint64=16\n  up:boolean=true\n  mode:uint64=1,0\n"
                               "  features:uint64=9223372036854775809\n  servers:string=a\\, b\n")
        self.tool("remove", "d", "n=2")
        self.assertEqual(self.read("d"), before)

    def test_a_failure_says_what_the_library_says(self):
        self.tool("set", "d", "n=1", "--", "mode:uint64=3")
        error = self.error(6, "convert", "d", "n=1", "--to-persist", "-t", "t")
        self.assertEqual((error["message"], error["where"]), ("mode: could not convert value 3", "d"))
        self.tool("set", "d", "n=1", "--", "mode:uint64=1", "up:string=yes")
        error = self.error(6, "convert", "d", "n=1", "--to-persist", "-t", "t")
        self.assertEqual(error["message"], "up: could not convert yes to persistent type boolean")

    def test_what_is_no_failure_is_a_warning(self):
        self.tool("set", "d", "n=1", "--", "servers=" + ",".join(["x" * 100] * 6), "mode:string=auto")
        self.env["OSTREL_LOG"] = "syslog"  # the user's choice doesn't take the message away
        done = self.convert("--from-persist")
        self.assertIn("mode:uint64=0\n", done.out.decode())
        self.assertEqual(done.err.decode(), "ostrel: warning: d: servers: could not convert from persistent type: "
                                            "delimited value too long\n")

    def test_the_way_and_the_table_have_to_be_named(self):
        for words in ([], ["--to-persist", "--from-persist"]):
            self.convert(*words, code=2)
        self.tool("convert", "d", "n=1", "--to-persist", code=2)
        self.tool("convert", "d", "-t", "t", "--to-persist", code=2)
        self.assertEqual(self.error(4, "convert", "d", "n=1", "--to-persist", "-t", "none")["where"], "none")
        self.error(4, "convert", "d", "n=9", "--to-persist", "-t", "t")

    def test_a_bad_table_is_refused_where_it_is_bad(self):
        def properties(*rows):
            return {"properties": [{"name": "first", "type": "none"}, *rows]}
        value = {"name": "a", "value": 1}
        def named(**more):
            return properties({"name": "p", "type": "string", **more})
        bad = [({"format": "other"}, "/format"), ({"version": 2}, "/version"), ({"properties": {}}, "/properties"),
               ({"more": 1}, "/more"), (properties(7), "/properties/1"), (properties({"name": "p"}), "/properties/1"),
               (named(name=""), "/properties/1/name"), (named(name="a\0b"), "/properties/1/name"),
               (named(name="first"), "/properties/1/name"), (named(type="int32"), "/properties/1/type"),
               (named(flags=1), "/properties/1/flags"), (named(delimiters=""), "/properties/1/delimiters"),
               (named(bitfield=1), "/properties/1/bitfield"), (named(bitfield=True), "/properties/1"),
               (named(values={}), "/properties/1/values"), (named(values=[value, {"name": "b"}]), "/properties/1/values/1"),
               (named(values=[{**value, "value": -1}]), "/properties/1/values/0/value"),
               (named(values=[{**value, "value": 1 << 64}]), "/properties/1/values/0/value")]
        for changes, path in bad:
            self.write("bad", json.dumps({**TABLE, **changes}))
            error = self.error(6, "convert", "d", "n=1", "--to-persist", "-t", "bad")
            self.assertEqual((error.get("path"), error["where"]), (path, "bad"), changes)
        for text in ("", "{", '{"format":1,"format":2}', "[" * 100000, "\xff", "1e999"):
            self.write("bad", text.encode("latin-1"))
            self.assertEqual(self.error(6, "convert", "d", "n=1", "--to-persist", "-t", "bad")["where"], "bad")
        self.assertEqual(self.error(1, "convert", "d", "n=1", "--to-persist", "-t", ".")["where"], ".")


class Obsolete(t.ToolTest):
    def setUp(self):
        super().setUp()
        os.mkdir(self.path("dir"))
        for name in ("net0.conf", "net1.conf", "other"):
            self.write("dir/" + name, name)

    def names(self):
        return sorted(os.listdir(self.path("dir")))

    def test_each_file_renamed_is_told_and_a_dry_run_tells_what_would_be(self):
        self.assertEqual(self.text("obsolete", "dir", "^net", "-n"),
                         "would be renamed: net0.conf -> net0.conf.obsolete\n"
                         "would be renamed: net1.conf -> net1.conf.obsolete\n")
        self.assertEqual(self.names(), ["net0.conf", "net1.conf", "other"])
        for told in ("net0.conf -> net0.conf.obsolete\nnet1.conf -> net1.conf.obsolete\n", ""):
            self.assertEqual(self.text("obsolete", "dir", r"^net[0-9]\.conf$"), told)
            self.assertEqual(self.names(), ["net0.conf.obsolete", "net1.conf.obsolete", "other"])

    def test_each_file_that_stays_is_told_with_the_logs_message(self):
        os.mkdir(self.path("dir/net0.conf.obsolete"))  # in the way
        odd = "net\nlog_test: 3: x"
        self.write("dir/" + odd, "")
        os.mkdir(self.path("dir/" + odd + ".obsolete"))
        done = self.tool("obsolete", "dir", "^net[^.]*(.conf)?$", code=1)
        self.assertEqual(done.out.decode(), "net1.conf -> net1.conf.obsolete\n")
        self.assertEqual(done.err.decode().splitlines(), [
            r"ostrel: error: dir/net\nlog_test: 3: x: Rename obsolete file dir/net\nlog_test: 3: x failed",
            "ostrel: error: dir/net0.conf: Rename obsolete file dir/net0.conf failed"])
        done = self.tool("--json", "obsolete", "dir", "^net0.conf$", code=1)
        self.assertEqual(done.json(), {"directory": "dir", "dry_run": False, "files": [
            {"name": "net0.conf", "new_name": "net0.conf.obsolete", "renamed": False,
             "message": "Rename obsolete file dir/net0.conf failed"}]})
        self.assertEqual(done.error()["where"], "dir/net0.conf")

    def test_a_pattern_or_a_directory_that_is_wrong_renames_nothing(self):
        self.assertIn("(", self.error(2, "obsolete", "dir", "(")["message"])
        self.assertEqual(self.error(4, "obsolete", "none", "x")["where"], "none")
        self.error(4, "obsolete", "dir/other", "x")
        self.assertEqual(self.names(), ["net0.conf", "net1.conf", "other"])

    @t.needs_root
    def test_a_directory_of_somebody_else(self):
        os.chmod(self.dir, 0o755)
        drop = {"user": 65534, "group": 65534, "extra_groups": []}
        done = self.tool("obsolete", "dir", "net0", code=1, **drop)
        self.assertIn("Rename obsolete file dir/net0.conf failed", done.err.decode())
        self.assertEqual(done.out, b"")


if __name__ == "__main__":
    t.main()
