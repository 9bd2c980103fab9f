#!/usr/bin/env python3
"""Writes the corpus of packed lists: accepted and refused ones, each refused for one reason.

The form is spelled out here a second time, independently of the library. usage: attrlist_unpack.py [DIRECTORY]
"""
import os
import struct
import sys

START = b"ATLP\x01\x01\0\0"
BOOLEAN, INT32, UINT32, INT64, UINT64, TEXT = 21, 5, 6, 7, 8, 9
BOOLEANS, INT32S, UINT32S, INT64S, UINT64S, TEXTS = 24, 13, 14, 15, 16, 17
LIST, LISTS = 19, 20


def u32(number):
    return struct.pack("<I", number)


def pair(name, kind, count, value, zero=0):
    return struct.pack("<IHBB", count, len(name), kind, zero) + name + b"\0" + value


def plist(*pairs):
    return u32(len(pairs)) + b"".join(pairs)


def text(name, value):
    return pair(name, TEXT, len(value), value + b"\0")


def texts(name, *values):
    return pair(name, TEXTS, len(values), b"".join(u32(len(v)) + v + b"\0" for v in values))


def nested(name, value):
    return pair(name, LIST, 1, value)


def numbers(name, kind, code, *values):
    return pair(name, kind, len(values), struct.pack("<%d%s" % (len(values), code), *values))


def deep(depth):
    value = plist()
    for _ in range(depth - 1):
        value = plist(nested(b"a", value))
    return value


def deep_in_arrays(depth):
    value = plist()
    for _ in range(depth - 1):
        value = plist(pair(b"a", LISTS, 1, value))
    return value


def one(kind, count, value, **fault):
    return plist(pair(b"a", kind, count, value, **fault))


def head(name_length, kind=INT32):
    return u32(1) + struct.pack("<IHBB", 1, name_length, kind, 0)


OBJECT = plist(
    nested(b"object-idlist", plist(text(b"linkname", b"net123"), text(b"zone", b"z26"))),
    nested(b"object-props", plist(
        numbers(b"mtu", UINT32S, "I", 4711), numbers(b"on", BOOLEANS, "I", 1),
        texts(b"tags", b"lan,site7", b"role123"), numbers(b"ctr", INT64S, "q", 5123456789012))))

ACCEPTED = {
    "empty": plist(),
    "scalars": plist(
        numbers(b"b", BOOLEAN, "I", 1), numbers(b"i32", INT32, "i", -5), numbers(b"u32", UINT32, "I", 6),
        numbers(b"i64", INT64, "q", -7), numbers(b"u64", UINT64, "Q", 2**64 - 1),
        text(b"s", b"a text"), text(b"empty", b""), text(b"long", b"x" * 300)),
    "arrays": plist(
        numbers(b"b", BOOLEANS, "I", 0, 1, 7), numbers(b"i32", INT32S, "i", -1), numbers(b"u32", UINT32S, "I", 1, 2, 3),
        numbers(b"i64", INT64S, "q", -1, 2), numbers(b"u64", UINT64S, "Q", 1), texts(b"s", b"", b"one", b"lan,site7")),
    "empty_arrays": plist(*[pair(b"e%d" % kind, kind, 0, b"")
                            for kind in (INT32S, UINT32S, INT64S, UINT64S, TEXTS, LISTS, BOOLEANS)]),
    "boolean_above_one": plist(numbers(b"b", BOOLEAN, "I", 0xfffffffe), numbers(b"bs", BOOLEANS, "I", 2, 0x80000000)),
    "object": OBJECT,
    "object_list": plist(numbers(b"object-count", UINT64, "Q", 2), pair(b"object-list", LISTS, 2, OBJECT + plist())),
    "depth_64": deep(64),
    "empty_name": plist(text(b"", b"v")),
    "names_17": plist(*[numbers(b"name%d" % i, INT32, "i", i) for i in range(17)]),
    "names_200": plist(*[numbers(b"name%d" % i, INT32S, "i", *range(i % 5)) for i in range(200)]),
    "empty_lists": plist(pair(b"", LISTS, 64, plist() * 64)),
    "names_97": plist(*[pair(b"%c" % (30 + i), INT32S, 0, b"") for i in range(97)]),
    "name_longest": plist(numbers(b"n" * 65535, INT32, "i", 1)),
}

