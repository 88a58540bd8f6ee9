#!/usr/bin/env python3
"""zentra salvage: every record of a data file comes back, or its bytes stand in the losses; nothing
that is read is changed, and nothing half made is left."""
import collections
import json
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import tempfile
import unittest

from programs import failing, lines_of, main, take_pairs, tools, zentra

SOUND = '''sound-fixed sound-long-key-types sound-nodes-128 sound-nodes-1025
    sound-number-order-first sound-varying sound-without-keys big-sound-varying'''.split()
# What becomes of the index file: with the first two nothing may be missing.
INDEXES = ('kept', 'without dictionary', 'cut', 'gone', 'empty', "another's")
# Damaged pairs: how many records are lost, doubtful, and kept without their variable part.
DAMAGED = {'storage-page-magic': (0, 0, 0), 'storage-list-loop': (0, 0, 0),
           'storage-slots-past-page': (0, 0, 0), 'storage-reference-zero': (0, 1, 0),
           'storage-continuation-zero': (0, 1, 0), 'storage-continuation-loop': (0, 1, 0),
           'record-state-unknown': (1, 0, 0), 'record-keys-equal': (2, 0, 0),
           'data-cut-in-record': (1, 0, 0), 'header-record-size-zero': (0, 0, 0),
           'descriptions-zeroed': (0, 0, 0), 'leaf-garbage': (0, 0, 0)}


