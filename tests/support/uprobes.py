# The hits of the library's trace points by one process, through a tracefs that is mounted for it.
#
# usage: uprobes.py attach DIRECTORY PID LIBRARY    mounts tracefs and attaches; prints why that can't be, if so
#        uprobes.py hits DIRECTORY PID              prints the hits since the last call, in order
#        uprobes.py detach DIRECTORY PID            takes all of that back
#
# Whether and where the machine has tracefs mounted doesn't matter. Events, and the instance that collects their hits, carry
# the process's id, so that tests beside this one aren't disturbed. A hit is "PROBE RESULT TEXT ...", with "-" for a NULL; the
# last word is a line for the report of a failure, and the argument for a walk's callback.
import ctypes
import os
import re
import subprocess
import sys

libc = ctypes.CDLL(None, use_errno=True)
command, directory, pid = sys.argv[1:4]


def group(of):
    return "ostrel_test_" + of


def instance(of):
    return os.path.join(directory, "instances", group(of))


# One definition for each call of write(), as the kernel takes them.
def write(file, text):
    out = os.open(os.path.join(directory, file), os.O_WRONLY | os.O_APPEND)
    os.write(out, text.encode())
    os.close(out)


# Those of this process, and those that a killed test has left.
def drop_events():
    with open(os.path.join(directory, "uprobe_events")) as events:
        found = re.findall(r"^p:(ostrel_test_(\d+)/\S+)", events.read(), re.M)
    gone = [(name, of) for name, of in found if of == pid or not os.path.exists("/proc/" + of)]
    for of in {of for _, of in gone if os.path.exists(instance(of))}:
        os.rmdir(instance(of))  # which disables the events
    for name, _ in gone:
        write("uprobe_events", "-:" + name)


def attach(library):
    if os.geteuid() != 0:
        return print("needs root")
    mounted = libc.mount(b"none", directory.encode(), b"tracefs", 0, None) == 0
    if not mounted or not os.access(os.path.join(directory, "uprobe_events"), os.W_OK):
        return print("no tracefs with uprobe events:", os.strerror(ctypes.get_errno()))
    drop_events()
    reader = os.path.join(os.path.dirname(__file__), "sdt2uprobe.py")
    definitions = subprocess.check_output([sys.executable, reader, library, "ostrel", group(pid)], text=True)
    for line in definitions.splitlines(keepends=True):
        write("uprobe_events", line)
    os.mkdir(instance(pid), 0o700)
    write(f"instances/{group(pid)}/events/{group(pid)}/enable", "1")


def hits():
    with open(os.path.join(instance(pid), "trace")) as trace:
        lines = [line for line in trace if line[0] != "#" and f"-{pid} " in line]
    open(os.path.join(instance(pid), "trace"), "w").close()
    for line in lines:
        # "... 12.345: db__read: (0x7f...) a0=0 a1=94... s1="text" ..."
        probe = re.search(r": (\w+): \(", line)[1]
        words = {name: text or word for name, text, word in re.findall(r' ([as]\d)=(?:"([^"]*)"|(\S+))', line)}
        numbers = [f"a{n}" for n in range(1, 5) if f"a{n}" in words]
        texts = ["-" if words[a] == "0" else words.get(a.replace("a", "s"), words[a]) for a in numbers]
        if probe == "db__walk__cb":
            texts[3] = words["a4"]
        print(probe, words["a0"], *texts)


def detach():
    if os.path.ismount(directory):
        drop_events()
        if libc.umount2(directory.encode(), 2) != 0:
            sys.exit("tracefs stays mounted")


{"attach": attach, "hits": hits, "detach": detach}[command](*sys.argv[4:])
