# What the tool leaves in the audit trail, and what a host or a caller without audit lacks: the records, and nothing else.
import os
import subprocess
import sys

import kernel_audit
import ostrel_tool as t


class AuditTest(t.ToolTest):
    def setUp(self):
        super().setUp()
        self.db = self.path("db")
        self.audit = kernel_audit.KernelAudit()
        self.addCleanup(self.audit.close)

    # The records since the last look, of databases of this test and of places where the tool may work beside them. Other
    # programs of the machine write records, too.
    def records(self):
        beside = "../" + os.path.basename(self.scratch)
        return [row for row in self.audit.records(self.dir)
                if not row.split()[1].startswith("..") or row.split()[1].startswith(beside)]

    # Runs the tool below another program, and demands success in silence.
    def below(self, *words):
        done = subprocess.run(words, cwd=self.dir, env=self.env, capture_output=True, timeout=60)
        self.assertEqual((done.returncode, done.stderr), (0, b""), words)

    def test_each_update_leaves_one_record_and_a_trial_none(self):
        self.tool("put", self.db, "a=1", "--", "p=x")
        self.tool("set", self.db, "a=1", "--", "p=y")
        self.tool("rename", self.db, "a=1", "--", "a=2")
        self.tool("remove", self.db, "a=2")
        self.tool("remove", self.db, "--all", "--yes")
        self.tool("put", "-n", self.db, "a=1", "--", "p=x")
        self.assertEqual(self.records(),
                         ["update db a=1; 0", "update db a=1; 0", "update db a=1; 0", "remove db a=2; 0", "remove db  0"])

    def test_an_import_leaves_a_record_for_each_object_that_it_changes(self):
        self.write(self.db, "a=1;\tp=string,x;\na=2;\t\na=3;\t\n")
        text = ('{"format":"ostrel-objects","version":1,"objects":[{"id":{"a":"1"},"props":{}},'
                '{"id":{"a":"2"},"props":{}},{"id":{"a":"4 x"},"props":{}}]}').encode()
        self.tool("import", "-n", self.db, stdin=text)
        self.assertEqual(self.records(), [])
        self.tool("import", self.db, "--replace", stdin=text)
        self.assertEqual(self.records(), ["update db a=1; 0", "update db a=4 x; 0", "remove db a=3; 0"])

    def test_a_host_without_libaudit_lacks_the_records_alone(self):
        listing = subprocess.run(["ldconfig", "-p"], stdout=subprocess.PIPE, check=True).stdout.decode().splitlines()
        path = [line.split()[-1] for line in listing if "libaudit.so.1" in line][0]
        self.below("unshare", "-m", "sh", "-c", 'mount --bind /dev/null "$1" && exec "$2" put "$3" a=1 -- p=x', "sh",
                   os.path.realpath(path), t.OSTREL, self.db)
        self.assertEqual(self.read("db"), b"a=1;\tp=string,x;\n")
        self.assertEqual(self.records(), [])

    def test_a_caller_without_the_privilege_lacks_the_records_alone(self):
        self.below("setpriv", "--bounding-set", "-audit_write", "--inh-caps", "-audit_write", t.OSTREL, "put", self.db, "a=1",
                   "--", "p=x")
        self.below("unshare", "-U", "-r", t.OSTREL, "put", self.db, "a=2", "--", "p=x")
        self.assertEqual(self.read("db").count(b"\n"), 2)
        self.assertEqual(self.records(), [])


why = kernel_audit.why_not()
if why:
    print("skipped:", why)
    sys.exit(77)
t.main()
