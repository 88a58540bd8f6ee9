#!/usr/bin/env python3
"""zentra dump on pairs of all kinds, against the bytes of their data files."""
import csv
import fcntl
import io
import json
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import tempfile
import unittest

from programs import STEP, main, report_of, sample, take_pairs, tools, zentra as run

PRESENT = 0x0A


def slots(folder):
    """Number to the fixed part of each record that is present, and to the length of the other."""
    head = (folder / 'pair.idx').read_bytes()[:64]
    word = lambda at: int.from_bytes(head[at:at + 2], 'big')
    length, has_tail = word(13), word(59) != 0
    size = length + (7 if has_tail else 1)
    data = (folder / 'pair.dat').read_bytes()
    found = {}
    for at in range(0, len(data) - size + 1, size):
        if data[at + length] == PRESENT:
            tail = int.from_bytes(data[at + length + 1:at + length + 3], 'big') if has_tail else 0
            found[at // size + 1] = (data[at:at + length], tail)
    return length, has_tail, found


class Dump(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.all = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        take_pairs(cls.all)

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def take(self, name):
        for end in '.idx', '.dat':
            shutil.copy(self.all / name / f'pair{end}', self.folder)

    def as_bytes(self, folder, *words):
        """Number to the bytes of each record, as it is dumped; and the run."""
        length, has_tail, present = slots(folder)
        layout = self.folder / 'whole'
        layout.write_text(f'all bytes 0 {length}\n' + 'tail bytes tail\n' * has_tail)
        done = run('dump', '--format', 'csv', '--numbers', '--layout', layout, *words, 'pair',
                   folder=folder)
        rows = list(csv.DictReader(io.StringIO(done.stdout.decode(), newline='')))
        dumped = {int(row['#']): (bytes.fromhex(row['all']), len(row.get('tail', '')) // 2)
                  for row in rows}
        self.assertEqual(len(dumped), len(rows))
        return present, dumped, done

    def test_every_record_of_every_pair(self):
        kinds = set()
        for folder in sample(sorted(self.all.iterdir())):
            kinds.add(status := run('dump', 'pair', '--wait', '0', folder=folder).returncode)
            self.assertIn(status, (0, 2, 4), folder)
            if status == 4 or run('info', 'pair', folder=folder).returncode != 0:
                continue
            present, dumped, done = self.as_bytes(folder)
            if done.returncode == 0:
                self.assertEqual(dumped, present, folder)
                self.assertEqual(done.stderr, b'')
                _, dumped, done = self.as_bytes(folder, '--by', '1')
                if b'no index' not in done.stderr:
                    self.assertEqual(dumped, present, folder)
            elif dumped:
                self.assertTrue({key: value[0] for key, value in dumped.items()}.items() <=
                                {key: value[0] for key, value in present.items()}.items(), folder)
                self.assertIn(b'told above', done.stderr)
        if STEP == 1:
            self.assertEqual(kinds, {0, 2, 4})

    def test_forms_are_alike(self):
        self.take('sound-varying')
        lines = run('dump', 'pair', folder=self.folder).stdout.decode().splitlines()
        objects = [json.loads(line) for line in lines]
        table = run('dump', '--format', 'csv', 'pair', folder=self.folder).stdout.decode()
        rows = list(csv.DictReader(io.StringIO(table, newline='')))
        self.assertEqual([{k: v if isinstance(v, str) else json.dumps(v) for k, v in one.items()}
                          for one in objects], rows)
        self.assertGreater(len(rows), 5)
        (self.folder / 'pair.layout').write_text('name char 0 6\n')
        self.assertEqual(run('dump', 'pair', folder=self.folder).stdout.splitlines()[0],
                         b'{"name":"' + lines[0].split('"')[3][:6].strip().encode() + b'"}')

    def test_order_of_an_index(self):
        self.take('big-sound')
        (self.folder / 'pair.layout').write_text('k char 0 4\n')
        by = run('dump', '--by', '1', '--numbers', 'pair', folder=self.folder).stdout.splitlines()
        items = run('dump', '--numbers', 'pair', folder=self.folder).stdout.splitlines()
        self.assertEqual(sorted(by), sorted(items))
        keys = [line.split(b'"k":')[1] for line in by]
        self.assertEqual(keys, sorted(keys))
        done = run('dump', '--by', '9', 'pair', folder=self.folder)
        self.assertEqual((done.returncode, b'no index 9' in done.stderr), (4, True))

    def test_around_damage(self):
        self.take('big-sound')
        length, _, present = slots(self.folder)
        with open(self.folder / 'pair.dat', 'r+b') as file:
            file.seek(4 * (length + 1) + length)
            file.write(b'?')  # the state of record 5
        present.pop(5)
        status, lines = report_of('dump', '-o', 'out.csv', 'pair', folder=self.folder)
        self.assertEqual((status, lines[2]['code'], lines[2]['record'], lines[-2]['left-out']),
                         (2, 'dump.lost', 5, 1))
        self.assertEqual(len((self.folder / 'out.csv').read_bytes().splitlines()), len(present) + 1)
        _, dumped, done = self.as_bytes(self.folder, '--by', '1')
        self.assertEqual((dumped, done.returncode), (present, 2))
        with open(self.folder / 'pair.dat', 'r+b') as file:
            file.truncate(3 * (length + 1) + 7)
        done = run('dump', 'pair', folder=self.folder)
        self.assertEqual((done.returncode, len(done.stdout.splitlines())), (2, 3))
        self.assertIn(b'the data file ends behind record 3 of ', done.stderr)

    def test_variable_parts_that_are_lost(self):
        self.take('big-sound-varying')
        before = self.as_bytes(self.folder)[1]
        with open(self.folder / 'pair.idx', 'r+b') as file:
            data = bytearray(file.read())
            node = int.from_bytes(data[6:8], 'big') + 1
            pages = [at for at in range(node, len(data), node)
                     if data[at + 2:at + 4] == b'\x7e\x26']
            data[pages[3] + 2] = 0  # the mark of a storage page
            file.seek(0)
            file.write(data)
        _, dumped, done = self.as_bytes(self.folder)
        lost = [number for number in before if dumped[number] != before[number]]
        self.assertEqual({k: v[0] for k, v in dumped.items()}, {k: v[0] for k, v in before.items()})
        self.assertEqual({dumped[number][1] for number in lost}, {0})
        self.assertEqual((done.returncode, done.stderr.count(b'variable part')), (2, len(lost)))

    def make_large(self, tail):
        """A pair that several threads dump: more than 8 MiB of fixed parts."""
        fields = f'id char 0 8\ntext char next {600 if tail else 1000}\n' + tail * 'tail char tail\n'
        (self.folder / 'pair.layout').write_text(fields)
        rows = ({'id': f'{number:08}', 'text': 'a "b", ' * (number % 85),
                 **({'tail': 'é\\' * (number * 31 % 900)} if tail else {})}
                for number in range(15000 if tail else 9000))
        text = ''.join(json.dumps(row) + '\n' for row in rows)
        (self.folder / 'rows').write_text(text)
        lengths = ['--length', '608,4000'] if tail else []
        done = run('load', '--layout', 'pair.layout', '--key', '0,8,char', *lengths, 'pair', 'rows',
                   folder=self.folder)
        self.assertEqual(done.returncode, 0, done)
        return [json.loads(line) for line in text.splitlines()]

    def test_threads_keep_the_order(self):
        alone = {'preexec_fn': lambda: os.sched_setaffinity(0, [min(os.sched_getaffinity(0))])}
        for tail in False, True:
            rows = self.make_large(tail)
            size = os.path.getsize(self.folder / 'pair.dat')
            self.assertGreater(size, 8 << 20)
            for form in 'jsonl', 'csv', 'raw':
                words = ['dump', '--format', form, 'pair']
                dumped = run(*words, folder=self.folder).stdout
                self.assertTrue(dumped == run(*words, folder=self.folder, **alone).stdout)
                if form == 'jsonl':
                    told = [json.loads(line) for line in dumped.splitlines()]
                    self.assertTrue(told == [{**row, 'text': row['text'].rstrip()} for row in rows])
            with open(self.folder / 'pair.dat', 'r+b') as file:
                for at in size // 3, size // 2:  # states of two records
                    number = at // (size // len(rows))
                    file.seek((number + 1) * (size // len(rows)) - (7 if tail else 1))
                    file.write(b'?')
            told = run('dump', '-o', 'out', 'pair', folder=self.folder)
            self.assertEqual((told.returncode, told.stdout.count(b'neither present')), (2, 2), told)
            self.assertEqual((self.folder / 'out').read_bytes().count(b'\n'), len(rows) - 2)
            with open('/dev/full', 'wb') as full:
                done = subprocess.run([tools.zentra, 'dump', 'pair'], cwd=self.folder, stdout=full,
                                      stderr=subprocess.PIPE, check=False, timeout=60)
            self.assertEqual(done.returncode, 4)
            self.assertIn(b'could not be written: No space left', done.stderr)
            for end in '.idx', '.dat':
                os.unlink(self.folder / f'pair{end}')

    def test_where_it_goes(self):
        self.take('big-sound')
        whole = run('dump', 'pair', folder=self.folder).stdout
        out = self.folder / 'out'
        out.write_text('before')
        out.chmod(0o640)
        done = run('dump', '-o', 'out', 'pair', folder=self.folder)
        self.assertEqual((done.returncode, out.read_bytes(), out.stat().st_mode & 0o777),
                         (0, whole, 0o640))
        small = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (20000, 20000))
        done = run('dump', '-o', 'out', '--format', 'csv', 'pair', folder=self.folder,
                   preexec_fn=small)
        self.assertEqual((done.returncode, out.read_bytes()), (4, whole))
        self.assertIn(b'could not be written: File too large', done.stdout)
        for file, status in ('pair.dat', 4), ('missing/out', 4), ('/dev/full', 4), ('/dev/null', 0):
            done = run('dump', '-o', file, 'pair', folder=self.folder)
            self.assertEqual(done.returncode, status, (file, done))
        self.assertEqual(sorted(os.listdir(self.folder)), ['out', 'pair.dat', 'pair.idx'])
        for ignored in False, True:
            command = subprocess.Popen([tools.zentra, 'dump', 'pair'], cwd=self.folder,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                       preexec_fn=lambda: ignored and signal.signal(
                                           signal.SIGPIPE, signal.SIG_IGN))
            command.stdout.close()
            self.assertEqual(command.stderr.read(), b'')
            command.stderr.close()
            self.assertEqual(command.wait(), -signal.SIGPIPE)

    def test_refusals(self):
        self.take('big-sound')
        (self.folder / 'pair.layout').write_text('a char 0 9999\n')
        done = run('dump', 'pair', folder=self.folder)
        self.assertEqual((done.returncode, done.stdout), (4, b''))
        self.assertIn(b'pair.layout:1: ends at byte 9999', done.stderr)
        with open(self.folder / 'pair.idx', 'r+b') as file:
            fcntl.lockf(file, fcntl.LOCK_EX, 0x3FFFFFFF, 0)
            done = run('dump', '--wait', '0.1', 'pair', folder=self.folder)
        self.assertEqual(done.returncode, 3)
        self.assertIn(f'in use by process {os.getpid()}', done.stderr.decode())


if __name__ == '__main__':
    main()
