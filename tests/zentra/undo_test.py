#!/usr/bin/env python3
"""zentra undo: it gives back the very bytes, or refuses and changes nothing."""
import fcntl
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

from programs import main, report_of, take_pairs, tools

OPEN_LOCK = 0x7FFFFFFF


def change(path, at):
    """Another byte, and the time of before."""
    status = os.stat(path)
    with open(path, 'r+b') as file:
        file.seek(at)
        byte = file.read(1)
        file.seek(at)
        file.write(bytes([byte[0] ^ 1]))
    os.utime(path, ns=(status.st_atime_ns, status.st_mtime_ns))


class Undo(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as folder:
            take_pairs(folder, 'big-leaf')
            cls.made = {end: pathlib.Path(folder, 'big-leaf', f'pair{end}').read_bytes()
                        for end in ('.idx', '.dat')}

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.index, self.data = (self.folder / f'pair{end}' for end in self.made)
        self.kept = self.folder / 'pair.idx.before'
        for end, contents in self.made.items():
            (self.folder / f'pair{end}').write_bytes(contents)
        os.utime(self.index, ns=(10**18, 10**18 + 123456789))
        self.repair()

    def repair(self):
        subprocess.run([tools.kestro, '-yq', 'pair'], cwd=self.folder, check=True,
                       env={**os.environ, 'KESTRO_KEEP': '1'}, capture_output=True)

    def files(self):
        return {path.name: path.read_bytes() for path in self.folder.iterdir() if path.is_file()}

    def undo(self, *words, pair='pair'):
        status, lines = report_of('undo', *words, pair, folder=self.folder)
        self.said = lines[-2]
        return status

    def assertUndone(self, *words):
        self.assertEqual(self.undo(*words), 0)
        self.assertEqual((self.index.read_bytes(), self.said['verdict']), (self.made['.idx'], 'done'))

    def assertRefused(self, status=4, *words):
        before = self.files()
        self.assertEqual(self.undo(*words), status)
        self.assertEqual(self.files(), before)
        if self.kept.exists():
            self.assertEqual(self.said['kept']['text'], str(self.kept.resolve()))

    def test_gives_back_the_very_bytes(self):
        self.assertNotEqual(self.index.read_bytes(), self.made['.idx'])
        self.assertUndone()
        self.assertEqual(os.stat(self.index).st_mtime_ns, 10**18 + 123456789)
        self.assertEqual(set(self.files()), {'pair.idx', 'pair.dat'})
        self.assertRefused()

    def test_undoes_the_last_of_two_repairs(self):
        change(self.kept, 0x40)
        self.index.write_bytes(self.made['.idx'])
        self.repair()
        self.assertUndone()
        self.assertEqual(set(self.files()) - {'pair.idx.before.undo'},
                         {'pair.idx', 'pair.dat', 'pair.idx.before'})
        self.assertRefused()

    def test_notes_in_a_file_of_their_own(self):
        beside = self.folder / 'pair.idx.before.undo'
        if not beside.exists():
            beside.write_bytes(os.getxattr(self.kept, 'user.kestro.undo'))
            os.removexattr(self.kept, 'user.kestro.undo')
        note = beside.read_bytes()
        beside.write_bytes(note + b' ')
        self.assertRefused()
        beside.write_bytes(note)
        self.assertUndone()
        self.assertFalse(beside.exists())

    def test_refuses_after_any_change(self):
        for path in self.index, self.kept:
            for at in 0x40, os.stat(path).st_size - 1:
                with self.subTest(path.name, at=at):
                    change(path, at)
                    self.assertRefused()
                    change(path, at)
        times = os.stat(self.data)
        os.utime(self.data)
        self.assertRefused()
        with open(self.data, 'ab') as file:
            file.write(b'x')
        os.utime(self.data, ns=(times.st_atime_ns, times.st_mtime_ns))
        self.assertRefused()
        (self.folder / 'pair.idx.before.9').symlink_to('pair.dat')
        other = self.folder / 'pair.idx.before.8'  # newer, but nothing tells what it belongs to
        other.write_bytes(b'no index at all')
        repaired = self.index.read_bytes()
        self.assertUndone('--force')
        self.assertEqual((self.folder / 'pair.idx.before.2').read_bytes(), repaired)
        self.assertEqual(self.said['replaced']['text'][-18:], '/pair.idx.before.2')
        os.utime(other)
        self.kept = other
        self.assertRefused(4, '--force')
        other.unlink()
        self.assertEqual(self.undo('--force'), 0)
        self.assertEqual(self.index.read_bytes(), repaired)

    def test_refuses_what_is_in_use_or_cannot_be_exchanged(self):
        before = self.files()
        with open(self.index, 'r+b') as file:  # closing it anywhere in this process ends the lock
            fcntl.lockf(file, fcntl.LOCK_SH | fcntl.LOCK_NB, 1, OPEN_LOCK)
            self.assertEqual((self.undo('--wait', '0'), 'kept' in self.said), (3, True))
        self.assertEqual(self.files(), before)
        os.link(self.index, self.folder / 'second.idx')
        self.assertRefused()
        os.unlink(self.folder / 'second.idx')
        link = self.folder / 'elsewhere'
        link.mkdir()
        for end in '.idx', '.dat':
            (link / f'name{end}').symlink_to(f'../pair{end}')
        self.assertEqual(self.undo(pair='elsewhere/name.idx'), 0)
        self.assertEqual(self.index.read_bytes(), self.made['.idx'])
        self.assertTrue((link / 'name.idx').is_symlink())

    def test_refuses_what_is_no_pair(self):
        self.assertEqual(self.undo(pair='none'), 4)
        shutil.move(self.data, self.folder / 'away')
        self.assertRefused()
        self.data.mkdir()
        self.assertRefused(2)


if __name__ == '__main__':
    main()
