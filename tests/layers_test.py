#!/usr/bin/env python3
"""The layers of the tree: no include and no call runs up, rooms use one another one way, and no sources of a
folder use one another in a circle.
usage: layers_test.py BUILD_DIR SOURCE_DIR"""

import collections
import fnmatch
import functools
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

# Which headers of other rooms a room may include: those that are installed, and the few private ones whose code it has linked
# in. A room that isn't named here may include each header of the rooms above.
HEADERS = {
    'live': ['platform/include/*', 'platform/base/*', 'common/libostrel.h', 'common/libostrel_more.h', 'common/libostrel_batch.h',
             'common/libostrel_version.h', 'common/libostrel_handle.h', 'common/libostrel_backend.h', 'common/libostrel_idlist.h'],
    'tools': ['platform/include/*', 'platform/base/*', 'live/libostrelx.h', 'common/libostrel.h', 'common/libostrel_lines.h',
              'common/libostrel_files_blocks.h', 'common/libostrel_files_fields.h', 'common/libostrel_files_newfile.h',
              'common/libostrel_files_lock.h', 'common/libostrel_version.h'],
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
        ['libostrel_hatches*'],
        # On the back ends, or beside them.
        ['libostrel_audit', 'libostrel_auth', 'libostrel_convert', 'libostrel_obsolete'],
        ['libostrel_attempt', 'libostrel_more'],
        ['libostrel_deferred'],
        ['libostrel_impl'],
        ['libostrel'],
        ['libostrel_hatchserver_rules'],
        ['libostrel_hatchserver_hub', 'libostrel_hatchserver_live'],
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

# Sources that may call each other in a circle: families. All members of one include its header, which says why.
FAMILIES = {
    # The back end of the repository: a refresh acquires the resources of an enclave, and the last release of them ends it.
    'common/libostrel_cairn.h',
    # The server of a hatch: what serves a peer may have to drop others, and what drops one goes on serving.
    'platform/hatch/server.h',
}

# Where the sources are units of their own, and the objects that the build makes of them.
FOLDERS = {
    **{f'platform/{name}': ['platform/CMakeFiles/meridon_objects.dir'] for level in LAYERS['platform'] for name in level},
    'live': ['live/CMakeFiles/ostrelx_objects.dir'],
    'repository': ['repository/CMakeFiles/configd_inside.dir', 'repository/CMakeFiles/configd.dir'],
    'tools/shared': ['tools/CMakeFiles/tools_shared.dir'],
    'tools/ostrel': ['tools/CMakeFiles/ostrel_tool.dir'],
    'tools/cairnctl': ['tools/CMakeFiles/cairnctl.dir'],
    'tools/enclavectl': ['tools/CMakeFiles/enclavectl.dir'],
}


def room(path):
    return path.split('/')[0]


def stem(path):
    """A source and its header: the path without its ending. The public header of the library stands by itself."""
    return path if path == 'common/libostrel.h' else os.path.splitext(path)[0]


def unit(path):
    """The unit of a room that a file belongs to: in platform/ its folder, elsewhere a source and its header."""
    return path.split('/')[1] if room(path) == 'platform' else stem(path).partition('/')[2]


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


@functools.cache
def read_objects(objects):
    """By source, what it defines and what it uses of others: its symbols, from the objects of a folder of the build."""
    found = {}
    for folder, _, names in os.walk(os.path.join(BUILD, objects)):
        for name in names:
            source = os.path.relpath(os.path.join(folder, name), os.path.join(BUILD, objects))[:-len('.o')]
            source = f'{room(objects)}/{source}'
            if not source.endswith('.cc') or not os.path.exists(os.path.join(SOURCE, source)):
                continue
            listing = subprocess.run(['nm', '-P', os.path.join(folder, name)], check=True, capture_output=True, text=True)
            symbols = [line.split()[:2] for line in listing.stdout.splitlines()]
            found[source] = ({symbol for symbol, kind in symbols if kind in 'TDBR'},
                             {symbol for symbol, kind in symbols if kind == 'U'})
    return found


def read_calls(objects):
    """Pairs of sources: which uses what another one defines, with the symbol."""
    defined = {symbol: source for folder in objects for source, (own, _) in read_objects(folder).items() for symbol in own}
    for folder in objects:
        for source, (_, used) in read_objects(folder).items():
            for symbol in used:
                if defined.get(symbol, source) != source:
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


def in_a_family(names, includes):
    """Whether one family's header is included by all of these, which are paths without endings."""
    members = collections.defaultdict(set)
    for a, b in includes:
        members[b].add(stem(a))
    return any(all(name == stem(header) or name in members[header] for name in names) for header in FAMILIES)


class Layers(unittest.TestCase):
    includes = sorted(read_includes())

    def test_rooms_use_one_another_one_way(self):
        self.assertTrue(self.includes)
        wrong = [f'{a} includes {b}' for a, b in self.includes if room(a) != room(b) and room(b) not in ROOMS[room(a)]]
        self.assertEqual(wrong, [])

    def test_a_room_includes_no_private_headers_of_others(self):
        self.assertLessEqual(set(HEADERS), {room(a) for a, b in self.includes if room(b) == 'common'})
        wrong = [f'{a} includes {b}' for a, b in self.includes if room(a) != room(b) and room(a) in HEADERS
                 and not any(fnmatch.fnmatchcase(b, header) for header in HEADERS[room(a)])]
        self.assertEqual(wrong, [])

    def test_no_include_runs_up(self):
        wrong = [f'{a} includes {b}' for a, b in self.includes if room(a) == room(b) and room(a) in LAYERS
                 and layer(room(a), unit(a)) < layer(room(b), unit(b))]
        self.assertEqual(wrong, [])

    def check_circles(self, edges, where):
        self.assertEqual([c for c in circles({(a, b) for a, b in edges if a != b}) if not in_a_family(c, self.includes)], [], where)

    def test_no_includes_run_in_a_circle(self):
        for top in ROOMS:
            own = [(a, b) for a, b in self.includes if room(a) == room(b) == top]
            self.check_circles({(f'{top}/{unit(a)}', f'{top}/{unit(b)}') for a, b in own}, top)
        self.assertEqual(circles({(a, b) for a, b in self.includes if b.endswith('.h')}), [])

    def test_no_call_runs_up(self):
        for top, objects in (('common', 'common/CMakeFiles/ostrel_objects.dir'),
                             ('platform', 'platform/CMakeFiles/meridon_objects.dir')):
            calls = sorted(read_calls([objects]))
            self.assertTrue(calls)
            wrong = [f'{a} uses {symbol} of {b}' for a, b, symbol in calls
                     if layer(top, unit(a)) < layer(top, unit(b))]
            self.assertEqual(wrong, [])
            self.check_circles({(f'{top}/{unit(a)}', f'{top}/{unit(b)}') for a, b, _ in calls}, top)

    def test_no_sources_of_a_folder_use_one_another_in_a_circle(self):
        for folder, objects in FOLDERS.items():
            of_folder = {path for path in sources() if os.path.dirname(path) == folder}
            built = {source for target in objects for source in read_objects(target)}
            self.assertEqual({path for path in of_folder if path.endswith('.cc')} - built, set(), 'not in FOLDERS as it is built')
            uses = self.includes + [(a, b) for a, b, _ in read_calls(objects)]
            self.check_circles({(stem(a), stem(b)) for a, b in uses if {a, b} <= of_folder}, folder)


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1])