REFUSED = {
    "header_alone": b"",
    "trailing_byte": plist() + b"\0",
    "count_too_high": u32(2) + text(b"a", b"b"),
    "count_huge": u32(0xffffffff),
    "count_too_low": u32(0) + text(b"a", b"b"),
    "depth_65": deep(65),
    "depth_5000": deep(5000),
    "depth_65_in_array": deep_in_arrays(65),
    "duplicate_name": plist(text(b"a", b"1"), numbers(b"a", INT32, "i", 1)),
    "duplicate_name_among_many": plist(*[numbers(b"name%d" % i, INT32, "i", i) for i in list(range(40)) + [3]]),
    "duplicate_name_nested": plist(nested(b"l", plist(text(b"a", b"1"), text(b"a", b"1")))),
    "type_0": one(0, 1, u32(1)),
    "type_boolean_without_value": one(1, 1, b""),
    "type_int8_array": one(25, 1, b"\1"),
    "type_29": one(29, 1, u32(1)),
    "type_255": one(255, 1, u32(1)),
    "reserved_byte": one(INT32, 1, u32(1), zero=1),
    "scalar_count_0": one(INT32, 0, b""),
    "scalar_count_2": one(INT32, 2, u32(1) * 2),
    "list_count_0": one(LIST, 0, b""),
    "list_count_2": one(LIST, 2, plist() + plist()),
    "array_huge": one(UINT64S, 0x7fffffff, u32(1)),
    "array_above_limit": one(INT32S, 0x80000000, u32(1)),
    "array_wraps": one(UINT64S, 0x20000001, b"x" * 8),
    "array_a_byte_short": one(UINT64S, 2, b"x" * 15),
    "array_short_of_the_next_pair": u32(2) + pair(b"a", UINT64S, 2, b"x" * 15),
    "lists_huge": one(LISTS, 0x7fffffff, plist()),
    "texts_huge": one(TEXTS, 0x7fffffff, u32(0) + b"\0"),
    "text_without_terminator": one(TEXT, 3, b"abcd"),
    "text_ends_with_bytes": one(TEXT, 3, b"abc"),
    "text_with_nul": one(TEXT, 3, b"a\0c\0"),
    "text_huge": one(TEXT, 0x7fffffff, b"abc\0"),
    "element_without_terminator": one(TEXTS, 1, u32(3) + b"abcd"),
    "element_with_nul": one(TEXTS, 1, u32(3) + b"a\0c\0"),
    "element_huge": one(TEXTS, 1, u32(0xffffffff) + b"abc\0"),
    "name_without_terminator": head(1) + b"ab" + u32(1),
    "name_with_nul": plist(pair(b"a\0b", INT32, 1, u32(1))),
    "name_longer_than_bytes": head(65535) + b"a\0" + u32(1),
}

# What doesn't begin with the right eight bytes.
BAD_STARTS = {
    "nothing": b"",
    "start_cut": START[:7],
    "magic": b"ATLQ" + START[4:] + plist(),
    "version": b"ATLP\x02\x01\0\0" + plist(),
    "mode": b"ATLP\x01\x02\0\0" + plist(),
    "mode_rest": b"ATLP\x01\x01\0\x01" + plist(),
}


def write(directory, files):
    os.makedirs(directory, exist_ok=True)
    for name, content in files.items():
        with open(os.path.join(directory, name), "wb") as out:
            out.write(content)


def main():
    here = os.path.splitext(os.path.abspath(__file__))[0]
    directory = sys.argv[1] if len(sys.argv) > 1 else here
    write(os.path.join(directory, "accepted"), {name: START + body for name, body in ACCEPTED.items()})
    write(os.path.join(directory, "refused"), {name: START + body for name, body in REFUSED.items()})
    write(os.path.join(directory, "refused"), BAD_STARTS)


main()
