#!/usr/bin/env python3
"""Writes the corpora repository/ and rpy/: requests to the daemon, and replies to its client. usage: repository.py"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
(STATUS, DECODE, LIST_SERVICES, LIST_INSTANCES, LIST_SNAPSHOTS, ADD_SERVICE, ADD_INSTANCE, DELETE_ENTITY, GET_GROUP,
 READ_GROUP, LIST_GROUPS, ADD_GROUP, DELETE_GROUP, COMMIT, GET_SNAPSHOT, TAKE_SNAPSHOT, DELETE_SNAPSHOT,
 REVERT_SNAPSHOT, VERIFY, BACKUP, READ_BATCH, WITHDRAW_GROUP, BATCH) = range(23)
SERVICE, INSTANCE, GROUP, SNAPSHOT, FROZEN = range(1, 6)


MAGIC = b"RPY1"


def u32(number):
    return struct.pack("<I", number)


def u64(number):
    return struct.pack("<Q", number)


def text(value):
    value = value if isinstance(value, bytes) else value.encode()
    return u32(len(value)) + value


def prop(name, kind, *values):
    packed = b"".join(u64(v) if kind <= 3 else text(v) for v in values)
    return text(name) + u32(kind) + u32(len(values)) + text(packed)


def requests(*each):
    whole = [u32(op) + body for op, body in each]
    return b"".join(struct.pack("<H", len(request)) + request for request in whole)


def together(*each):
    return b"".join(text(MAGIC + u32(op) + body) for op, body in each)


def group(number, name, kind, *properties, version=0, flags=0):
    block = u32(len(properties)) + b"".join(properties)
    return u64(number) + u64(version) + u32(flags) + text(name) + text(kind) + text(block)


BASE = [(ADD_SERVICE, text("s")), (ADD_INSTANCE, u64(2) + text("i")),
        (ADD_GROUP, u32(INSTANCE) + u64(3) + text("g") + text("t") + u32(0)),
        (COMMIT, u64(4) + u64(0) + u32(2) + u32(0) + prop("p", 2, 1, 2) + u32(0) + prop("q", 5, "x", "")),
        (ADD_GROUP, u32(GROUP) + u64(4) + text("n") + text("u") + u32(0)),
        (TAKE_SNAPSHOT, u64(3) + text("running") + u32(0))]
REQUESTS = {
    "base": BASE,
    "read": BASE + [(STATUS, b""), (DECODE, text("s") + text("i")), (LIST_SERVICES, u64(0)), (LIST_INSTANCES, u64(2) + u64(0)),
                    (LIST_SNAPSHOTS, u64(3) + u64(0)), (GET_GROUP, u32(INSTANCE) + u64(3) + text("g")), (READ_GROUP, u64(4)),
                    (LIST_GROUPS, u32(INSTANCE) + u64(3) + u32(1) + text("G") + u64(0)),
                    (LIST_GROUPS, u32(INSTANCE) + u64(3) + u32(3) + text("") + u64(0)), (VERIFY, b""), (BACKUP, b"")],
    "batch": BASE + [(BATCH, u32(2) + u32(0) + u64(4) + u64(5) + u32(1) + u32(INSTANCE) + u64(3) + text("h") +
                      u32(4) + u32(0) + u32(INSTANCE) + u64(3) + text("h") + text("t") + u32(0) +
                      u32(0) + u32(0) + u64(0) + text("n") + text("t") + u32(0) +
                      u32(1) + u32(0) + u64(1) + u64(0) + u32(1) + u32(0) + prop("p", 2, 1) +
                      u32(2) + u64(4) + u32(1) + u64(9))],
    "change": BASE + [(COMMIT, u64(4) + u64(5) + u32(1) + u32(2) + prop("p", 2)), (COMMIT, u64(4) + u64(5) + u32(0)),
                      (TAKE_SNAPSHOT, u64(3) + text("running") + u32(1)), (REVERT_SNAPSHOT, u64(7)), (REVERT_SNAPSHOT, u64(10))],
    "delete": BASE + [(DELETE_GROUP, u64(4)), (DELETE_SNAPSHOT, u64(7)), (DELETE_ENTITY, u64(2) + u32(0)),
                      (DELETE_ENTITY, u64(2) + u32(1))],
    "temporary": BASE + [(ADD_GROUP, u32(GROUP) + u64(4) + text("t") + text("t") + u32(1)),
                         (ADD_GROUP, u32(GROUP) + u64(11) + text("t") + text("t") + u32(0)),
                         (COMMIT, u64(11) + u64(0) + u32(1) + u32(0) + prop("p", 6, b"\0"))],
    "together": BASE + [(READ_BATCH, together((GET_GROUP, u32(INSTANCE) + u64(3) + text("g")), (READ_GROUP, u64(99)),
                                            (READ_GROUP, u64(4)), (GET_GROUP, b""))), (READ_BATCH, b""),
                        (READ_BATCH, together((READ_BATCH, together((READ_GROUP, u64(4)))))),
                        (READ_BATCH, together((DELETE_GROUP, u64(4))) + u32(9))],
    "short": [(ADD_SERVICE, u32(4000000000)), (COMMIT, u64(0)), (99, b"")],
}
HEAD = u32(0x31595052) + u32(1000)
ONE = group(9, "g", "t", prop("a", 1, 1), prop("b", 5, "x", "y"), prop("c", 6, b"\0"), version=3)
REPLIES = {
    "group": b"\0" + HEAD + ONE,
    "listing": b"\1" + HEAD + u32(0) + u32(2) + ONE + group(10, "h", "t"),
    "endless": b"\1" + HEAD + u32(1) + u32(1) + ONE,
    "names": b"\2" + HEAD + u32(0) + u32(1) + u64(5) + text("running"),
    "status": b"\3" + HEAD + u64(1) + u32(1) + u32(1) + text("/f") + u64(2) + u64(3),
    "findings": b"\4" + HEAD + text("bad\n"),
    "snapshot": b"\5" + HEAD + u64(12),
    "error": b"\0" + u32(0x31595052) + u32(1003),
    "long": b"\0" + HEAD + u64(9) + u64(3) + u32(0) + u32(4000000000),
}


def write(folder, files):
    os.makedirs(os.path.join(HERE, folder), exist_ok=True)
    for name, content in files.items():
        with open(os.path.join(HERE, folder, name), "wb") as f:
            f.write(content)


write("repository", {name: requests(*each) for name, each in REQUESTS.items()})
write("rpy", REPLIES)
