# cairnctl beside others that change the repository, and on a store that it couldn't have made.
import json
import sqlite3
import subprocess
import threading

import ostrel_tool as t


def group(name, *groups):
    return {"name": name, "type": "t", "properties": [], **({"groups": list(groups)} if groups else {})}


# A service with an instance "i".
def service(name, groups, snapshots=()):
    return {"name": name, "groups": [], "instances": [
        {"name": "i", "groups": groups, "snapshots": [{"name": n, "groups": g} for n, g in snapshots]}]}


def document(*services):
    return {"format": "cairn-repository", "version": 2, "services": list(services)}


class Cairnctl(t.DaemonTest):
    command = [t.CAIRNCTL]

    def load(self, what):
        self.tool("import", stdin=json.dumps(what).encode())

    def names(self):
        return self.text("list").split()

    def test_a_failed_import_takes_back_its_own_and_nothing_else(self):
        first = service("first", [group(f"g{i}") for i in range(3000)])
        first["groups"] = [group("own")]
        first["instances"].append({"name": "last", "groups": [], "snapshots": []})
        path = self.write("document", json.dumps(document(first, service("last", []))))
        # Somebody else's, made when the import had looked whether it is free: of a service of its own, and of the import's.
        for locator, left in (("last:i", ["last", "last:i"]), ("first:last", ["first", "first:last"])):
            running = subprocess.Popen([*self.command, "import", path], env=self.env, stderr=subprocess.DEVNULL)
            while self.names() == [] and running.poll() is None:
                pass
            self.tool("add", locator)
            self.assertEqual(running.wait(), 5)
            self.assertEqual(self.names(), left)
            self.assertEqual(self.text("show", left[0]), "")
            self.tool("delete", "--recursive", left[0])

    def test_a_store_with_groups_too_deep_to_show_is_told_of(self):
        self.load(document(service("s", [group("g")]), service("other", [group("g")])))
        self.end(self.daemon)
        with sqlite3.connect(self.path("store/repository.db")) as store:
            top, kind = store.execute("select id, kind from nodes where name = 'g' order by id").fetchone()
            free = store.execute("select next from state").fetchone()[0]
            for node in range(free, free + 60000):
                store.execute("insert into nodes values(?, ?, ?, 'g', 't', 0)", (node, kind, top))
                top = node
            store.execute("update state set next = ?", (top + 1,))
        store.close()
        self.start_daemon()
        for words in (["show", "s:i"], ["export"], ["--json", "show", "s:i"]):
            result = self.tool(*words, code=1)
            self.assertEqual(result.out, b"")
            self.assertIn(b"'s:i': groups lie deeper in each other than 512", result.err)
        self.assertEqual(self.tool("export", "other").json()["services"][0]["name"], "other")
        self.tool("delete", "-r", "s")

    # Runs `work` on another thread, and `beside` on this one for as long as it goes on.
    def beside(self, work, beside):
        worker = threading.Thread(target=work)
        worker.start()
        while worker.is_alive():
            beside()
        worker.join()

    def test_an_export_beside_changes_is_whole_or_fails(self):
        groups = [group(f"g{i}", group("below")) for i in range(700)]
        whole = document(service("s", groups, [("kept", groups), ("running", groups)]))
        self.load(whole)
        later = []

        def export(change):
            during = self.run_tool("--json", "export")
            if during.code != 0:
                self.assertEqual((during.code, during.error()["name"]), (7, "busy"))
            else:
                self.assertEqual(during.json(), whole)
            later.append(subprocess.Popen([*self.command, "export"], env=self.env, stdout=subprocess.PIPE))
            for _ in range(20):
                self.run_tool("snapshot", "s:i", *change)
        for change in (["take", "running"], ["revert", "kept"]):
            self.beside(lambda: export(change), lambda: self.run_tool("snapshot", "s:i", *change))
            out = later[-1].communicate()[0]  # what it tried in vain beside the changes it tried again, within its bound
            if later[-1].returncode == 7:
                self.assertEqual(out, b"")
                out = self.tool("export").out
            self.assertEqual(json.loads(out), whole)

    def test_listings_pass_over_what_goes_meanwhile(self):
        services = [service(f"s{i}", [group("g")]) for i in range(200)]
        self.load(document(*services))

        def look():
            for seen in (self.tool("export").json()["services"], [s for s in services if s["name"] in self.names()]):
                self.assertEqual(seen, [s for s in services if s in seen])
        self.beside(lambda: [self.tool("delete", "-r", each["name"]) for each in services], look)
        self.assertEqual(self.names(), [])


if __name__ == "__main__":
    t.main()
