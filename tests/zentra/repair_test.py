#!/usr/bin/env python3
"""zentra repair: what it leaves checks clean and has lost nothing, or nothing is changed; undoing
gives back the very bytes."""
import fcntl
import json
import os
import pathlib
import pty
import shutil
import subprocess
import tempfile
import unittest

from programs import STEP, failing, lines_of, main, sample, take_pairs, tools, zentra

OPEN_LOCK = 0x7FFFFFFF
LOST = 'pair.lost.jsonl'
# Pairs that take more than --yes, with what is missing; "!": it helps nothing.
REFUSED = {'header-magic': '!', 'descriptions-zeroed': '--keys', 'data-cut': '--force',
           'data-of-longer-records': '--force', 'kept': '--force', 'times-older-data': '--force',
           'storage-slot-length': '--variable', 'storage-continuation-loop': '--variable',
           'records-overwritten': '--force', 'header-collation-foreign': '!'}
# How many records go to the losses, by reason, and what the plan does besides.
LOSSES = {'record-keys-equal': {'index.keys-equal': 2}, 'record-state-unknown': {'record.state': 1},
          'storage-slot-length': {'record.unreadable': 1}, 'big-leaf': {}}
# Pairs, options of a dry run, and what its report and the verdict of a check have.
TOLD = {
    'record-state-unknown': ([], ['1 record(s) are dropped: their state', 'indexes-with-its-key 5',
                                  ': dry run: nothing is changed\n'], 'records may be lost'),
    'record-keys-equal': ([], ['same-key-as 8'], 'unless records have equal keys'),
    'data-cut': ([], ['27 record(s) that indexes lead to are not in the data file',
                      '(needs --force: the data file ends too early'], 'records may be lost'),
    'storage-slot-length': ([], ['(needs --variable=keep or drop'], ''),
    'storage-page-magic': (['--variable=keep'], ['index 1: is made anew from the records\n',
                                                 ': dry run: nothing is changed\n'], ''),
    'descriptions-zeroed': (['--force'], ['5 index(es) that were found'],
                            'zentra repair heals it, with --keys, --like or --force'),
    'data-of-longer-records': ([], ['51 fits all\n', 'the record length becomes 51'],
                               'or the record length is damaged, which zentra repair --force heals'),
    'big-index-cut': ([], ['the index file ends at byte '], 'damaged; zentra repair heals it'),
    'header-cut': ([], ['not repaired: no dictionary: the index file ends at byte 90\n'], 'salvage'),
    'big-leaf': ([], [], 'damaged; zentra repair or kestro -y heals it')}
LOST_DESCRIPTIONS = ['descriptions-zeroed', 'descriptions-loop', 'description-size-zero',
                     'header-key-node-beyond', 'header-key-node-leaf', 'kept']
# Other bytes at a place of the index, bytes behind the data file, how long the index is; then the
# status that a repair with --force ends with, and what its last line says.
DAMAGES = [
    ('sound-varying', {}, b'', 53699, 0, 'repaired'),  # cut inside a free node
    ('sound-nodes-1025', {}, b'\n' * 141, None, 0, '3 record(s) went'),  # like records
    ('sound-varying', {49: b'\0\0\0\r'}, b'', None, 0, 'repaired'),  # no audit trail: a storage page
    ('sound-fixed', {49: b'\0\0\0\4'}, b'', None, 0, 'repaired'),  # ... a root
    ('sound-fixed', {59: b'\x07\xff'}, b'', None, 2, 'hardly a record'),  # another format of records
    ('sound-varying', {59: b'\0\0'}, b'', None, 2, 'hardly a record'),
    ('sound-fixed', {13: b'\x7f\xff'}, b'', None, 0, 'repaired'),  # another length of records
    ('sound-fixed', {13: b'\x7f\xff'}, b'A' * 51, None, 2, 'hardly a record'),  # ... which none fits
    ('sound-number-order-first', {11: b'\3'}, b'A' * 51, None, 0, '1 record(s) went')]  # twice as long


