#!/usr/bin/env python3
"""zentra diff: what it tells of pairs that differ in known ways. A change is made in the data file
alone, for indexes are not walked."""
import fcntl
import os
import pathlib
import shutil
import tempfile
import unittest

from programs import failing, main, take_pairs, zentra

LAYOUT = '''id char 0 12
n long next
name char next 16
code int next
d double next
f float next
'''
FIXED, VARYING = 51, 47  # bytes of a slot


class Pair:
    """The data file of a pair, slot by slot."""

    def __init__(self, base, size):
        self.path, self.size = pathlib.Path(f'{base}.dat'), size
        self.bytes = bytearray(self.path.read_bytes())
        self.state = size - (7 if size == VARYING else 1)
        self.used = [at for at in range(1, len(self.bytes) // size + 1)
                     if self[at][self.state] == 10]
        self.free = [at for at in range(1, len(self.bytes) // size + 1)
                     if self[at][self.state] == 0]

    def __getitem__(self, number):
        return bytes(self.bytes[(number - 1) * self.size:number * self.size])

    def put(self, number, slot, at=0):
        begin = (number - 1) * self.size + at
        self.bytes[begin:begin + len(slot)] = slot
        with open(self.path, 'r+b') as file:
            file.seek(begin)
            file.write(slot)

    def swap(self, a, b):
        one, other = self[a], self[b]
        self.put(a, other)
        self.put(b, one)

    def drop(self, number):
        self.put(number, bytes(1), self.state)

    def key(self, number):
        return self[number][:12].decode().rstrip()


class Diff(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.made = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        names = ['sound-fixed', 'sound-varying', 'sound-number-order-first', 'sound-nodes-1000',
                 'data-cut', 'header-mark', 'descriptions-loop',
                 'header-magic', 'big-sound-varying']
        take_pairs(cls.made, *names)

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def pair(self, name, made='sound-fixed', size=FIXED):
        for end in '.idx', '.dat':
            shutil.copy(self.made / made / f'pair{end}', self.folder / (name + end))
        return Pair(self.folder / name, size)

    def diff(self, *words, **more):
        done = zentra('diff', *words, folder=self.folder, **more)
        self.assertEqual(done.stderr, b'', words)
        text = done.stdout.decode()
        quick = zentra('diff', '-q', *words, folder=self.folder, **more)
        if done.returncode < 2:
            self.assertEqual(quick.returncode, done.returncode)
            self.assertTrue('--json' in words or quick.stdout.count(b'\n') == 1, quick)
        return done.returncode, [line.strip() for line in text.splitlines()]

    def told(self, *words, status=1):
        """The lines between those about both pairs, without the order."""
        got, lines = self.diff('a', 'b', *words)
        self.assertEqual(got, status, lines)
        return [line for line in lines[1:-1] if not line.startswith('records by')], lines[-1]

    def test_records(self):
        a = self.pair('a')
        (self.folder / 'a.layout').write_text(LAYOUT)
        x, y, z = a.used[3], a.used[10], a.used[20]
        key, free = a.key, a.free[0]
        odd = b'\xff\x00"\\\n    ' + bytes(7)
        was = f'"{a[x][16:32].decode().rstrip()}"'

        def several(b):
            b.put(x, b'Another name    ', 16)
            b.drop(y)
            b.put(free, b'~new        ' + a[z][12:])
            b.put(z, b'\x00\x00\x00\x07', 12)

        n = int.from_bytes(a[z][12:16], 'big', signed=True)
        cases = {
            'nothing': (lambda b: None, 0, []),
            'other numbers': (lambda b: (b.swap(x, y), b.swap(z, free)), 0, []),
            'text': (lambda b: b.put(x, b'Another name    ', 16), 1,
                     [f'changed: "{key(x)}", record {x}', f'name: {was} -> "Another name"']),
            'bytes of no text': (lambda b: b.put(x, odd, 16), 1,
                                 [f'changed: "{key(x)}", record {x}',
                                  f'name: {was} -> 0x{odd.hex()}']),
            'bytes of no field': (lambda b: b.put(x, b'\x01', 47), 1,
                                  [f'changed: "{key(x)}", record {x}',
                                   f'bytes 46 to 49: 0x{a[x][46:50].hex()} -> '
                                   f'0x{a[x][46:47].hex()}01{a[x][48:50].hex()}']),
            'changed elsewhere': (lambda b: (b.put(x, b'Another name    ', 16), b.swap(x, free)), 1,
                                  [f'changed: "{key(x)}", record {x}, now record {free}',
                                   f'name: {was} -> "Another name"']),
            'gone': (lambda b: b.drop(x), 1, [f'removed: "{key(x)}", record {x}']),
            'other key': (lambda b: b.put(x, b'~new        '), 1,
                          [f'removed: "{key(x)}", record {x}', f'added: "~new", record {x}']),
            'several': (several, 1,
                        sorted([f'changed: "{key(x)}", record {x}',
                                f'removed: "{key(y)}", record {y}',
                                f'added: "~new", record {free}',
                                f'changed: "{key(z)}", record {z}',
                                f'name: {was} -> "Another name"', f'n: {n} -> 7'])),
            'state': (lambda b: b.put(x, b'\x05', b.state), 2,
                      [f'record {x} of b: not compared: its state is neither present nor absent',
                       f'record {x} of a: not compared: the other pair may have it: its record of '
                       'that number cannot be read']),
        }
        for name, (change, status, wanted) in cases.items():
            with self.subTest(name):
                change(self.pair('b'))
                lines, end = self.told(status=status)
                order = sorted if name == 'several' else list
                self.assertEqual(order(lines), wanted)
                if name == 'several':
                    keys = [line.split('"')[1] for line in lines if ': "' in line
                            and not line.startswith('name')]
                    self.assertEqual(keys, sorted(keys))
                    self.assertIn('1 removed, 1 added, 2 changed, 49 equal', end)

    def test_equal_keys(self):
        """As sets: of a key that many records have, by whatever numbers."""
        a = self.pair('a')
        one, two, three = [at for at in a.used if at > 20][:3]
        def record(text):
            return b'key         ' + bytes(4) + b'same            ' + bytes(16) + text + b' '

        numbers, b = (one, two, three), self.pair('b')
        for at, text in zip(numbers, (b'A', b'A', b'B')):
            a.put(at, record(text))
        for texts, wanted in ((b'B', b'A', b'A'), 0), ((b'A', b'B', b'B'), 1), ((b'C', b'D', b'E'), 3):
            for at, text in zip(numbers, texts):
                b.put(at, record(text))
            lines, _ = self.told('--by', '3', status=1 if wanted else 0)
            self.assertEqual(sum(line.startswith('changed: "same"') for line in lines), wanted, lines)
        for at in numbers:
            b.drop(at)
        for at, text in zip(b.free, (b'C', b'D', b'A')):
            b.put(at, record(text) + b'\n')
        lines, _ = self.told('--by', '3')
        self.assertEqual([line.split(':')[0] for line in lines], 2 * ['removed'] + 2 * ['added'])

    def test_structure(self):
        self.pair('a')
        self.pair('b', 'sound-nodes-1000')
        lines, _ = self.told()
        self.assertIn('node size: 256 -> 1000', lines)
        self.pair('b')
        index = bytearray((self.folder / 'b.idx').read_bytes())
        index[48] ^= 5  # of the next unique id
        (self.folder / 'b.idx').write_bytes(index)
        self.assertEqual(self.told(status=0)[0], [])
        self.assertRegex(self.told('--unique-id')[0][0], r'^next unique id: \d+ -> \d+$')
        self.pair('b', 'sound-varying', VARYING)
        lines, _ = self.told()
        self.assertIn('record length: 50 -> 40 to 1500', lines)

    def test_record_numbers(self):
        a = self.pair('a', 'sound-number-order-first')
        b = self.pair('b', 'sound-number-order-first')
        b.swap(1, 2)
        b.drop(5)
        lines, _ = self.told()
        self.assertEqual([line for line in lines if line[0] != 'b' and ' -> ' not in line],
                         ['changed: record 1', 'changed: record 2', 'removed: record 5'])
        self.assertEqual(self.told('--by', '2')[0],
                         [f'removed: {int.from_bytes(a[5][12:16], "big", signed=True)}, record 5'])

    def test_variable_parts(self):
        a = self.pair('a', 'sound-varying', VARYING)
        b = self.pair('b', 'sound-varying', VARYING)
        self.assertEqual(self.told(status=0)[0], [])
        one, two = [at for at in a.used if a[at][41:43] != bytes(2)][:2]
        b.swap(one, two)
        with open(self.folder / 'b.idx', 'ab') as index:
            index.write(b'more')  # not the storage of a copy any more
        self.assertEqual(self.told(status=0)[0], [])
        b.put(one, b[two][41:], 41)
        lines, _ = self.told()
        self.assertRegex(' '.join(lines), r'^changed: .* tail: .* -> ')
        b.put(one, b'\x00\x05\x7f\xff\xff\x05', 41)
        lines, end = self.told(status=2)
        self.assertIn('its variable part cannot be read', ' '.join(lines))
        self.assertIn('not all could be compared', end)

    def test_shapes(self):
        """Records of other lengths: by the fields that both layouts name."""
        self.pair('a')
        self.pair('b', 'sound-varying', VARYING)
        (self.folder / 'a.layout').write_text(LAYOUT)
        (self.folder / 'b.layout').write_text('id char 0 12\nother bytes next 8\n')
        status, lines = self.diff('a', 'b', '--json')
        self.assertEqual(status, 1)
        for name in 'n', 'name', 'code', 'd', 'f':
            self.assertIn(f'"message":"field {name}: there -> none"', ' '.join(lines))
        self.assertIn('"message":"field other: none -> there"', ' '.join(lines))

    def test_damage(self):
        self.pair('a')
        for made, said in (('data-cut', 'the data file ends'),
                           ('header-mark', 'ended before it had written'),
                           ('descriptions-loop', 'descriptions of its indexes are damaged'),
                           ('header-magic', 'no dictionary')):
            self.pair('b', made)
            for words in ('a', 'b'), ('b', 'a'):
                status, lines = self.diff(*words)
                self.assertEqual(status, 2, made)
                self.assertIn(said, ' '.join(lines), made)
        self.assertEqual(zentra('diff', 'a', 'none', folder=self.folder).returncode, 2)
        self.assertEqual(zentra('diff', 'a', folder=self.folder).returncode, 16)
        for words in ('--by', '9'), ('--layout', 'none'):
            self.assertEqual(self.diff('a', 'a2', *words)[0] if self.pair('a2') else 0, 2, words)
        x = self.pair('b').used[3]
        status, lines = self.diff('a', 'b', **failing(f'read b.dat 5 @{x * FIXED - 9}'))
        self.assertEqual((status, len(lines)), (2, 5), lines)
        self.assertIn(f'record {x} of b: not compared: the data file cannot be read there', lines)

    def test_locks(self):
        self.pair('a')
        self.pair('b')
        os.symlink('a.idx', self.folder / 'link.idx')
        os.symlink('a.dat', self.folder / 'link.dat')
        self.assertEqual(self.diff('a', 'link')[0], 0)
        os.symlink('a.idx', self.folder / 'half.idx')
        os.symlink('b.dat', self.folder / 'half.dat')
        status, lines = self.diff('a', 'half')
        self.assertEqual((status, 'its index file is that of the other pair' in lines[1]), (2, True))
        for name in 'a', 'b':
            with open(self.folder / f'{name}.idx', 'r+b') as file:
                fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB, 0x3FFFFFFF, 0)
                status, lines = self.diff('a', 'b', '--wait', '0.1')
                self.assertEqual(status, 2)
                self.assertRegex(lines[1], rf'^{name}: in use by process {os.getpid()}')
            self.assertEqual(self.diff('a', 'b', '--wait', '0.1')[0], 0)

    def test_big(self):
        a = self.pair('a', 'big-sound-varying', VARYING)
        b = self.pair('b', 'big-sound-varying', VARYING)
        for at in range(0, len(a.used) - 1, 2):
            b.swap(a.used[at], a.used[at + 1])
        self.assertEqual(self.told(status=0)[0], [])
        b.drop(a.used[7])
        self.assertEqual(len(self.told()[0]), 1)


if __name__ == '__main__':
    main()
