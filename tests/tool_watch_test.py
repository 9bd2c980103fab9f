# ostrel watch: what it prints, what it hands to a command, and where it goes on.
import json
import os
import signal
import time

import ostrel_tool as t

# A command that notes its input in a file of its own, and shows a second one at the same time.
NOTE = "mkdir busy || echo twice > failed; cat >> seen; sleep 0.3; rmdir busy"


class WatchTest(t.ToolTest):
    def put(self, name, value):
        self.tool("put", "links.db", f"name={name}", "--", f"mtu:uint32={value}")

    def watch(self, *words):
        return self.start(t.OSTREL, "watch", "links.db", *words)

    def lines(self, watch, count):
        return [watch.stdout.readline().decode().rstrip("\n") for _ in range(count)]

    def wait_for(self, condition):
        for _ in range(600):
            if condition():
                return
            time.sleep(0.05)
        self.fail("it never came")

    def test_each_change_is_a_line_and_each_state_ends_with_one(self):
        self.put("eth0", 1500)
        watch, as_json = self.watch(), self.watch("--json", "name=eth0")
        self.assertEqual(self.lines(watch, 2), ["= name=eth0\tmtu=1500", "--"])
        self.assertEqual([json.loads(line)["event"] for line in self.lines(as_json, 3)], ["reset", "put", "synced"])
        self.put("eth1", 9000)
        self.assertEqual(self.lines(watch, 2), ["+ name=eth1\tmtu=9000", "--"])
        self.put("eth0", 9000)
        self.assertEqual(self.lines(watch, 2), ["~ name=eth0\tmtu=9000", "--"])
        self.tool("remove", "links.db", "name=eth0")
        self.assertEqual(self.lines(watch, 2), ["- name=eth0", "--"])
        put, synced, gone = (json.loads(line) for line in self.lines(as_json, 3))
        self.assertEqual(put["id"], {"name": "eth0"})
        self.assertEqual(put["props"], {"mtu": {"type": "uint32", "values": [9000]}})
        self.assertTrue(put["version"].startswith("v:"))
        self.assertEqual([synced["event"], gone["event"]], ["synced", "remove"])
        for process, number in ((watch, signal.SIGTERM), (as_json, signal.SIGINT)):
            process.send_signal(number)
            self.assertEqual(process.wait(60), 0)

    def test_a_token_goes_on_where_the_last_run_ended(self):
        run = ["watch", "links.db", "--once", "--token", "token"]
        self.put("eth0", 1500)
        self.assertEqual(self.text(*run), "= name=eth0\tmtu=1500\n--\n")
        self.assertEqual(self.text(*run), "--\n")
        self.put("eth0", 9000)
        self.assertEqual(self.text(*run).splitlines()[1:], ["= name=eth0\tmtu=9000", "--"])
        self.tool(*run, "--exec", "cat > seen; exit 3", code=1)  # a failure is no reason to go on
        self.put("eth0", 1400)
        self.assertIn("ended with 3", self.tool(*run, "--exec", "exit 3", code=1).err.decode())
        self.assertIn("mtu=1400", self.text(*run))
        before = self.read("links.db")
        self.assertIn("remove this one", self.error(5, "watch", "links.db", "--token", "links.db")["hint"])
        self.assertEqual(self.read("links.db"), before)
        os.mkdir(self.path("directory"))
        listed, watched = (self.run_tool(*words) for words in (["list", "directory"], ["watch", "directory", "--once"]))
        self.assertEqual((watched.code != 0, watched.code), (True, listed.code))

    def test_a_command_runs_after_each_state_and_never_twice_at_once(self):
        self.put("eth0", 0)
        watch = self.watch("--exec", NOTE)
        for value in range(1, 31):
            self.put("eth0", value)
        self.wait_for(lambda: os.path.exists(self.path("seen")) and b"[30]" in self.read("seen"))
        self.wait_for(lambda: not os.path.exists(self.path("busy")))
        self.assertEqual(self.end(watch), 0)
        events = [json.loads(line) for line in self.read("seen").splitlines()]
        runs = sum(event["event"] == "synced" for event in events)
        self.assertLess(runs, 31)  # what came while one ran made one more run
        self.assertEqual(runs, sum(event["event"] == "put" for event in events))
        self.assertFalse(os.path.exists(self.path("failed")))
        # The signal that ends the watch reaches the command, which is waited for.
        watch = self.watch("--exec", "trap 'touch ended; exit' TERM; touch began; while :; do sleep 0.05; done")
        self.wait_for(lambda: os.path.exists(self.path("began")))
        self.assertEqual(self.end(watch), 0)
        self.assertTrue(os.path.exists(self.path("ended")))


if __name__ == "__main__":
    t.main()