class Salvage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.all = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        take_pairs(cls.all, *{*SOUND, *DAMAGED})

    def take(self, name):
        """A copy of a pair, and what an independent reader reads of it."""
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.index, self.data = (self.folder / f'pair{end}' for end in ('.idx', '.dat'))
        for path in self.index, self.data:
            shutil.copy(self.all / name / path.name, path)
        return self.records('pair')[1]

    def records(self, name):
        told = subprocess.run([tools.pairs, 'look', self.folder / name], capture_output=True)
        verdict, *lines = told.stdout.decode().splitlines()
        return verdict, dict(line.split() for line in lines if ' ' in line.strip())

    def salvage(self, *words, **more):
        """The last object of the report; the source is as it was, and only what is told is new."""
        before = {path.name: path.read_bytes() for path in self.folder.iterdir()}
        self.done = zentra('salvage', 'pair.dat', '-o', 'new', '--json', *words, folder=self.folder,
                           **more)
        lines = lines_of(self.done)
        self.findings = {line['code'] for line in lines if line['type'] == 'finding'}
        after = {path.name: path.read_bytes() for path in self.folder.iterdir()}
        made = {'new.idx', 'new.dat'} if self.done.returncode < 2 else set()
        made |= {lines[-2][key]['text'] for key in ('losses', 'deleted-records')
                 if key in lines[-2]}
        self.assertEqual(set(after) - set(before), made)
        self.assertEqual({name: after[name] for name in before}, before)
        if made:
            self.assertEqual(zentra('check', 'new', folder=self.folder).returncode, 0)
        return lines[-2]

    def lost(self, name='new.lost.jsonl'):
        path = self.folder / name
        return [json.loads(line) for line in path.read_text().splitlines()] if path.exists() else []

    def keys(self, name):
        told = zentra('info', '--json', name, folder=self.folder).stdout.decode()
        return [line['message'].split(';')[0] for line in map(json.loads, told.splitlines())
                if line.get('code') == 'info.index']

    def change_index(self, how, name):
        if how == 'gone':
            self.index.unlink()
        elif how == 'empty':
            self.index.write_bytes(b'')
        elif how == 'cut':
            os.truncate(self.index, self.index.stat().st_size * 2 // 3)
        elif how == 'without dictionary':
            with open(self.index, 'r+b') as file:
                file.write(bytes(125))
        elif how == "another's":
            other = 'sound-fixed' if name != 'sound-fixed' else 'sound-nodes-128'
            shutil.copy(self.all / other / 'pair.idx', self.index)

    def test_every_record_comes_back_whatever_became_of_the_index(self):
        for name in SOUND:
            for how in INDEXES:
                with self.subTest(name, index=how):
                    before = self.take(name)
                    keys = self.keys('pair')
                    is_whole = how in INDEXES[:2]
                    self.change_index(how, name)
                    told = self.salvage()
                    verdict, after = self.records('new')
                    self.assertEqual(verdict, 'sound')
                    self.assertEqual(told['records'], len(before))
                    whole = {**after, **{str(line['record']): line['fixed'] + line['variable']
                                         for line in self.lost() if line['record']}}
                    self.assertEqual(set(after), set(before))
                    for number, record in after.items():
                        self.assertTrue(before[number].startswith(record))
                        self.assertTrue(before[number].startswith(whole[number]))
                        if is_whole or not self.findings:
                            self.assertEqual(record, before[number])
                    if is_whole:
                        self.assertEqual((self.done.returncode, self.keys('new')), (0, keys))
                    elif how in ('gone', 'empty'):
                        self.assertEqual(len(self.keys('new')), 1)

    def test_what_is_damaged_is_told_and_joined_again_where_it_can_be(self):
        for name, (lost, doubtful, incomplete) in DAMAGED.items():
            with self.subTest(name):
                before = self.take(name)
                told = self.salvage('--variable=drop')
                self.assertEqual((told['lost'], told['doubtful']), (lost + incomplete, doubtful))
                _, after = self.records('new')
                ours = {str(line['record']): line['fixed'] + line['variable'] for line in self.lost()}
                if 'size' not in name and 'storage' not in name:
                    for number, record in before.items():
                        self.assertIn(record, (after.get(number), ours.get(number)))
                self.assertEqual(self.done.returncode,
                                 1 if lost + doubtful + incomplete or self.findings else 0)

    def test_takes_what_looks_like_a_record_wherever_it_stands(self):
        for name, slot in ('sound-fixed', 51), ('sound-varying', 47):
            records = len(self.take(name))
            whole = self.data.read_bytes()
            odd = bytearray(whole)
            odd[slot * 5 - (7 if slot == 47 else 1)] = 0x41  # the state of record 5
            odd[slot * 6 - (7 if slot == 47 else 1)] = 0x41  # ... 6
            for bytes_, words, found in (
                    (bytes(odd), [], 'record.state'), (bytes(odd), ['--take-all'], 'salvage.taken'),
                    (whole[10:], ['--take-all'], 'salvage.step'),
                    (whole[:slot * 9] + whole[slot * 9 + 20:], ['--take-all'], 'salvage.step'),
                    (whole[:slot * 9] + b'other' * 7 + whole[slot * 9:], ['--take-all'],
                     'salvage.step')):
                with self.subTest(name, found=found, size=len(bytes_)):
                    for path in self.folder.glob('new*'):
                        path.unlink()
                    self.data.write_bytes(bytes_)
                    told = self.salvage(*words)
                    self.assertIn(found, self.findings)
                    self.assertGreaterEqual(told['records'], records - 2)
                    if found == 'salvage.taken':
                        self.assertEqual(told['doubtful'], told['records'] - told['lost'] - records
                                         + 2 if told['records'] > records else told['doubtful'])

    def test_keys_and_lengths_come_from_elsewhere(self):
        self.take('sound-varying')
        shutil.copy(self.data, self.folder / 'other.dat')
        shutil.copy(self.index, self.folder / 'other.idx')
        self.index.unlink()
        (self.folder / 'keys').write_text('0,8,char\n8,8,char,dups\n')
        for words, count in ((['--like', 'other'], 2), (['--keys', 'keys'], 2),
                             (['--key', '0,8,char', '--key', '8,8,char,dups'], 2),
                             (['--length', '40-1500'], 1), (['--index', 'other.idx'], 2)):
            with self.subTest(words):
                for path in self.folder.glob('new*'):
                    path.unlink()
                self.salvage(*words)
                self.assertEqual(len(self.keys('new')), count)
                self.assertEqual('record.unreadable' in self.findings, words[0] != '--index')

    def test_deleted_records_have_a_file_of_their_own(self):
        before = self.take('sound-fixed')
        with open(self.data, 'r+b') as file:
            for number in 1, 2:
                file.seek(51 * number - 1)
                file.write(b'\0')
        told = self.salvage('--deleted')
        deleted = [line for line in self.lost('new.deleted.jsonl') if str(line['record']) in before]
        self.assertEqual([line['fixed'] for line in deleted], [before['1'], before['2']])
        self.assertEqual((self.findings, told['records'], told['lost']),
                         ({'salvage.missing'}, len(before) - 2, 2))

    def test_what_is_gone_without_a_trace_is_counted(self):
        for name, slot in ('sound-fixed', 51), ('sound-varying', 47):
            records = len(self.take(name))
            whole = self.data.read_bytes()
            for bytes_ in whole[:slot * 9], whole[:slot * 9] + bytes(len(whole) - slot * 9), b'':
                with self.subTest(name, size=len(bytes_)):
                    for path in self.folder.glob('new*'):
                        path.unlink()
                    self.data.write_bytes(bytes_)
                    told = self.salvage()
                    self.assertIn('salvage.missing', self.findings)
                    self.assertEqual(told['records'] + told['lost'], records)

    def test_slots_are_found_beside_absent_ones(self):
        """Out of step, each state falls on a zero byte of a number: those are no absent records."""
        self.take('sound-fixed')
        rows = ''.join(f'{i:04d},{i}\n' for i in range(300))
        (self.folder / 'rows.layout').write_text('id char 0 4\namount long 4\nname char next 11\n')
        (self.folder / 'rows.csv').write_text('id,amount\n' + rows)
        done = zentra('load', '--layout', 'rows.layout', '--key', '0,4,char', 'pair2', 'rows.csv',
                      folder=self.folder)
        self.assertEqual(done.returncode, 0, done)
        data = (self.folder / 'pair2.dat').read_bytes()
        os.replace(self.folder / 'pair2.idx', self.index)
        self.data.write_bytes(data[:2000] + b'other' * 3 + data[2000:])
        told = self.salvage('--take-all')
        self.assertGreaterEqual(told['records'], 299)
        self.assertIn('salvage.step', self.findings)

    def test_holes_cost_nothing(self):
        """Nor behind records."""
        records = len(self.take('sound-fixed'))
        self.index.unlink()
        with open(self.data, 'r+b') as file:
            file.truncate(51 << 34)
            file.seek(51 << 34)
            file.write(b'x' * 50 + b'\n')
        done = zentra('salvage', 'pair.dat', '--length', '50', '-o', 'new', '--json', folder=self.folder)
        lines = lines_of(done)
        self.assertEqual((lines[-2]['records'], {line.get('code') for line in lines} >= {'salvage.numbers'}),
                         (records + 1, True))

    def test_many_parts_of_one_length_that_have_lost_their_way(self):
        self.take('sound-fixed')
        (self.folder / 'rows.layout').write_text('id char 0 8\nnote char tail\n')
        (self.folder / 'rows.csv').write_text('id,note\n' + ''.join(f'{i:08d},{i:08d}\n' for i in range(40000)))
        words = 'load', '--layout', 'rows.layout', '--key', '0,8,char', '--length', '8,99', 'many', 'rows.csv'
        self.assertEqual(zentra(*words, folder=self.folder).returncode, 0)
        data = bytearray((self.folder / 'many.dat').read_bytes())
        for at in range(0, 40000 * 15, 30):
            data[at + 11:at + 15] = b'\0\xff\0\0'
        (self.folder / 'many.dat').write_bytes(data)
        before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
        done = zentra('salvage', 'many.dat', '-o', 'new', folder=self.folder)
        self.assertIn(b'20,000 without their variable part; 0 lost', done.stdout)
        self.assertLess(resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before, 5)

    def test_a_new_pair_is_its_owners_as_the_data_file_is(self):
        self.take('sound-fixed')
        self.data.chmod(0o640)
        os.chown(self.data, os.getuid(), os.getgid())
        self.salvage()
        for end in '.idx', '.dat':
            self.assertEqual((self.folder / f'new{end}').stat().st_mode & 0o7777, 0o640)

    def test_short_records_are_taken_for_such_when_somebody_tells_it(self):
        self.take('sound-fixed')
        self.index.unlink()
        self.data.write_bytes(b'12345\n' * 2000)
        self.assertEqual((self.salvage()['status'], self.salvage('--length', '5')['records']), (2, 2000))

    def test_a_dictionary_is_believed_before_references(self):
        records = len(self.take('sound-varying'))
        data = bytearray(self.data.read_bytes())
        for at in range(40, len(data) - 6, 47):
            data[at + 1:at + 7] = b'\x7e\xff\x80\0\0\1'
        self.data.write_bytes(data)
        self.assertEqual(self.salvage()['records'], records)

    def test_what_the_disk_does_not_give_is_passed_over(self):
        self.take('big-sound-varying')
        told = self.salvage(**failing('read pair.dat 5 @8192'))
        self.assertEqual(self.findings & {'salvage.unread'}, {'salvage.unread'})
        self.assertLess(told['lost'], 200)

    def test_nothing_is_left_of_what_cannot_be_made(self):
        self.take('sound-fixed')
        os.mkfifo(self.folder / 'fifo.dat')
        (self.folder / 'empty.dat').touch()
        (self.folder / 'noise.dat').write_bytes(bytes(i * 7919 % 251 for i in range(9999)))
        (self.folder / 'taken.dat').touch()
        with open(self.folder / 'hole.dat', 'wb') as file:
            file.truncate(1 << 42)
        names = set(os.listdir(self.folder))
        for words, status in ((['fifo.dat', '-o', 'new'], 2), (['.', '-o', 'new'], 2),
                              (['none.dat', '-o', 'new'], 4), (['empty.dat', '-o', 'new'], 2),
                              (['noise.dat', '-o', 'new'], 2), (['hole.dat', '-o', 'new'], 2),
                              (['pair.dat', '-o', 'taken'], 4), (['pair.dat'], 16),
                              (['pair.dat', '-o', 'new', '--length', '0'], 16),
                              (['pair.dat', '-o', 'new', '--key', '0,8'], 16),
                              (['pair.dat', '-o', 'new', '--key', '48,8,char'], 4),
                              (['pair.dat', '-o', 'none/new'], 4)):
            with self.subTest(words):
                done = zentra('salvage', *words, folder=self.folder)
                self.assertEqual(done.returncode, status, done)
                self.assertEqual(set(os.listdir(self.folder)), names)
        for rule in 'write .idx 28', 'sync .dat 5', 'link .idx 5':
            with self.subTest(rule):
                done = zentra('salvage', 'pair.dat', '-o', 'new', folder=self.folder, **failing(rule))
                self.assertEqual((done.returncode, set(os.listdir(self.folder))), (4, names), done)


if __name__ == '__main__':
    main()
