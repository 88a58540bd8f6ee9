#!/usr/bin/env python3
"""zentra load: what becomes of texts of each format, good and bad, and what a run leaves that fails,
is killed or interrupted."""
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from programs import failing, main, take_pairs, tools, zentra as run

MANUAL = pathlib.Path(__file__).resolve().parents[2] / 'man'
LAYOUT = 'id char 0 6\nname char next 8\namount long next 4 decimal 2\nborn char next 8 date YYYYMMDD null\n'
KEYS = ('--key', '0,6,char', '--key', '6,8,char,dups,compress')
RAW = """zentra-raw 1
length 12
node 512
duplicates 2
unique 77
key 0,4,char
key 4,4,char,dups
records
2:0002sameDATA
3:0001same\\00\\ff\\5c\\20
7:0003elseDATA
9:0000sameDATA
order 2 3 2
end 4
"""


def slots_of(path, length):
    """The records of a data file of fixed length, by their numbers."""
    data = path.read_bytes()
    return {at // (length + 1) + 1: data[at:at + length] for at in range(0, len(data), length + 1)
            if data[at + length:at + length + 1] == b'\n'}


def order_of(pair, index):
    """The records in the leaves of an index, as kestro lists them."""
    listed = subprocess.run([tools.kestro, '-lnq', pair], capture_output=True, check=False).stdout
    part = re.split(rb'\nIndex \d+ = ', listed)[index]
    levels = re.split(rb'\nbtree level: (\d+)', part)[1:]
    deepest = max(levels[::2], default=b'')
    items = re.compile(rb'^ +\S+ +\d+ +\d+ +\d+ +(\d+) +\d+ +\d+ ', re.M)
    return [int(number) for level, text in zip(levels[::2], levels[1::2]) if level == deepest
            for number in items.findall(text)]


