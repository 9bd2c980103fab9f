# The kernel's audit log for tests of programs: switched on while an object lives, and put back as it was, also if the test
# is killed. Gives the records of updates as dictionaries.
import ctypes
import fcntl
import os
import re
import socket
import struct
import sys

NETLINK_AUDIT, GET, SET, TRUSTED_APP = 9, 1000, 1001, 1121
LOCK = "/run/ostrel-test-audit.lock"


# Sends a message to the kernel; gives its reply, if it is to have one. Raises OSError for a refusal.
def ask(kind, data=b"", replies=False):
    with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_AUDIT) as s:
        s.settimeout(10)
        s.sendto(struct.pack("=IHHII", 16 + len(data), kind, 5, 1, 0) + data, (0, 0))
        reply, answered = None, False
        while not answered or (replies and reply is None):
            message = s.recv(16384)
            if struct.unpack_from("=H", message, 4)[0] == 2:
                error, answered = -struct.unpack_from("=i", message, 16)[0], True
                if error:
                    raise OSError(error, os.strerror(error))
            else:
                reply = message[16:]
        return reply


def enabled():
    return struct.unpack_from("=I", ask(GET, replies=True), 4)[0]


def set_enabled(value):
    ask(SET, struct.pack("=II", 1, value).ljust(40, b"\0"))


# Why there are no records to be read here, or None.
def why_not():
    if os.geteuid() != 0:
        return "audit records are read by root"
    try:
        ctypes.CDLL("libaudit.so.1")
        with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_AUDIT) as s:
            s.bind((0, 1))
        set_enabled(enabled())
    except OSError as error:
        return f"audit can't be read and switched here: {error}"
    return None


# Taken apart without mercy: whatever isn't a row of fields, each once, is an error, and so is a value in another form than
# its own. Gives the sender's pid and uid, and each field's name and bytes.
def fields_of(text):
    head = r"audit\([\d.:]+\): pid=(\d+) uid=(\d+) auid=\d+ ses=\d+(?: subj=[^ ]*)? msg='([^']*)'\n*"
    pid, uid, rows = re.fullmatch(head, text).groups()
    found = {"pid": pid.encode(), "uid": uid.encode()}
    for row in rows.split(" "):
        name, value = re.fullmatch(r"(\w+)=(.*)", row).groups()
        assert name not in found, text
        if name in ("parent_file", "object_name", "exe"):
            quoted, digits = re.fullmatch(r'"([^"]*)"|((?:[0-9A-F]{2})+)', value).groups()
            found[name] = bytes.fromhex(digits) if digits else quoted.encode()
        else:
            found[name] = value.encode()
    return found


class KernelAudit:
    def __init__(self):
        self.lock = os.open(LOCK, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC | os.O_NOFOLLOW, 0o600)
        fcntl.flock(self.lock, fcntl.LOCK_EX)
        self.socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_AUDIT)
        self.socket.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE
        self.socket.settimeout(10)
        self.socket.bind((0, 1))
        self.marks = 0
        before = enabled()
        end, self.pipe = os.pipe()
        self.keeper = os.fork()
        if self.keeper == 0:
            os.close(self.pipe)
            os.read(end, 1)
            set_enabled(before)
            os._exit(0)
        os.close(end)
        set_enabled(before or 1)

    def close(self):
        os.close(self.pipe)
        _, status = os.waitpid(self.keeper, 0)
        self.socket.close()
        os.close(self.lock)
        assert status == 0, "audit isn't as it was"

    # The raw texts of the records of updates since the last look, all of them: a mark ends them.
    def texts(self):
        self.marks += 1
        mark = f"op=mark_of_a_test mark={os.getpid()}.{self.marks}"
        ask(TRUSTED_APP, mark.encode() + b"\0")
        found = []
        while True:
            message = self.socket.recv(16384)
            text = message[16:].rstrip(b"\0").decode()
            if struct.unpack_from("=H", message, 4)[0] == TRUSTED_APP:
                if mark in text:
                    return found
                if "op=ostrel_" in text:
                    found.append(text)

    # What was recorded of databases in this directory, "update DATABASE OBJECT STATUS" each, by its path from there.
    def records(self, directory):
        rows = []
        for text in self.texts():
            fields = {name: value.decode(errors="replace") for name, value in fields_of(text).items()}
            path = fields["parent_file"]
            if not path.startswith("/"):
                continue  # a repository's locator, of some other program
            rows.append(f"{fields['op'][7:]} {os.path.relpath(path, directory)} {fields['object_name']} "
                        f"{fields['status']}")
        return rows


# For tests in other languages: an empty line once audit is on; then, for each line of input, the records since the last one
# and an empty line. A record is its text and its fields, "NAME=BYTES" each, where a text and bytes are hexadecimal digits.
if __name__ == "__main__":
    why = why_not()
    if why:
        sys.exit(why)
    audit = KernelAudit()
    print(flush=True)
    for _ in sys.stdin:
        for text in audit.texts():
            print(text.encode().hex(), *(f"{name}={value.hex()}" for name, value in fields_of(text).items()))
        print(flush=True)
    audit.close()
