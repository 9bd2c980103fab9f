#!/usr/bin/env python3
"""The layers of the tree: no include and no call runs up, rooms use one another one way, and no sources stand in a circle.
usage: layers_test.py BUILD_DIR SOURCE_DIR"""

import collections
import fnmatch
import os
import re
import subprocess
import sys
import unittest

BUILD, SOURCE = sys.argv[1], sys.argv[2]

# Which room may include headers of which other one.
ROOMS = {
    'platform': set(),
    'common': {'platform'},
    'repository': {'platform'},
    'live': {'platform', 'common'},
    'tools': {'platform', 'common', 'live'},
}

# The layers of common/ and of platform/, the lowest first. A source uses its own layer and those below it. A name stands for a
# header and its source; '*' matches any characters, and the first match counts.
LAYERS = {
    'common': [
        ['libostrel.h'],
        ['libostrel_probe', 'libostrel_error'],
        ['libostrel_log', 'libostrel_thread'],
        ['libostrel_backend', 'libostrel_handle'],
        ['libostrel_util', 'libostrel_objects', 'libostrel_idlist'],
        ['libostrel_version', 'libostrel_batch'],
        ['libostrel_trace'],
        ['libostrel_read'],
        # Back ends and what they are made of.
        ['libostrel_files_lock'],
        ['libostrel_zio'],
        ['libostrel_lines'],
        ['libostrel_files*'],
        ['libostrel_cairn*'],
        ['libostrel_hatches'],
        # On the back ends, or beside them.
        ['libostrel_audit', 'libostrel_auth', 'libostrel_convert', 'libostrel_obsolete'],
        ['libostrel_attempt', 'libostrel_more'],
        ['libostrel_deferred'],
        ['libostrel_impl'],
        ['libostrel'],
        ['libostrel_hatchserver'],
    ],
    'platform': [
        ['include'],
        ['base'],
        ['attrlist', 'covenant', 'fdpass', 'msglog', 'peercred', 'progpath', 'regcmp'],
        ['enclave', 'rights'],
        ['hatch'],
        ['rpy', 'trail'],
    ],
}

# Sources that may call each other in a circle, since they share one header: their families.
FAMILIES = ['libostrel_cairn*']


def unit(path):
    """The unit that a file belongs to: in platform/ its folder, elsewhere its path without the ending."""
    parts = path.split('/')
    if parts[0] == 'platform':
        return parts[1]
    if path == 'common/libostrel.h':
        return 'libostrel.h'
    return os.path.splitext('/'.join(parts[1:]))[0]


def room(path):
    return path.split('/')[0]


def layer(room_name, name):
    for level, patterns in enumerate(LAYERS[room_name]):
        if any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns):
            return level
    raise AssertionError(f'{room_name}: {name} stands in no layer of {os.path.basename(__file__)}')


def sources():
    for top in ROOMS:
        for folder, _, names in os.walk(os.path.join(SOURCE, top)):
            for name in names:
                if name.endswith(('.h', '.cc')):
                    yield os.path.relpath(os.path.join(folder, name), SOURCE)


def find_header(includer, quote, name):
    """The file of the tree that an include means; None for a header of the system."""
    own = (os.path.dirname(includer), 'platform', 'tools') if quote == '"' else ()
    for folder in (*own, 'common', 'live', 'platform/include'):
        path = os.path.normpath(os.path.join(folder, name))
        if os.path.exists(os.path.join(SOURCE, path)):
            return path
    return None


def read_includes():
    """Pairs of files: which includes which."""
    for path in sources():
        with open(os.path.join(SOURCE, path), encoding='utf-8') as text:
            for quote, name in re.findall(r'^\s*#\s*include\s*(["<])([^">]+)[">]', text.read(), re.MULTILINE):
                header = find_header(path, quote, name)
                if header is not None:
                    yield path, header


def read_calls(objects):
    """Pairs of sources: which uses what another one defines, with the symbol, from the objects of a folder of the build."""
    defined, used = {}, []
    for folder, _, names in os.walk(objects):
        for name in names:
            source = os.path.relpath(os.path.join(folder, name), objects)[:-len('.o')]
            if not name.endswith('.cc.o'):
                continue
            listing = subprocess.run(['nm', '-P', os.path.join(folder, name)], check=True, capture_output=True, text=True)
            for line in listing.stdout.splitlines():
                symbol, kind = line.split()[:2]
                if kind in 'TDBR':
                    defined[symbol] = source
                elif kind == 'U':
                    used.append((source, symbol))
    for source, symbol in used:
        if symbol in defined and defined[symbol] != source:
            yield source, defined[symbol], symbol


def circles(edges):
    """The groups of units that reach one another."""
    reach = collections.defaultdict(set)
    for a, b in edges:
        reach[a].add(b)
    changed = True
    while changed:
        changed = False
        for a in list(reach):
            more = set().union(*(reach[b] for b in reach[a] if b in reach)) - reach[a]
            if more:
                reach[a] |= more
                changed = True
    return sorted({tuple(sorted(b for b in reach[a] if a in reach.get(b, ())))
                   for a in reach if a in reach[a]})


def in_a_family(names):
    return any(all(fnmatch.fnmatchcase(name, family) for name in names) for family in FAMILIES)


class Layers(unittest.TestCase):
    includes = sorted(read_includes())

    def test_rooms_use_one_another_one_way(self):
        self.assertTrue(self.includes)
        wrong = [f'{a} includes {b}' for a, b in self.includes if room(a) != room(b) and room(b) not in ROOMS[room(a)]]
        self.assertEqual(wrong, [])

    def test_no_include_runs_up(self):
        wrong = [f'{a} includes {b}' for a, b in self.includes if room(a) == room(b) and room(a) in LAYERS
                 and layer(room(a), unit(a)) < layer(room(b), unit(b))]
        self.assertEqual(wrong, [])

    def test_no_sources_include_one_another_in_a_circle(self):
        for top in ROOMS:
            edges = {(unit(a), unit(b)) for a, b in self.includes if room(a) == room(b) == top and unit(a) != unit(b)}
            self.assertEqual([c for c in circles(edges) if not in_a_family(c)], [], top)
        self.assertEqual(circles({(a, b) for a, b in self.includes if b.endswith('.h')}), [])

    def test_no_call_runs_up(self):
        for top, objects in (('common', 'common/CMakeFiles/ostrel_objects.dir'),
                             ('platform', 'platform/CMakeFiles/meridon_objects.dir')):
            calls = sorted((f'{top}/{a}', f'{top}/{b}', symbol)
                           for a, b, symbol in read_calls(os.path.join(BUILD, objects))
                           if all(os.path.exists(os.path.join(SOURCE, top, path)) for path in (a, b)))
            self.assertTrue(calls)
            wrong = [f'{a} uses {symbol} of {b}' for a, b, symbol in calls
                     if layer(top, unit(a)) < layer(top, unit(b))]
            self.assertEqual(wrong, [])
            edges = {(unit(a), unit(b)) for a, b, _ in calls if unit(a) != unit(b)}
            self.assertEqual([c for c in circles(edges) if not in_a_family(c)], [], top)


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1])
