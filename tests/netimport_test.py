# The example that keeps a database in step with this machine's network.
import json
import os
import subprocess

import ostrel_tool as t


class NetImport(t.ToolTest):
    def machine(self, links, routes, routes6=(), resolver=None):
        for name, content in (("link", links), ("address", links), ("route", routes), ("route6", routes6)):
            self.write(name + ".json", json.dumps(content) if content != "" else "")
        if resolver is not None:
            self.write("resolv.conf", resolver)

    def netimport(self, code=0):
        program = os.path.join(os.path.abspath(t.BUILD), "examples", "netimport", "netimport")
        done = subprocess.run([program, "net.db", "."], cwd=self.dir, capture_output=True, timeout=60)
        self.assertEqual(done.returncode, code, done.stderr)
        return done

    def test_the_database_follows_the_machine_and_leaves_other_objects_alone(self):
        link = {"ifindex": 2, "ifname": "eth0", "flags": ["UP"], "mtu": 1500, "link_type": "ether",
                "addr_info": [{"family": "inet", "local": "192.0.2.1", "prefixlen": 24, "scope": "global"}]}
        route = {"dst": "default", "gateway": "192.0.2.9", "dev": "eth0", "metric": 100, "flags": []}
        self.machine([link], [route, {**route, "gateway": "192.0.2.8"}], [],
                     "# c\nnameserver 192.0.2.53\nnameserver 2001:db8::53 # x\nsearch a.example b.example\n")
        self.netimport()
        self.assertEqual(self.text("get", "net.db", "class=link", "name=eth0", "-p", "mtu", "-p", "up"), "1500\ntrue\n")
        self.assertEqual(self.text("walk", "net.db", "class=address", "-p", "scope"),
                         "class=address\tlink=eth0\taddress=192.0.2.1/24\tscope=global\n")
        self.assertEqual(len(self.text("walk", "net.db", "class=route").splitlines()), 2)
        self.assertEqual(self.text("get", "net.db", "class=resolver", "name=system", "-p", "nameserver", "-p", "search"),
                         "192.0.2.53\n2001:db8::53\na.example\nb.example\n")
        self.tool("put", "net.db", "class=mine", "name=x", "--", "y=1")
        before = self.read("net.db")
        self.assertIn(b"0 written", self.netimport().stdout)
        self.assertEqual(self.read("net.db"), before)

        link["mtu"], link["addr_info"] = 9000, []
        self.machine([link], "", "", "")
        self.assertIn(b"3 removed", self.netimport().stdout)
        self.assertEqual([o["id"]["class"] for o in self.tool("export", "net.db").json()["objects"]],
                         ["link", "resolver", "mine"])
        self.assertEqual(self.text("get", "net.db", "class=link", "name=eth0", "-p", "mtu"), "9000\n")

    def test_what_it_cannot_read_changes_nothing(self):
        self.machine([{"ifname": "lo", "ifindex": 1, "mtu": 65536}], [])
        self.netimport()
        before = self.read("net.db")
        self.write("route.json", "[{")
        self.netimport(code=1)
        os.remove(self.path("link.json"))
        self.assertIn(b"link.json", self.netimport(code=1).stderr)
        self.assertEqual(self.read("net.db"), before)


if __name__ == "__main__":
    t.main()