class Repair(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.all = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        take_pairs(cls.all)

    def take(self, name):
        """A copy of a pair, and its bytes; none where it is not of two plain files."""
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.pair = {end: self.folder / f'pair{end}' for end in ('.idx', '.dat')}
        for end, path in self.pair.items():
            made = self.all / name / path.name
            if not made.is_file() or made.is_symlink() or os.stat(made).st_nlink > 1:
                return None
            shutil.copy(made, path)
            path.chmod(0o600)
        self.made = self.bytes()
        return self.made

    def bytes(self):
        return {end: path.read_bytes() for end, path in self.pair.items()}

    def names(self):
        return set(os.listdir(self.folder)) - {'pair.idx', 'pair.dat'}

    def run_zentra(self, *words, **more):
        return zentra(*words, 'pair', folder=self.folder, **more)

    def repair(self, *words, **more):
        return self.run_zentra('repair', '--json', '--wait', '0', *words, **more)

    def records(self):
        """Whether the independent reader finds the pair sound, and what it can read."""
        told = subprocess.run([tools.pairs, 'look', self.folder / 'pair'], capture_output=True)
        verdict, *lines = told.stdout.decode().splitlines()
        return verdict, dict(line.split() for line in lines if ' ' in line.strip())

    def losses(self):
        path = self.folder / LOST
        return [json.loads(line) for line in path.read_text().splitlines()] if path.exists() else []

    def assertUnchanged(self, *left):
        self.assertEqual(self.bytes(), self.made)
        self.assertEqual(self.names(), set(left))

    def assertHealed(self, before):
        """Nothing that the reader could read is lost, and both it and the check are content."""
        self.assertEqual(self.run_zentra('check').returncode, 0)
        verdict, after = self.records()
        self.assertEqual(verdict, 'sound')
        lost = {str(loss['record']): loss['fixed'] + loss['variable'] for loss in self.losses()}
        for number, record in before.items():
            self.assertIn(record, (after.get(number), lost.get(number)), number)
        for end, old in self.made.items():
            if end == '.dat' and not lost:
                self.assertEqual(len(self.bytes()[end]), len(old))

    def assertUndone(self, *words):
        done = self.run_zentra('undo', '--json', *words)
        self.assertEqual(done.returncode, 0, done)
        self.assertEqual(self.bytes(), self.made)
        replaced = {'pair.idx.before.2'} if '--force' in words else set()
        self.assertLessEqual(self.names(), {LOST} | replaced)

    def test_every_damage_is_healed_or_left_alone(self):
        for name in sample(sorted(os.listdir(self.all))):
            if self.take(name) is None:
                continue
            with self.subTest(name):
                checked = self.run_zentra('check', '--json')
                _, before = self.records()
                planned = self.repair('--dry-run', '--force', '--variable=keep')
                self.assertEqual(planned.returncode, checked.returncode)
                self.assertUnchanged()
                done = self.repair('--yes', '--force', '--variable=keep')
                self.assertEqual(done.stderr, b'')
                if lines_of(checked)[-2]['message'].startswith('damaged; zentra repair'):
                    self.assertEqual(done.returncode, 0, done)
                if done.returncode != 0:
                    self.assertEqual(done.returncode, checked.returncode, done)
                    self.assertUnchanged()
                elif checked.returncode == 0:
                    self.assertUnchanged()
                else:
                    steps = [line for line in lines_of(planned) if line['type'] == 'step']
                    self.assertEqual(steps, [l for l in lines_of(done) if l['type'] == 'step'])
                    self.assertTrue(steps)
                    self.assertHealed(before)
                    self.assertUndone()

    def test_says_what_it_takes(self):
        for name, word in REFUSED.items():
            with self.subTest(name):
                self.take(name)
                checked = self.run_zentra('check').returncode
                done = self.repair('--yes')
                self.assertEqual(done.returncode, checked)
                self.assertUnchanged()
                if word != '!':
                    self.assertIn(word, lines_of(done)[-2]['message'])

    def test_plans_and_verdicts_tell_what_is_lost_and_what_it_takes(self):
        for name, (words, plan, verdict) in TOLD.items():
            with self.subTest(name):
                self.take(name)
                told = self.run_zentra('repair', '--dry-run', *words).stdout.decode()
                for text in plan:
                    self.assertIn(text, told)
                self.assertNotIn('the dictionary counts', told)
                checked = self.run_zentra('check').stdout.decode()
                self.assertIn(verdict, checked.splitlines()[-1])
                self.assertNotIn('isrecover', checked)

    def test_last_lines_tell_what_became_of_records(self):
        for name, text in (('data-cut', '27 record(s) are no longer reached, their keys stand in '),
                           ('storage-slot-length', '1 variable part(s) went to pair.lost'),
                           ('record-keys-equal', '2 record(s) went to pair.lost')):
            with self.subTest(name):
                self.take(name)
                done = self.repair('--yes', '--force', '--variable=keep')
                self.assertIn(text, lines_of(done)[-2]['message'])
                undone = lines_of(self.run_zentra('undo', '--json'))[-2]
                self.assertNotIn('kept', undone)
                self.assertEqual('data file' in undone['message'], name != 'data-cut')

    def test_lost_descriptions_come_from_elsewhere(self):
        like = {'.dat': self.all / 'sound-fixed' / 'pair'}
        lines = ('0,12,char', '12,4,long,dups')
        for name in LOST_DESCRIPTIONS:
            for words in (['--like', like['.dat']], ['--keys', 'lines', '--force'], ['--force']):
                with self.subTest(name, words=words):
                    self.take(name)
                    _, before = self.records()
                    (self.folder / 'lines').write_text('\n'.join(lines))
                    if words[0] == '--keys':  # two of five
                        short = self.repair('-y', *words[:2])
                        self.assertRegex(lines_of(short)[-2]['message'],
                                         'counts [59] indexes, and 2 are given')
                        self.assertUnchanged('lines')
                    # The kept pair counts nine.
                    done = self.repair('-y', *words, *['--force'][name != 'kept':])
                    if words == ['--force'] and done.returncode == 2:
                        self.assertUnchanged('lines')
                        continue
                    self.assertEqual(done.returncode, 0, done)
                    (self.folder / 'lines').unlink()
                    self.assertHealed(before)
                    indexes = lines_of(done)[-2]['indexes']
                    self.assertEqual(indexes, {'--like': 5, '--keys': 2}.get(words[0], indexes))
                    self.assertUndone()
        index = bytearray(self.take('sound-fixed')['.idx'])
        index[15:19], index[59] = b'\x7f\xff\xff\xff', 7  # no descriptions, another format
        self.pair['.idx'].write_bytes(index)
        self.made = self.bytes()
        (self.folder / 'lines').write_text('0,12,char')
        done = self.repair('-y', '--force', '--variable=keep', '--keys', 'lines')
        self.assertEqual(done.returncode, 2, done)
        self.assertUnchanged('lines')
        for words in (['--like', 'none'], ['--keys', 'none']):
            self.assertEqual(self.repair('-y', *words).returncode, 4)
        self.assertEqual(zentra('repair', '--like', 'a', '--keys', 'b', 'pair',
                                folder=self.folder).returncode, 16)

    def test_losses_tell_what_was_dropped(self):
        for name, reasons in LOSSES.items():
            for choice in 'keep', 'drop':
                with self.subTest(name, choice=choice):
                    self.take(name)
                    _, before = self.records()
                    done = self.repair('-y', '--variable', choice)
                    self.assertEqual(done.returncode, 0)
                    self.assertHealed(before)
                    cost = next(l for l in lines_of(done) if l.get('code') == 'repair.cost')
                    new = sum((self.folder / name).stat().st_size for name in self.names())
                    self.assertGreaterEqual(cost['bytes'], len(self.made['.idx']) + new)
                    told = [loss['reason'] for loss in self.losses()]
                    self.assertEqual({reason: told.count(reason) for reason in told}, reasons)
                    for loss in self.losses():
                        keeps = choice == 'keep' and loss['reason'] == 'record.unreadable'
                        self.assertEqual(loss['kept'], keeps)
                        at = (loss['record'] - 1) * (len(loss['fixed']) // 2 + 7) \
                            if loss['variable'] or loss['reason'] == 'record.unreadable' else 0
                        self.assertIn(bytes.fromhex(loss['fixed']), self.made['.dat'][at:])

    def test_what_is_no_record_becomes_none_and_records_stay(self):
        for name, edits, behind, size, status, words in DAMAGES:
            with self.subTest(name, edits=edits, behind=len(behind), size=size):
                self.take(name)
                index = bytearray(self.made['.idx'][:size])
                for at, edit in edits.items():
                    index[at:at + len(edit)] = edit
                self.pair['.idx'].write_bytes(index)
                self.pair['.dat'].write_bytes(self.made['.dat'] + behind)
                self.made = self.bytes()
                _, before = self.records()
                done = self.repair('-y', '--force', '--variable=keep')
                self.assertEqual(done.returncode, status, done)
                self.assertIn(words, lines_of(done)[-2]['message'])
                if status == 0:
                    self.assertHealed(before)
                else:
                    self.assertUnchanged()

    def test_losses_are_appended_to_but_no_link_is_followed(self):
        self.take('record-keys-equal')
        losses = self.folder / LOST
        losses.write_text('{"torn')
        self.assertEqual(self.repair('-y').returncode, 0)
        self.assertEqual(losses.read_text().splitlines()[0], '{"torn')
        self.assertEqual(len(losses.read_text().splitlines()), 3)
        self.take('record-keys-equal')
        (self.folder / 'other').write_text('mine')
        (self.folder / LOST).symlink_to('other')
        self.assertEqual(self.repair('-y').returncode, 4)
        self.assertUnchanged('other', LOST)
        self.assertEqual((self.folder / 'other').read_text(), 'mine')

    def damage(self, *places):
        for end, at, bytes_ in places:
            with open(self.pair[end], 'r+b') as file:
                file.seek(at)
                file.write(bytes_)
        self.made = self.bytes()

    def test_pages_that_one_piece_fills_become_that_again(self):
        self.take('sound-varying')
        index, data = self.made['.idx'], self.made['.dat']
        # A page that goes on in one of several pieces, and the length of its record.
        page, named = next(
            (at, data.index((at // 512 + 1).to_bytes(4, 'big')) - 2)
            for at in range(512, len(index), 512)
            if index[at + 2:at + 4] == b'\x7e\x26' and index[at + 20] == 1 and
            index[(int.from_bytes(index[at + 17:at + 20], 'big') - 1) * 512 + 21] > 1)
        # As it is, and as the last page of its record.
        as_last = ('.dat', named, b'\x01\xe2'), ('.idx', page + 16, bytes(5))
        for made, damages in (
                ((), ((2, b'\0'), (3, b'\0'), (2, b'\0\0'), (509, b'\0'), (20, b'\0'),
                      (20, b'\x7f'), (21, b'\xff'), (21, b'\0'), (505, b'\x7f'),
                      (506, b'\xe1'), (506, b'\xe3'), (508, b'\x99'), (12, b'\x7f\xff'))),
                (as_last, ((20, b'\x7f\xff'), (20, b'\1')))):
            for at, bytes_ in damages:
                with self.subTest(made=made, at=at, bytes=bytes_):
                    self.take('sound-varying')
                    self.damage(*made)
                    verdict, whole = self.records()
                    self.assertEqual(verdict, 'sound')
                    self.damage(('.idx', page + at, bytes_))
                    self.assertEqual(self.repair('-y').returncode, 0)
                    self.assertEqual(self.records(), ('sound', whole))
                    self.assertEqual(self.losses(), [])

    def test_pages_that_pieces_share_become_that_again(self):
        self.take('sound-varying')
        index = self.made['.idx']
        page = next(at for at in range(512, len(index), 512)
                    if index[at + 2:at + 4] == b'\x7e\x26' and index[at + 21] > 1)
        _, whole = self.records()
        for *damages, loses in (((2, b'\0'), False), ((3, b'\xff'), False), ((2, b'\0\0'), False),
                                ((2, b'\0'), (12, b'\1\1'), False), ((21, b'\0'), False),
                                ((21, b'\1'), False), ((2, b'\0'), (509, b'\0'), True),
                                ((2, b'\0'), (12, b'\1\1\1\1'), True)):
            with self.subTest(damages=damages):
                self.take('sound-varying')
                self.damage(*(('.idx', page + at, bytes_) for at, bytes_ in damages))
                self.assertEqual(self.repair('-y').returncode, 1 if loses else 0)
                if not loses:
                    self.assertEqual(self.records(), ('sound', whole))
                    self.assertEqual(self.losses(), [])
                    self.assertUndone()

    def test_a_record_length_that_is_wrong_hides_no_other_damage(self):
        for name in 'sound-fixed', 'record-keys-equal', 'big-leaf', 'storage-slot-length':
            with self.subTest(name):
                self.take(name)
                self.assertEqual(self.repair('-y', '--variable=keep').returncode, 0)
                data, losses = self.bytes()['.dat'], self.losses()
                self.take(name)
                length = int.from_bytes(self.made['.idx'][13:15], 'big')
                self.damage(('.idx', 13, (length + 8).to_bytes(2, 'big')))
                refused = self.repair('-y', '--variable=keep')
                self.assertIn('another record length', lines_of(refused)[-2]['message'])
                self.assertUnchanged()
                done = self.repair('-y', '--variable=keep', '--force')
                self.assertEqual(done.returncode, 0, done)
                self.assertEqual((self.bytes()['.dat'], self.losses()), (data, losses))
                self.assertEqual(self.records()[0], 'sound')
                self.assertUndone()

    def test_marks_that_programs_need(self):
        for place in 3, 2:  # kind and level of a node of descriptions
            with self.subTest(place=place):
                index = self.take('sound-fixed')['.idx']
                at = int.from_bytes(index[15:19], 'big') * 256 - place
                self.damage(('.idx', at, b'\x11'))
                found = lines_of(self.run_zentra('check', '--json'))
                self.assertEqual([l['code'] for l in found if l['type'] == 'finding'],
                                 ['descriptions.node-marks'])
                self.assertEqual(self.repair('-y').returncode, 0)
                self.assertEqual(self.bytes()['.idx'][at], index[at])
                self.assertUndone()

    def test_new_descriptions_stay_clear_of_the_audit_node(self):
        index = self.take('descriptions-zeroed')['.idx']
        self.damage(('.idx', 49, (len(index) // 256 + 1).to_bytes(4, 'big')))
        (self.folder / 'lines').write_text('0,12,char\n12,4,long,dups')
        done = self.repair('-y', '--force', '--keys', 'lines')
        self.assertEqual(done.returncode, 0, done)

    def test_records_dropped_at_the_end_of_a_short_data_file(self):
        index, data = self.take('sound-varying').values()
        one, other = [at for at in range(512, len(index), 512)
                      if index[at + 2:at + 4] == b'\x7e\x26'][:2]
        self.damage(('.idx', one, index[other:other + 512]), ('.idx', other, index[one:one + 512]))
        self.pair['.dat'].write_bytes(data[:961])
        self.made = self.bytes()
        self.assertEqual(self.repair('-y', '--variable=drop', '--force').returncode, 0)
        self.assertUndone()

    def test_an_audit_trail_that_is_on_and_has_no_node(self):
        self.take('sound-fixed')
        self.damage(('.idx', 49, b'\x80\0\0\0'))
        found = lines_of(self.run_zentra('check', '--json'))
        self.assertIn('audit.node', [line.get('code') for line in found])
        self.assertEqual(self.repair('-y').returncode, 0)
        self.assertEqual(self.bytes()['.idx'][49], 0)

    def test_an_upper_node_without_items(self):
        index = self.take('sound-all-deleted')['.idx']
        node = int.from_bytes(index[15:19], 'big') - 1
        root = int.from_bytes(index[node * 256 + 8:node * 256 + 12], 'big')
        self.damage(('.idx', root * 256 - 2, b'\1'))
        self.assertEqual(self.run_zentra('check').returncode, 1)
        self.assertEqual(self.repair('-y').returncode, 0)
        self.assertEqual(self.bytes()['.idx'][root * 256 - 2], 0)
        self.assertUndone()

    def test_what_leads_to_nodes_of_others_does_so_no_more(self):
        index = self.take('sound-fixed')['.idx']
        keys = (int.from_bytes(index[15:19], 'big') - 1) * (int.from_bytes(index[6:8], 'big') + 1)
        used = int.from_bytes(index[keys:keys + 2], 'big')
        first = index[keys + 6:][:int.from_bytes(index[keys + 6:keys + 8], 'big')]
        again = [('.idx', keys + used, first), ('.idx', 8, (index[9] + 1).to_bytes(2, 'big')),
                 ('.idx', keys, (used + len(first)).to_bytes(2, 'big'))]
        for code, edits in ('index.root-shared', again), ('audit.node', [('.idx', 49, b'\0\0\0\1')]):
            with self.subTest(code):
                self.take('sound-fixed')
                self.damage(*edits)
                _, before = self.records()
                codes = [l['code'] for l in lines_of(self.run_zentra('check', '--json'))
                         if l['type'] == 'finding']
                self.assertIn(code, codes)
                self.assertEqual(self.repair('-y').returncode, 0)
                self.assertHealed(before)

    def test_behind_lost_descriptions_all_else_is_mended_too(self):
        index = self.take('sound-fixed')['.idx']
        size = int.from_bytes(index[6:8], 'big') + 1
        head = int.from_bytes(index[25:29], 'big')
        (self.folder / 'lines').write_text('0,12,char')
        self.damage(('.idx', 15, b'\xff'), ('.idx', 11, b'\x7f'), ('.idx', head * size - 2, b'\4'))
        self.assertEqual(self.repair('-y', '--force', '--keys', 'lines').returncode, 0)
        (self.folder / 'lines').unlink()
        self.assertHealed({})
        self.assertUndone()

    def test_a_root_that_has_become_a_page_gives_way(self):
        index = self.take('sound-varying')['.idx']
        root = int.from_bytes(index[(int.from_bytes(index[15:19], 'big') - 1) * 512 + 8:][:4], 'big')
        for page in range(1, len(index) // 512):
            if index[page * 512 + 2:page * 512 + 4] == b'\x7e\x26':
                with self.subTest(page=page + 1):
                    self.take('sound-varying')
                    self.damage(('.idx', (root - 1) * 512, index[page * 512:page * 512 + 512]),
                                ('.idx', page * 512, index[(root - 1) * 512:root * 512]))
                    _, before = self.records()
                    done = self.repair('-y', '--variable=drop', '--force')
                    self.assertEqual(done.returncode, 0, done)
                    self.assertHealed(before)

    def test_a_piece_that_three_records_share(self):
        self.take('sound-varying')
        index, data = self.made['.idx'], self.made['.dat']
        fixed = int.from_bytes(index[13:15], 'big')
        slots = range(fixed, len(data), fixed + 7)
        first, *others = [at for at in slots if data[at] == 10 and data[at + 3:at + 7] != bytes(4)][:3]
        self.damage(*(('.dat', at, data[first:first + 7]) for at in others))
        _, before = self.records()
        self.assertEqual(self.repair('-y', '--variable=keep', '--force').returncode, 0)
        self.assertHealed(before)
        self.assertEqual([loss['reason'] for loss in self.losses()], ['storage.piece-shared'] * 2)
        self.assertUndone()

    def test_a_page_that_can_be_mended_but_has_a_piece_of_another(self):
        self.take('sound-varying')
        self.damage(('.idx', 11 * 512 + 507, b'\xff\xff'), ('.dat', 46, b'\n'))
        _, before = self.records()
        self.assertEqual(self.repair('-y', '--variable=keep').returncode, 0)
        self.assertHealed(before)
        self.assertEqual([loss['record'] for loss in self.losses()], [9])

    def test_a_record_of_which_the_state_alone_is_damaged_can_stay(self):
        for name, at, drops in (('sound-fixed', 3 * 51 - 1, 'drop'), ('sound-varying', 40, 'drop'),
                                ('sound-varying', 40, 'keep')):
            with self.subTest(name, at=at, drops=drops):
                self.take(name)
                _, whole = self.records()
                self.damage(('.dat', at, b'A'))
                told = self.run_zentra('repair', '--dry-run').stdout.decode()
                self.assertIn('; --state=keep keeps 1 to which all indexes lead\n', told)
                self.assertEqual(self.repair('-y', '--state', drops).returncode, 0)
                _, after = self.records()
                self.assertEqual(len(after), len(whole) - (drops == 'drop'))
                self.assertEqual(len(self.losses()), drops == 'drop')
                if drops == 'keep':
                    self.assertHealed(whole)
                self.assertUndone()

    def test_of_a_slot_in_which_the_data_file_ends_the_bytes_go_to_the_losses(self):
        for name in 'sound-fixed', 'sound-varying':
            for cut in (1, 3, 7, 20) if name == 'sound-varying' else (1, 20):
                with self.subTest(name, cut=cut):
                    data = self.take(name)['.dat']
                    size = int.from_bytes(self.made['.idx'][13:15], 'big')
                    slot = size + (7 if name == 'sound-varying' else 1)
                    self.pair['.dat'].write_bytes(data[:-cut])
                    self.made = self.bytes()
                    _, before = self.records()
                    self.assertEqual(self.repair('-y', '--force', '--variable=keep').returncode, 0)
                    self.assertHealed(before)
                    loss, = self.losses()
                    self.assertEqual(bytes.fromhex(loss['fixed']), data[-slot:-cut][:size])
                    self.assertUndone()

    def test_failing_calls_leave_the_pair_as_it_was(self):
        for name in 'record-keys-equal', 'big-leaf':
            for number in range(1, 1000, STEP):
                self.take(name)
                done = self.repair('-y', **failing(f'change * 28 #{number}'))
                if done.returncode == 0:
                    break
                with self.subTest(name, number=number):
                    self.assertEqual(done.returncode, 4, done)
                    self.assertUnchanged()
            self.assertGreater(number, 5)

    def test_what_may_not_be_written_is_named(self):
        for file in '.idx', '.dat':
            self.take('big-leaf')
            done = self.repair('-y', **failing(f'open-write pair{file} 13'))
            self.assertEqual(done.returncode, 4)
            self.assertIn(f'pair{file}: Permission denied', lines_of(done)[-2]['message'])
            self.assertUnchanged()

    def test_what_cannot_be_read_for_once_is_no_damage(self):
        for file in '.dat', '.idx':
            for number in range(1, 1000, 2 * STEP):
                self.take('storage-slot-length')
                _, before = self.records()
                done = self.repair('-y', '--variable=drop', **failing(f'read {file} 5 #{number}'))
                with self.subTest(file, number=number):
                    if done.returncode == 0:
                        self.assertEqual([loss['record'] for loss in self.losses()], [1])
                        self.assertHealed(before)
                    else:
                        self.assertEqual(done.returncode, 4, done)
                        self.assertUnchanged()
                if done.returncode == 0 and number > 300:
                    break

    def test_what_cannot_be_read_is_not_proposed_without(self):
        self.take('descriptions-zeroed')
        wanted = lines_of(self.repair('-y', '--force'))[-2]['indexes']
        for rule in 'read .dat 5', *(f'read {end} 5 #{n}' for end in ('.dat', '.idx')
                                     for n in range(1, 120, 7)):
            self.take('descriptions-zeroed')
            done = self.repair('-y', '--force', **failing(rule))
            with self.subTest(rule):
                if done.returncode == 0:
                    self.assertEqual(lines_of(done)[-2]['indexes'], wanted)
                else:
                    self.assertEqual(done.returncode, 4, done)
                    self.assertUnchanged()

    def test_killed_at_any_moment_the_next_repair_heals(self):
        for name in 'record-keys-equal', 'storage-slot-length':
            words = ['-y', '--variable=keep']
            for number in range(1, 1000, STEP):
                self.take(name)
                _, before = self.records()
                done = self.repair(*words, **failing(f'change * -9 #{number}'))
                if done.returncode != -9:
                    break
                with self.subTest(name, number=number):
                    changed = self.bytes()['.dat'] != self.made['.dat']
                    again = self.repair(*words, '--force')
                    self.assertEqual(again.returncode, 0, again)
                    self.assertHealed(before)
                    if changed:  # the first undoing gives back what the killed repair had left
                        self.assertEqual(self.run_zentra('undo').returncode, 0)
                        if list(self.folder.glob('pair.idx.before*')):
                            self.assertEqual(self.run_zentra('undo', '--force').returncode, 0)
                        self.assertEqual(self.bytes(), self.made)
            self.assertGreater(number, 10)

    def test_a_signal_takes_everything_back(self):
        for number in range(1, 1000, STEP):
            self.take('record-keys-equal')
            done = self.repair('-y', **failing(f'change * -15 #{number}'))
            if done.returncode != -15:
                break
            with self.subTest(number=number):
                if b'is repaired' not in done.stderr:
                    self.assertEqual(self.bytes(), self.made)
                    self.assertLessEqual(self.names(), {LOST})
                else:
                    self.assertUndone()

    def test_what_cannot_be_put_back_can_be_undone(self):
        self.take('record-keys-equal')
        done = self.repair('-y', **failing('write .dat 5 +2'))
        self.assertEqual(done.returncode, 4)
        self.assertIn('zentra undo --force', lines_of(done)[-2]['message'])
        self.assertUndone('--force')
        for number in range(1, 1000, STEP):  # killed while a signal takes everything back
            for unlinked in 1, 2, 3:
                self.take('record-keys-equal')
                done = self.repair('-y', **failing(
                    f'change * -15 #{number};unlink * -9 #{unlinked}'))
                if self.bytes()['.dat'] != self.made['.dat'] and done.returncode < 0:
                    self.assertLessEqual({'pair.idx.before', 'pair.idx.before.data'}, self.names())
            if done.returncode == 0:
                break
        self.take('record-keys-equal')
        done = self.repair('-y', **failing('sync pair.dat -15 #1;write .dat 5 +3'))
        self.assertEqual(done.returncode, -15)
        self.assertIn(b'interrupted; the data file is not as it was: run zentra undo --force',
                      done.stderr)
        self.assertUndone('--force')

    def test_undoing_what_was_dropped_is_all_or_nothing(self):
        for error in 5, 28, -9:
            for number in range(1, 1000, STEP):
                self.take('record-keys-equal')
                self.assertEqual(self.repair('-y').returncode, 0)
                repaired = self.bytes()
                done = self.run_zentra('undo', **failing(f'step * {error} #{number}'))
                if self.bytes()['.idx'] == self.made['.idx']:
                    self.assertEqual(self.bytes(), self.made)
                    break
                with self.subTest(error=error, number=number):
                    if error > 0:
                        self.assertEqual((done.returncode, self.bytes()), (4, repaired))
                    self.assertUndone()
            self.assertGreater(number, 4)

    def test_undoing_leaves_alone_what_is_not_its_own(self):
        self.take('record-keys-equal')  # a note that an earlier repair has left over
        self.assertEqual(self.repair('-y').returncode, 0)
        (self.folder / 'pair.idx.before').unlink()
        with open(self.pair['.idx'], 'r+b') as file:
            file.seek(25)
            file.write(bytes(4))
        self.made = self.bytes()
        for kept in 'pair.idx.before.2', 'pair.idx.before.3':
            self.assertEqual(self.repair('-y').returncode, 0)
            self.assertIn(kept, self.names())
            if kept.endswith('2'):
                self.assertEqual(self.run_zentra('undo').returncode, 0)
                self.assertEqual(self.bytes(), self.made)
                (self.folder / 'pair.idx.before.data').rename(self.folder / 'pair.idx.before.2.data')
                (self.folder / 'pair.idx.before').touch()
        (self.folder / 'pair.idx.before.2.data').rename(self.folder / 'pair.idx.before.3.data')
        self.assertEqual(self.run_zentra('undo').returncode, 4)
        self.assertEqual(self.run_zentra('undo', '--force').returncode, 0)
        self.assertEqual(self.bytes(), self.made)
        self.take('storage-slot-length')  # a record that was written since
        self.assertEqual(self.repair('-y', '--variable=drop').returncode, 0)
        lost, = self.losses()
        at = (lost['record'] - 1) * (len(lost['fixed']) // 2 + 7) + len(lost['fixed']) // 2
        for words, status, said in ((), 4, '--force'), (('--force',), 0, '1 place'):
            with open(self.pair['.dat'], 'r+b') as file:
                file.seek(at)
                file.write(b'\n\0\5\0\0\1\7')
            data = self.bytes()['.dat']
            done = self.run_zentra('undo', '--json', *words)
            self.assertEqual((done.returncode, self.bytes()['.dat']), (status, data))
            self.assertIn(said, lines_of(done)[-2]['message'])

    def test_a_note_is_its_owners_and_damage_of_it_is_seen(self):
        self.take('record-keys-equal')
        for path in self.pair.values():
            path.chmod(0o640)
            if os.geteuid() == 0:
                os.chown(path, 1234, 1234)
        self.assertEqual(self.repair('-y').returncode, 0)
        note = self.folder / 'pair.idx.before.data'
        owner = os.stat(self.pair['.dat'])
        its = os.stat(note)
        self.assertEqual((its.st_uid, its.st_mode), (owner.st_uid, owner.st_mode))
        text = note.read_bytes()
        for damage in text.replace(b' 0a ', b' 0b ', 1), text[:-1], b'', b'x' * 10**6:
            note.write_bytes(damage)
            done = self.run_zentra('undo', '--json', '--force')
            self.assertEqual(done.returncode, 4)
            self.assertIn('is damaged', lines_of(done)[-2]['message'])
        note.write_bytes(text)
        done = self.run_zentra('undo', '--json', **failing('open .data 13'))
        self.assertIn('Permission denied', lines_of(done)[-2]['message'])
        self.assertUndone()

    def answer(self, answer, meanwhile=lambda: None):
        ours, theirs = pty.openpty()
        with subprocess.Popen([tools.zentra, 'repair', 'pair'], cwd=self.folder, stdin=theirs,
                              stdout=subprocess.PIPE) as process:
            os.close(theirs)
            told = b''
            while not told.endswith(b'Do it? '):
                told += os.read(process.stdout.fileno(), 4096)
            meanwhile()
            os.write(ours, answer)
            process.communicate(timeout=60)
            os.close(ours)
        return process.returncode

    def test_asks_before_it_does_anything(self):
        self.take('big-leaf')
        self.assertEqual(self.repair().returncode, 1)  # nobody is there to ask
        self.assertEqual(self.answer(b'no\n'), 1)
        self.assertUnchanged()
        self.assertEqual(self.answer(b'y\n', lambda: os.utime(self.pair['.dat'])), 4)
        self.assertUnchanged()
        self.assertEqual(self.answer(b'y\n'), 0)
        self.assertUndone()

    def test_leaves_alone_what_others_have_open_or_no_copy_can_replace(self):
        self.take('big-leaf')
        with open(self.pair['.idx'], 'r+b') as file:
            fcntl.lockf(file, fcntl.LOCK_SH | fcntl.LOCK_NB, 1, OPEN_LOCK)
            self.assertEqual(self.repair('-y').returncode, 3)
            self.assertUnchanged()
        os.link(self.pair['.idx'], self.folder / 'second')
        self.assertEqual(self.repair('-y').returncode, 4)
        self.assertUnchanged('second')


if __name__ == '__main__':
    main()
