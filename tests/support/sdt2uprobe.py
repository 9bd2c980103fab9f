#!/usr/bin/env python3
"""Prints the static trace points of an ELF file as definitions of kernel uprobes.

usage: sdt2uprobe.py FILE PROVIDER GROUP

One line for each location, in the form that tracefs takes in uprobe_events. Argument N is aN, and where it has the
width of a pointer also the text behind it, sN ("(fault)" where it points nowhere). The kernel raises the semaphore
while the event is enabled. An argument in a form that isn't known here ends the program with a message.
"""
import os
import re
import subprocess
import sys

REGISTER = {}
for letter in 'abcd':
    for form in ('r%sx', 'e%sx', '%sx', '%sl'):
        REGISTER[form % letter] = letter + 'x'
for name in ('si', 'di', 'bp', 'sp'):
    for form in ('r%s', 'e%s', '%s', '%sl'):
        REGISTER[form % name] = name
for number in range(8, 16):
    for suffix in ('', 'd', 'w', 'b'):
        REGISTER['r%d%s' % (number, suffix)] = 'r%d' % number


def readelf(option, path):
    return subprocess.check_output(['readelf', '-W', option, path], text=True)


def segments(path):
    rows = re.findall(r'^\s+LOAD\s+(0x\w+)\s+(0x\w+)\s+\S+\s+(0x\w+)', readelf('-l', path), re.M)
    return [[int(field, 16) for field in row] for row in rows]


def file_offset(loads, address):
    for offset, start, size in loads:
        if start <= address < start + size:
            return address - start + offset
    sys.exit('no segment holds the address 0x%x' % address)


def fetch(argument):
    """The kernel's words for one argument, and whether it may point to a text."""
    size, place = argument.split('@', 1)
    width = abs(int(size)) * 8
    kind = ('s' if size.startswith('-') else 'u') + str(width)
    match = re.fullmatch(r'\$(-?\d+)', place)
    if match:
        return '\\' + match.group(1), kind, False
    match = re.fullmatch(r'%(\w+)', place)
    if match:
        return '%' + REGISTER[match.group(1)], kind, width == 64
    match = re.fullmatch(r'(-?\d*)\(%(\w+)\)', place)
    if match:
        return '%+d(%%%s)' % (int(match.group(1) or 0), REGISTER[match.group(2)]), kind, width == 64
    sys.exit('an argument in an unknown form: ' + argument)


def main():
    path, provider, group = os.path.realpath(sys.argv[1]), sys.argv[2], sys.argv[3]
    loads = segments(path)
    base = re.search(r'\.stapsdt\.base\s+\S+\s+(\w+)', readelf('-S', path))
    if not base:
        sys.exit('no trace points in ' + path)
    note = re.compile(r'Provider: (\S+)\s+Name: (\S+)\s+Location: (0x\w+), Base: (0x\w+), Semaphore: (0x\w+)\s+'
                      r'Arguments: ?(.*)')
    seen = {}
    for match in note.finditer(readelf('-n', path)):
        if match.group(1) != provider:
            continue
        name = match.group(2)
        location, note_base, semaphore = (int(field, 16) for field in match.group(3, 4, 5))
        moved = int(base.group(1), 16) - note_base
        seen[name] = seen.get(name, 0) + 1
        words = []
        for index, argument in enumerate(match.group(6).split()):
            place, kind, may_be_text = fetch(argument)
            words.append('a%d=%s:%s' % (index, place, kind))
            if may_be_text:
                words.append('s%d=+0(%s):string' % (index, place))
        event = name if seen[name] == 1 else '%s_%d' % (name, seen[name])
        print('p:%s/%s %s:0x%x(0x%x) %s' % (group, event, path, file_offset(loads, location + moved),
                                            file_offset(loads, semaphore + moved), ' '.join(words)))


main()