class Load(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.write('layout', LAYOUT)

    def write(self, name, text):
        (self.folder / name).write_bytes(text if isinstance(text, bytes) else text.encode())
        return name

    def load(self, *words, status=0, text=None, **more):
        if text is None:
            done = run('load', *words, folder=self.folder, **more)
        else:
            done = subprocess.run([tools.zentra, 'load', *words], cwd=self.folder, input=text.encode(),
                                  capture_output=True, timeout=60, check=False)
        self.assertEqual(done.returncode, status, done)
        return (done.stderr if status > 2 or not done.stdout else done.stdout).decode()

    def rejects(self, name='new'):
        lines = (self.folder / f'{name}.rejects.jsonl').read_text().splitlines()
        os.remove(self.folder / f'{name}.rejects.jsonl')
        return [(line['line'], line['reason'], bytes.fromhex(line['bytes']['hex']))
                for line in map(json.loads, lines)]

    def sound(self, name='new'):
        done = run('check', name, folder=self.folder)
        self.assertEqual(done.returncode, 0, done)
        done = subprocess.run([tools.kestro, '-nq', self.folder / name], capture_output=True, check=False)
        self.assertNotIn(b'ERROR', done.stdout)

    def left(self):
        return sorted(name for name in os.listdir(self.folder) if name.startswith('new'))

    def remove(self, *names):
        for name in names or self.left():
            os.remove(self.folder / name)

    def test_a_raw_text_gives_the_numbers_orders_and_sizes(self):
        self.assertEqual(self.load('new', self.write('text', RAW)), '4 loaded\n')
        self.sound()
        self.assertEqual(slots_of(self.folder / 'new.dat', 12),
                         {2: b'0002sameDATA', 3: b'0001same\0\xff\\ ', 7: b'0003elseDATA', 9: b'0000sameDATA'})
        self.assertEqual(order_of(self.folder / 'new', 2), [7, 9, 3, 2])
        head = (self.folder / 'new.idx').read_bytes()[:60]
        self.assertEqual((head[6:8], head[11], head[45:49]), (b'\x01\xff', 2, b'\0\0\0M'))
        self.remove()
        # Variable length, from standard input; the last record is refused.
        varying = RAW.replace('length 12', 'length 8 500').replace('9:0000', '9:0002')
        said = self.load('new', text=varying.replace('DATA', 'x' * 400), status=1)
        self.assertEqual(said, '3 loaded, 1 duplicate refused; see new.rejects.jsonl\n')
        self.assertEqual(self.rejects(),
                         [(12, 'record 2 has its key in index 1', b'9:0002same' + b'x' * 400)])
        self.sound()
        self.assertEqual(order_of(self.folder / 'new', 2), [7, 3, 2])

    def test_raw_texts_that_are_none(self):
        for before, after, why in (
                ('zentra-raw 1', 'zentra-raw 2', 'another version'), ('length 12', 'length 0', '"length" is wrong'),
                ('length 12', 'length 12 11', '"length" is wrong'), ('length 12\n', '', 'length of records is missing'),
                ('length 12', 'length 99999999999', '"length" is wrong'), ('node 512', 'node 5', '"node" is wrong'),
                ('key 0,4,char', 'key 9,4,char', 'outside the record'), ('key 4', 'kex 4', 'no line of the header'),
                ('0,4,char', '0,4,chat', 'no type of a part'),
                ('unique', 'locale a\\b\nunique', '"locale" is wrong'), ('end 4\n', '', 'torn off'),
                ('end 4', 'end 5', 'had 5 records'), ('DATA\norder 2 3 2\nend 4\n', '', 'torn off'),
                ('9:0000', '2000000000:0000', 'numbers without a record'), ('records\n', '', 'no line of the header')):
            with self.subTest(why, after=after):
                self.assertIn(before, RAW)
                said = self.load('new', self.write('text', RAW.replace(before, after)), status=4)
                self.assertIn(why, said)
                self.assertEqual(self.left(), [])

    def test_records_of_a_raw_text_that_are_none(self):
        for bad, why in (('8:short', '5 bytes, fewer than 12'), ('8:0004moreDATA.', 'too long'),
                         ('8:0004more\\0gAT', 'not as'), ('7:0004moreDATA', 'does not follow'),
                         ('8 0004moreDATA', "no record's number"), ('8:0004more\tATA', 'not as'),
                         ('99999999999:0004moreDATA', "no record's number"), ('8:0004moreDAT\\2', 'not as')):
            with self.subTest(bad):
                text = RAW.replace('9:', bad + '\n9:').replace('end 4', 'end 5')
                said = self.load('new', self.write('text', text), status=1)
                self.assertEqual(said, '4 loaded, 1 line refused; see new.rejects.jsonl\n')
                (line, reason, shown), = self.rejects()
                self.assertEqual((line, shown), (12, bad.encode()))
                self.assertIn(why, reason)
                self.remove()

    def test_csv_and_json(self):
        csv = ('\ufeffborn,amount,id,name\r\n2026-11-22,12.50,000001,SMITH\r\n,-1,000002,"a ""b"",\nc"\r\n'
               ',70000000000,000003,\r\n,1,000001,AGAIN\r\nx,1,000004,\r\n,1,000005\r\n')
        json_lines = ('{"id":"000001","born":"2026-11-22","amount":12.50,"name":"SM\\u0049TH"}\n\n'
                      '{"id":"000002","amount":-1,"name":"a \\"b\\",\\nc","born":null}\n'
                      '{"id":"000003","amount":70000000000}\n{"id":"000001","name":"AGAIN","amount":1}\n'
                      '{"id":"000004","born":"x"}\n{"id":"000005","id":"1"}\n{"id":"000006","nam":""}\n'
                      '{"id":"000007"\n["id"]\n{"id":"000008","name":["x"]}\n{"id":"000009","name":"\\ud800"}\n'
                      '{"id":"000010"} {}\n{"id":"\x01"}\n')
        shown = {1: b'000001SMITH   \0\0\x04\xe220261122', 2: b'000002a "b",\nc\xff\xff\xff\x9c        '}
        for form, text, bad in (('csv', csv, 3), ('jsonl', json_lines, 10)):
            with self.subTest(form):
                self.write('text', text)
                said = self.load('new', 'text', '--layout', 'layout', *KEYS, status=1)
                self.assertEqual(said, f'2 loaded, 1 duplicate refused, {bad} lines refused; '
                                       'see new.rejects.jsonl\n')
                self.sound()
                self.assertEqual(slots_of(self.folder / 'new.dat', 26), shown)
                rejects = self.rejects()
                self.assertEqual(len(rejects), bad + 1)
                self.assertEqual(rejects[-1][1], 'record 1 has its key in index 1')
                self.assertEqual(rejects[-1][2].count(b'AGAIN'), 1)
                self.assertIn('does not fit', rejects[0][1])
                lines = text.encode().replace(b'\r', b'').split(b'\n')
                for line, _, whole in rejects:
                    self.assertEqual(lines[line - 1], whole.split(b'\n')[0].rstrip(b'\r'))
                self.remove()
                said = self.load('new', '--stop', 'text', '--layout', 'layout', *KEYS, status=1)
                self.assertIn('nothing loaded: line ', said)
                self.assertEqual(len(self.rejects()), 1)
                self.assertEqual(self.left(), [])
        for empty in '', '\n \n':
            self.assertEqual(self.load('new', '--layout', 'layout', *KEYS, text=empty), '0 loaded\n')
            self.sound()
            self.remove()
        self.write('text', json_lines)
        report = run('load', '--json', '--layout', 'layout', *KEYS, 'new', 'text', folder=self.folder)
        lines = [json.loads(line) for line in report.stdout.decode().splitlines()]
        self.assertEqual([line['type'] for line in lines], ['begin', 'pair', 'pair-end', 'end'])
        self.assertEqual((lines[2]['loaded'], lines[2]['duplicates'], lines[2]['refused'], lines[3]['status']),
                         (2, 1, 10, report.returncode))

    def test_columns(self):
        for text, words, status, said in (
                ('id,nam\n000001,x\n', (), 4, 'no field is named nam'),
                ('id,nam\n000001,x\n', ('--ignore-unknown',), 0, 'no column for name, amount, born'),
                ('id,id\n000001,x\n', (), 4, 'id twice'), ('', (), 4, 'names of the columns is missing'),
                ('nam\nx\n', ('--ignore-unknown',), 4, 'no column is a field')):
            with self.subTest(text, words=words):
                self.write('text.csv', text)
                done = run('load', '--layout', 'layout', *KEYS, *words, 'new', 'text.csv', folder=self.folder)
                self.assertEqual(done.returncode, status, done)
                self.assertIn(said, done.stderr.decode())
                self.remove()

    def test_lines_of_any_length(self):
        long = '{"id":"' + 'x' * (3 << 20) + '"}\n'
        for text in ('id\n' + long, long, RAW.replace('7:', '7:' + 'x' * (3 << 20))):
            self.load('new', self.write('text', text),
                      *(() if text.startswith('zentra') else ('--layout', 'layout', *KEYS)), status=1)
            (_, reason, bytes_), = self.rejects()
            self.assertLess(len(bytes_), 1 << 20)
            self.assertEqual(reason, 'longer than 1048576 bytes')
            self.remove()

    def test_into_a_pair(self):
        self.load('new', self.write('text', RAW))
        self.assertEqual(self.load('--into', 'new', 'text', status=1), '0 loaded, 4 duplicates refused; '
                         'see new.rejects.jsonl\n')
        self.assertEqual({reason for _, reason, _ in self.rejects()},
                         {f'record {n} has its key in index 1' for n in (2, 3, 7, 9)})
        more = RAW.replace(':0', ':1')
        self.assertEqual(self.load('--into', 'new', text=more), '4 loaded\n')
        self.sound()
        self.assertEqual(order_of(self.folder / 'new', 2), [7, 12, 9, 3, 2, 10, 11, 13])
        before = (self.folder / 'new.idx').read_bytes()
        self.assertIn('is there already', self.load('new', 'text', status=4))
        self.assertIn('12 bytes, fewer', self.load('--into', 'new', text=RAW.replace('12\n', '13\n'), status=1)
                      and self.rejects()[0][1])
        (self.folder / 'new.idx').write_bytes(b'\0' * 100)
        self.load('--into', 'new', 'text', status=2)
        self.load('--into', 'none', 'text', status=4)
        (self.folder / 'new.idx').write_bytes(before)
        self.write('new.rejects.jsonl', '')
        self.assertIn('--rejects names another', self.load('--into', 'new', 'text', status=4))
        for words in (('--into', '--key', '0,4,char'), ('--like', 'x', '--key', '0,4,char'), ('--format', 'xml')):
            self.load(*words, 'new', 'text', status=16)

    def test_losses_of_a_repair(self):
        loss = {'schema': 1, 'type': 'lost-record', 'record': 17, 'state': 10, 'fixed': b'000001LOST'.hex() + '20' * 16,
                'variable': '', 'kept': False, 'reason': 'index.keys-equal'}
        lines = [loss, {**loss, 'fixed': '20'}, {**loss, 'reason': 'storage.reference-left'}, {**loss, 'variable': '20'},
                 {**loss, 'type': 'other'}]
        self.write('a.lost.jsonl', ''.join(json.dumps(line) + '\n' for line in lines))
        said = self.load('new', '--length', '26', *KEYS, 'a.lost.jsonl', status=1)
        self.assertEqual(said, '1 loaded, 4 lines refused; see new.rejects.jsonl\n')
        self.assertEqual(slots_of(self.folder / 'new.dat', 26), {1: b'000001LOST' + b' ' * 16})

    def test_runs_that_end_anywhere(self):
        """Killed, interrupted, or without room: no pair, or a whole one; the next run leaves nothing else."""
        rows = ''.join(f'{{"id":"{n % 90:06}","name":"{n % 7}"}}\n' for n in range(100))
        words = ('--layout', 'layout', *KEYS, 'new', self.write('text', rows))
        whole = ['new.dat', 'new.idx', 'new.rejects.jsonl']
        for error in -signal.SIGKILL, -signal.SIGTERM, 28:
            for call in ('link', 'sync', 'write', 'create') + (('unlink',) if error < 0 else ()):
                for number in range(1, 4 if call != 'write' else 14):
                    with self.subTest(call, error=error, number=number):
                        done = run('load', *words, folder=self.folder, **failing(f'{call} * {error} #{number}'))
                        left = self.left()
                        if done.returncode == 1:
                            self.assertEqual(left, whole)
                        elif error != -signal.SIGKILL:
                            self.assertEqual([name for name in left if name not in whole], [])
                            self.assertIn(left, ([], whole, ['new.dat', 'new.idx']))
                        if 'new.idx' in left:
                            self.sound()
                            self.assertEqual(len(slots_of(self.folder / 'new.dat', 26)), 90)
                            self.remove('new.dat', 'new.idx')
                        if 'new.rejects.jsonl' in left:
                            self.remove('new.rejects.jsonl')
                        self.load(*words, status=1)
                        self.sound()
                        self.assertEqual(self.left(), whole)
                        self.remove()

    def test_what_is_dumped_comes_back(self):
        """Of each shape the same records; of raw text also the numbers and the order of equal keys."""
        made = self.folder / 'made'
        made.mkdir()
        shapes = [path.name for path in (MANUAL.parent / 'tests' / 'pairs').iterdir()
                  if path.name.startswith(('sound-', 'big-sound'))]
        take_pairs(made, *shapes)
        self.assertGreater(len(shapes), 12)
        dump = lambda form, pair: run('dump', '--format', form, pair, folder=self.folder).stdout
        for shape in shapes:
            for form in 'raw', 'csv', 'jsonl':
                with self.subTest(shape, form=form):
                    pair = made / shape / 'pair'
                    text = dump(form, pair)
                    self.write('text', text)
                    words = () if form == 'raw' else ('--like', pair, '--format', form)
                    records = text.count(b'\n') if form == 'jsonl' else None
                    said = self.load(*words, 'new', 'text')
                    self.assertTrue(records is None or said == f'{records:,} loaded\n', said)
                    self.sound()
                    if form == 'raw':
                        self.assertEqual(dump('raw', 'new'), text)
                        for index in range(1, text.count(b'\nkey ') - text.count(b'key number') + 1):
                            self.assertEqual(order_of(self.folder / 'new', index), order_of(pair, index))
                    self.assertEqual(run('dump', '--layout', self.drafted(pair), 'new', folder=self.folder).stdout,
                                     run('dump', '--layout', 'drafted', pair, folder=self.folder).stdout)
                for name in self.left():
                    self.remove(name)
        self.load('new', self.write('text', RAW))
        self.assertEqual(dump('raw', 'new'), RAW.encode())
        ordered = RAW.replace('4,4,char', '4,4,locale,desc').replace('unique', 'locale c\nunique')
        self.remove()
        self.load('new', text=ordered)
        self.assertEqual(dump('raw', 'new'), ordered.encode())
        self.remove()
        self.assertIn('CLIENT_LOCALE does not name', self.load('new', text=ordered.replace('locale c', 'locale d'), status=4))

    def test_a_locale_however_its_name_is_written(self):
        text = ('zentra-raw 1\nlength 12\nnode 512\nduplicates 2\nlocale POSIX\nunique 7\n'
                'key 0,8,locale\nrecords\n1:00000001SMIT\nend 1\n')
        for key, told in ('locale', 'locale c\n'), ('char', ''):
            (self.folder / 'text').write_text(text.replace('locale\n', key + '\n'))
            done = run('load', 'new', 'text', folder=self.folder)
            self.assertEqual(done.returncode, 0, done)
            dumped = run('dump', '--format', 'raw', 'new', folder=self.folder).stdout.decode()
            self.assertEqual(dumped, text.replace('locale\n', key + '\n')
                             .replace('locale POSIX\n', told))
            for end in '.idx', '.dat':
                (self.folder / f'new{end}').unlink()
        (self.folder / 'text').write_text(text.replace('POSIX', 'xx_yy'))
        done = run('load', 'new', 'text', folder=self.folder)
        self.assertEqual((done.returncode, b'CLIENT_LOCALE does not name' in done.stderr), (4, True))

    def test_keys_in_the_order_of_a_locale(self):
        made = subprocess.run(['localedef', '--no-archive', '-i', 'de_DE', '-f', 'UTF-8', self.folder / 'de_DE.utf8'],
                              capture_output=True)
        if made.returncode != 0:
            self.skipTest('no localedef, or no sources')
        words = 'Zebra', 'Ähre', 'apfel', 'Öl', 'Apfel', 'zoo', 'oel'
        text = ('zentra-raw 1\nlength 12\nnode 512\nduplicates 2\nlocale de_de.utf8\nunique 7\nkey 0,8,locale\n'
                'key 0,4,locale,desc,dups\nrecords\n')
        for number, word in enumerate(words, 1):
            bytes_ = word.encode().ljust(8) + b'%04d' % number
            text += f'{number * 2}:' + ''.join(chr(b) if b < 128 else f'\\{b:02x}' for b in bytes_) + '\n'
        text += f'end {len(words)}\n'
        # The C library does not give back what it makes of LOCPATH, which no sanitizer is to mind.
        settings = dict(LOCPATH=str(self.folder), CLIENT_LOCALE='de_DE.utf8', LSAN_OPTIONS='detect_leaks=0')
        os.environ.update(settings)
        self.addCleanup(lambda: [os.environ.pop(name) for name in settings])
        self.load('new', text=text)
        self.sound()
        self.assertEqual(run('dump', '--format', 'raw', 'new', folder=self.folder).stdout.decode(), text)
        (self.folder / 'new.layout').write_text('word char 0 8\n')
        for locale in 'de_DE.utf8', '':
            os.environ['CLIENT_LOCALE'] = locale
            done = run('dump', '--format', 'csv', '--by', '1', 'new', folder=self.folder)
            self.assertEqual((done.returncode, done.stdout.decode().split()[1:]),
                             (0, ['Ähre', 'apfel', 'Apfel', 'oel', 'Öl', 'Zebra', 'zoo']), done)

    def drafted(self, pair):
        return self.write('drafted', run('layout', pair, folder=self.folder).stdout)

    def test_an_index_for_a_data_file_that_has_none(self):
        """Like the one that there was, but for what only that one knew."""
        made = self.folder / 'made'
        made.mkdir()
        shapes = 'sound-fixed', 'sound-nodes-128', 'sound-nodes-1000', 'sound-number-order-first', 'sound-behind', \
            'sound-without-keys', 'sound-empty', 'sound-all-deleted', 'sound-long-key-types'
        take_pairs(made, *shapes)
        for shape in shapes:
            with self.subTest(shape):
                shutil.copy(made / shape / 'pair.dat', self.folder / 'new.dat')
                before = (self.folder / 'new.dat').stat()
                done = run('reindex', '--like', made / shape / 'pair', 'new', folder=self.folder)
                self.assertEqual(done.returncode, 0, done)
                self.sound()
                after = (self.folder / 'new.dat').stat()
                self.assertEqual((after.st_mtime_ns, after.st_ctime_ns), (before.st_mtime_ns, before.st_ctime_ns))
                for index in range(1, 2 + (shape == 'sound-fixed')):
                    self.assertEqual(sorted(order_of(self.folder / 'new', index)),
                                     sorted(order_of(made / shape / 'pair', index)))
                self.assertEqual(self.left(), ['new.dat', 'new.idx'])
                self.remove()
        shutil.copy(made / 'sound-fixed' / 'pair.dat', self.folder / 'new.dat')
        for words, status, why in (
                (('--key', '0,12,char', '--length', '49'), 1, 'neither records nor free'),
                (('--key', '12,4,long', '--length', '50'), 1, 'equal keys in index 12,4,long'),
                (('--key', '40,12,char', '--length', '50'), 4, 'outside the record'), (('--key', '0,12,char'), 4, '--length'),
                (('--like', 'none'), 4, 'No such file'), ((), 16, 'tells the indexes')):
            done = run('reindex', *words, 'new', folder=self.folder)
            self.assertEqual(done.returncode, status, done)
            self.assertIn(why, (done.stdout + done.stderr).decode())
            self.assertEqual(self.left(), ['new.dat'])
        words = '--key', '0,12,char', '--length', '50', 'new'
        for error in -signal.SIGKILL, -signal.SIGTERM, 28:
            for call in 'link', 'write', 'create', 'sync':
                for number in 1, 2, 3, 9:
                    done = run('reindex', *words, folder=self.folder, **failing(f'{call} * {error} #{number}'))
                    if done.returncode != 0 and error != -signal.SIGKILL:
                        self.assertIn(self.left(), (['new.dat'], ['new.dat', 'new.idx']), (done, call, number))
                    (self.folder / 'new.idx').unlink(missing_ok=True)
                    self.assertEqual(run('reindex', *words, folder=self.folder).returncode, 0)
                    self.assertEqual(self.left(), ['new.dat', 'new.idx'])
                    self.remove('new.idx')
        self.write('new.idx', 'damaged')
        self.assertEqual(run('reindex', *words, folder=self.folder).returncode, 4)
        self.assertEqual(run('reindex', '--force', *words, folder=self.folder).returncode, 0)
        self.assertEqual((self.folder / 'new.idx.before').read_bytes(), b'damaged')
        self.sound()
        shutil.copy(made / 'sound-fixed' / 'pair.idx', self.folder / 'new.idx')
        (self.folder / 'new.idx').chmod(0o640)
        index = (self.folder / 'new.idx').read_bytes()
        self.assertEqual(run('reindex', '--force', *words, folder=self.folder).returncode, 0)
        self.assertEqual((self.folder / 'new.idx').stat().st_mode & 0o777, 0o640)
        done = run('undo', 'new', folder=self.folder)
        self.assertEqual((done.returncode, (self.folder / 'new.idx').read_bytes()), (0, index), done)


if __name__ == '__main__':
    main()
