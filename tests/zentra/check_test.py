#!/usr/bin/env python3
"""zentra on pairs of all kinds: whether its check agrees with kestro, what it answers to locks, odd
names and command lines, and that its reports are what they claim to be."""
import collections
import ctypes
import fcntl
import json
import mmap
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import unittest

from programs import STEP, failing, main, report_of, sample, take_pairs, tools, zentra as run

OPEN_LOCK, SEMAPHORE, RECORDS = (0x7FFFFFFF, 1), (0, 0x3FFFFFFF), 0x40000000
MANUAL = pathlib.Path(__file__).resolve().parents[2] / 'man'
# What no repair heals, what is missing, what the client's locale does not fit; the rest is found by
# comparing with kestro.
VERDICTS = {2: ['header-magic', 'header-cut', 'index-empty', 'description-nine-parts', 'device',
                'header-record-size-zero', 'descriptions-loop', 'header-alone'],
            4: ['data-missing', 'index-missing', 'header-collation-foreign'],
            1: ['data-cut', 'data-cut-in-record', 'big-leaf', 'record-list-entry-twice'],
            0: ['big-sound', 'big-sound-varying']}
# What is found beyond kestro.
DEEP = {'item-key-other': 'index.key-differs', 'leaf-level': 'index.keys-equal',
        'index-cut-root': 'library.error',
        'root-level-high': 'index.levels',
        'item-duplicate-numbers-equal': 'index.numbers-equal',
        'node-list-marks': 'node-list.node-marks', 'record-list-used-four': 'record-list.node-marks',
        'storage-free-other': 'storage.free-bytes', 'storage-heads-lost': 'storage.page-unlisted',
        'storage-records-gone': 'storage.reference-left', 'header-mark': 'pair.unfinished',
        'times-other-contents-varying': 'storage.piece-shared', 'data-cut': 'pieces.data-end',
        'big-index-cut': 'pieces.index-end', 'index-cut-storage': 'pieces.index-end',
        'times-older-data': 'pieces.data-end', 'times-older-index-deleted': 'pieces.times',
        'data-of-longer-records': 'pieces.record-length'}
# The independent reader looks neither at what programs refuse, nor at records that it cannot read.
OTHER_SENSE = re.compile('header-(collation|fixed|lock-method|duplicate-width)|'
                         'answers-end-at-lock-method|times-older-index-varying')
TOLD_BY_KESTRO = re.compile(
    r'^(?:ERROR: (.*)|(Error in reading index file|CLIENT_LOCALE does not match.*'
    r'|Zentra ERROR .*|SYSTEM ERROR .*)|kestro: .*?: (.*programs cannot open the pair.*)'
    r'|Fix (variable length storage) free lists.*)$', re.M)


def check(*words, folder):
    return report_of('check', *words, folder=folder)


def await_catching(process, number, catches=True):
    """Until the process catches a signal, or does not any more."""
    caught = not catches
    while caught != catches:
        status = pathlib.Path(f'/proc/{process.pid}/status').read_text()
        caught = bool(int(re.search(r'SigCgt:\t(\w+)', status)[1], 16) & 1 << number - 1)


def children_of(process):
    try:
        text = pathlib.Path(f'/proc/{process.pid}/task/{process.pid}/children').read_text()
    except OSError:
        return []
    return [int(word) for word in text.split()]


def names_open_in(process):
    """Names of the files that a process has open, as far as it lives."""
    names = []
    try:
        for one in pathlib.Path(f'/proc/{process}/fd').iterdir():
            names.append(os.path.basename(os.readlink(one)))
    except OSError:
        pass
    return names


def files_of(folder):
    return {name: (folder / name).read_bytes() for name in os.listdir(folder)
            if (folder / name).is_file()}


class Check(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.all = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        take_pairs(cls.all)

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        for name in ('pair.idx', 'pair.dat'):
            shutil.copy(self.all / 'big-sound' / name, self.folder)

    def lock(self, place, kind=fcntl.LOCK_EX):
        file = open(self.folder / 'pair.idx', 'r+b')
        self.addCleanup(file.close)
        fcntl.lockf(file, kind | fcntl.LOCK_NB, place[1], place[0])
        return file

    def check_all(self, *words):
        """Each pair's folder, verdict and lines, from one process."""
        folders = sorted(self.all.iterdir())
        _, lines = check(*words, *(f'{folder.name}/pair' for folder in folders), folder=self.all)
        for number, folder in enumerate(folders, 1):
            own = [line for line in lines if line.get('pair') == number]
            yield folder, own[-1]['status'], own

    def test_agrees_with_kestro(self):
        before = {folder: files_of(folder) for folder in self.all.iterdir()}
        for folder, status, lines in sample(self.check_all('--quick', '--wait', '0')):
            kestro = subprocess.run([tools.kestro, '-nq', 'pair'], cwd=folder, capture_output=True)
            printed = (kestro.stdout + kestro.stderr).decode('latin-1')
            told = collections.Counter(next(filter(None, match))
                                       for match in TOLD_BY_KESTRO.findall(printed))
            found = [line for line in lines if line['type'] == 'finding']
            with self.subTest(folder.name, printed=printed, found=found):
                self.assertEqual(status != 0, bool(told))
                self.assertEqual(before[folder], files_of(folder))
                if lines[-1].get('findings', 0) == 0 or lines[-1]['verdict'] == 'in-use':
                    continue
                for text, count in told.items():
                    if not text.startswith(('Zentra', 'SYSTEM', 'variable', 'CLIENT')):
                        like = [line for line in found if text in line['message']]
                        self.assertGreaterEqual(len(like), count, text)

    def test_verdicts(self):
        for expected, names in VERDICTS.items():
            for name in names:
                with self.subTest(name):
                    self.assertEqual(check('pair', folder=self.all / name)[0], expected)

    def test_agrees_with_an_independent_reader(self):
        for folder, status, lines in sample(self.check_all()):
            if OTHER_SENSE.match(folder.name) or not (folder / 'pair.dat').is_file():
                continue
            if not (folder / 'pair.idx').is_file():
                continue
            looked = subprocess.run([tools.pairs, 'look', 'pair'], cwd=folder, check=True,
                                    capture_output=True).stdout
            codes = {line['code'] for line in lines if line['type'] == 'finding'}
            with self.subTest(folder.name, codes=codes, looked=looked[:100]):
                self.assertEqual(status == 0, looked.startswith(b'sound'))
                self.assertIn(DEEP.get(folder.name), {*codes, None})

    def test_what_the_system_does_not_read_is_neither_sound_nor_damaged(self):
        for name in 'sound-fixed', 'sound-varying':
            for rule in 'read .dat 5', *(f'read {end} 5 #{n}' for end in ('.dat', '.idx')
                                         for n in range(1, 60, 3)):
                for words in ([], ['--quick']):
                    with self.subTest(name, rule=rule, words=words):
                        done = run('check', *words, 'pair', folder=self.all / name, **failing(rule))
                        self.assertIn(done.returncode, (4,) if '#' not in rule else (0, 4), done)
            report = self.folder / 'report'
            subprocess.run([tools.kestro, '-nq', 'pair'], cwd=self.all / name, capture_output=True,
                           env={**failing('read .dat 5')['env'], 'KESTRO_REPORT': report})
            done = run('check', '--quick', '--json', 'pair', folder=self.all / name,
                       **failing('read .dat 5'))
            told, own = ([[l.get('code'), l.get('verdict'), l.get('error')] for l in lines
                          if l['type'] in ('finding', 'pair-end', 'end')]
                         for lines in (map(json.loads, text.splitlines())
                                       for text in (report.read_text(), done.stdout)))
            self.assertEqual(told, own)
            self.assertEqual(told[-1][1], 'unfinished')
            report.unlink()

    def test_codes_stand_in_the_manual(self):
        page = (MANUAL / 'zentra-check.1').read_text()
        sources = [*(MANUAL.parent / 'zentra').rglob('*.cpp'),
                   *(MANUAL.parent / 'checker' / f'{name}.cpp' for name in ('entry', 'recorder'))]
        codes = {code for path in sources for code in re.findall(
            r'"((?:index|record-list|node-list|storage|audit|pair|pieces|transaction|system|library)'
            r'\.[a-z-]+)"', path.read_text())}
        self.assertGreater(len(codes), 15)
        self.assertEqual([code for code in codes if code not in page], [])

    def test_kestro_reports_the_same(self):
        """KESTRO_REPORT: the same findings and verdict, and nothing else is changed by it."""
        report = self.folder / 'report'
        def run_kestro(letters, folder, name, variables):
            shutil.copytree(folder, self.folder / 'copy', symlinks=True)
            done = subprocess.run([tools.kestro, letters, name], cwd=self.folder / 'copy',
                                  env={**os.environ, **variables}, capture_output=True, timeout=60)
            left = files_of(self.folder / 'copy')
            shutil.rmtree(self.folder / 'copy')
            return done.stdout, done.stderr, done.returncode, left
        def findings(lines):
            return [[*line.items()][2:] for line in lines if line['type'] == 'finding']
        for number, (folder, _, lines) in sample(enumerate(self.check_all('--quick', '--wait', '0'))):
            for letters in ('-yq', '-nq') if number % 6 == 0 else ('-nq',):  # repairs await the disk
                report.write_text('{"schema":1,"type":"begin"}\n{"type":"p')  # torn off
                with self.subTest(folder.name, letters=letters):
                    self.assertEqual(run_kestro(letters, folder, 'pair', {}),
                                     run_kestro(letters, folder, 'pair', {'KESTRO_REPORT': report}))
            told = [json.loads(line) for line in report.read_text().splitlines()[2:]]
            if folder.name == 'device':  # for zentra that is no pair
                continue
            with self.subTest(folder.name, told=told):
                self.assertRegex(told[0]['time'], r'^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$')
                self.assertEqual((told[0]['command'], told[-1]['verdict'], told[-2]['verdict']),
                                 ('kestro', lines[-1]['verdict'], lines[-1]['verdict']))
                if told[2].get('code') != 'pair.cannot-open':
                    self.assertEqual(findings(told), findings(lines))
        for name in 'pair.dat', 'pair.idx', 'pair.IDX', 'pair.idx.before.7':
            self.assertIn(b'no report in', run_kestro('-nq', self.all / 'sound-fixed', 'pair.dat',
                                                      {'KESTRO_REPORT': name})[1])

    def test_what_lies_behind_the_highest_is_told_singly(self):
        index = self.folder / 'pair.idx'
        sound = index.read_bytes()
        for at, field, codes in ((33, 'record', {'record-list.record-duplicate'}),
                                 (37, 'node', {'node-list.node-duplicate'})):
            last = int.from_bytes(sound[at:at + 4], 'big')
            index.write_bytes(sound[:at] + (last - 3).to_bytes(4, 'big') + sound[at + 4:])
            _, lines = check('pair', folder=self.folder)
            details = [line for line in lines if line['type'] == 'detail' and line['code'] in codes]
            found = {line['code']: line['found'] for line in lines if line['type'] == 'finding'}
            for code in codes:
                self.assertEqual(sum(d.get('last', d.get(field, 0)) - d.get(field, 0) + 1
                                     if field in d else 1 for d in details), found[code])
                self.assertTrue(any(d.get(field, 0) > last - 3 for d in details), details)

    def test_an_end_that_is_cut_is_no_other_time(self):
        _, lines = check('pair', folder=self.all / 'data-cut')
        codes = {line['code'] for line in lines if line['type'] == 'finding'}
        self.assertLessEqual({'pieces.data-end', 'index.record-bad'}, codes)
        self.assertNotIn('pieces.times', codes)

    def test_a_data_file_cut_within_the_last_trailer(self):
        """What of it is missing is read as zero bytes: before the reference that is no record."""
        (self.folder / 'layout').write_text('id char 0 8\ntail char tail\n')
        rows = ''.join(f'{{"id":"{number:08}","tail":"tail {number}"}}\n' for number in range(20))
        (self.folder / 'rows').write_text(rows)
        done = run('load', '--layout', 'layout', '--length', '8,400', '--key', '0,8,char', 'cut',
                   'rows', folder=self.folder)
        self.assertEqual(done.returncode, 0, done)
        end = 20 * 15
        for size, codes in ((end, set()), (end - 3, {'record.bad'}), (end - 4, {'record.bad'}),
                            (end - 5, {'storage.length-cut'}), (end - 6, {'storage.length-cut'}),
                            (end - 7, {'pieces.data-end'}), (end - 8, {'pieces.data-end'})):
            os.truncate(self.folder / 'cut.dat', size)
            status, lines = check('cut', folder=self.folder)
            told = {line['code'] for line in lines if 'code' in line}
            with self.subTest(size=size, told=told):
                self.assertLessEqual(codes, told)
                self.assertEqual(status, 1 if codes - {'storage.length-cut'} else 0)
                self.assertEqual('storage.length-cut' in told, 'storage.length-cut' in codes)

    def test_open_transactions(self):
        folder = self.all / 'record-list-entry-lost'
        self.assertEqual(check('pair', folder=folder)[0], 1)
        self.folder = folder
        self.lock((RECORDS + 5, 1))
        status, lines = check('pair', folder=folder)
        notes = [(line['code'], line['process']) for line in lines if line['type'] == 'note']
        self.assertEqual((status, notes), (0, [('transaction.keeps', os.getpid())]))

    def test_what_a_pair_is_and_its_bytes(self):
        for name, indexes in ('sound-fixed', 5), ('sound-varying', 2):
            folder = self.all / name
            done = run('info', '--json', 'pair', folder=folder)
            notes = [json.loads(line) for line in done.stdout.splitlines()]
            self.assertEqual(len([n for n in notes if n.get('code') == 'info.index']), indexes)
            self.assertTrue(next(n for n in notes if n.get('code') == 'info.files')['together'])
            size = next(n for n in notes if n.get('code') == 'info.nodes')['node-size']
            index = (folder / 'pair.idx').read_bytes()
            for node in range(1, min(len(index) // size, 9) + 1):
                done = run('show', '--json', 'pair', 'node', str(node), folder=folder)
                pieces = [json.loads(line) for line in done.stdout.splitlines()]
                shown = ''.join(p['bytes']['hex'] for p in pieces if 'bytes' in p)
                self.assertEqual(bytes.fromhex(shown), index[(node - 1) * size:node * size])
        done = run('show', 'pair', 'record', '1', folder=self.all / 'sound-fixed')
        self.assertIn(b'part 1 of index 1', done.stdout)
        self.assertIn(b'present', done.stdout)
        key = re.search(rb'index 1: "(\w+)"', done.stdout)[1]
        done = run('show', 'pair', 'key', '1', key, folder=self.all / 'sound-fixed')
        self.assertIn(b'record 1,', done.stdout)
        for words, status in ((['record', '0'], 4), (['node', '99999'], 4), (['key', '9', 'x'], 4),
                              (['record'], 16), (['leaf', '1'], 16)):
            self.assertEqual(run('show', 'pair', *words, folder=self.folder).returncode, status)
        for subcommand in 'info', 'show':  # which do not tell whether it is sound
            *_, end = report_of(subcommand, 'pair', *['dictionary'][subcommand == 'info':],
                                folder=self.folder)[1]
            self.assertEqual(end['verdict'], 'done')
        for name in 'header-magic', 'index-empty':
            self.assertEqual(run('show', 'pair', 'dictionary', folder=self.all / name).returncode, 0)

    def test_layouts(self):
        shutil.copy(self.all / 'sound-varying/pair.idx', self.folder)
        shutil.copy(self.all / 'sound-varying/pair.dat', self.folder)
        before = files_of(self.folder)
        draft = run('layout', 'pair', folder=self.folder)
        self.assertEqual(draft.returncode, 0)
        self.assertRegex(draft.stdout, rb'(?m)^char_0 +char +0 +12 +# index 1$')
        self.assertRegex(draft.stdout, rb'(?m)^tail +char +tail +# guess: text$')
        self.assertEqual(files_of(self.folder), before)
        for text, wrong in ((draft.stdout, b''), (b'a char 0 8\nb char 4 8\n', b'mine:2: shares'),
                            (b'a char 0 999', b'mine:1: ends at byte 999'), (None, b'mine: No such')):
            (self.folder / 'mine').unlink(missing_ok=True)
            if text is not None:
                (self.folder / 'mine').write_bytes(text)
            done = run('layout', '--layout', 'mine', 'pair', folder=self.folder)
            self.assertEqual(done.returncode, 4 if wrong else 0, done)
            self.assertTrue(done.stderr.startswith(b'zentra: ' * bool(wrong) + wrong), done)
        (self.folder / 'mine').write_text('a long 0 decimal 2 null\nb char next 2 boolean "#" n')
        _, _, a, b, *_, end = report_of('layout', '--layout', 'mine', 'pair', folder=self.folder)[1]
        self.assertEqual((a['meaning'], a['decimals'], a['null'], a['blanks'], b['form'],
                          end['verdict']), ('decimal', 2, True, False, '"#" n', 'done'))
        for folder in sample(sorted(self.all.iterdir())):  # damaged as they may be
            done = run('layout', '--wait', '0', 'pair', folder=folder)
            self.assertIn(done.returncode, (0, 2, 3, 4))
            self.assertEqual(done.returncode == 0, not done.stderr)

    def test_locks(self):
        for place in OPEN_LOCK, SEMAPHORE:
            file = self.lock(place)
            status, lines = check('--wait', '0.1', 'pair', folder=self.folder)
            self.assertEqual((status, lines[-2]['process']), (3, os.getpid()))
            fcntl.lockf(file, fcntl.LOCK_UN)
        file = self.lock(SEMAPHORE)
        for subcommand, more in ('info', ()), ('show', ('dictionary',)), ('undo', ()):
            done = run(subcommand, '--wait', '0.1', 'pair', *more, folder=self.folder)
            self.assertIn(f'in use by process {os.getpid()}', done.stdout.decode())
            self.assertEqual(done.returncode, 3)
        file.close()
        self.lock(OPEN_LOCK, fcntl.LOCK_SH)  # others may have it open, and read
        self.lock(SEMAPHORE, fcntl.LOCK_SH)
        self.assertEqual(check('pair', folder=self.folder)[0], 0)

    def test_reads_no_more_than_the_dictionary_counts(self):
        with open(self.folder / 'pair.idx', 'r+b') as file:
            size = file.seek(0, os.SEEK_END)
            file.seek(32 << 20)
            file.write(b'x' * (8 << 20))
            os.fsync(file.fileno())
            os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
            check('pair', folder=self.folder)
            with mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_COPY) as pages:
                there = (ctypes.c_ubyte * (len(pages) // mmap.PAGESIZE + 1))()
                start = ctypes.addressof(ctypes.c_char.from_buffer(pages))
                self.assertEqual(ctypes.CDLL(None).mincore(
                    ctypes.c_void_p(start), ctypes.c_size_t(len(pages)), there), 0)
        self.assertLess(sum(page & 1 for page in there), (size + (4 << 20)) // mmap.PAGESIZE)

    def test_waits_and_tells_where_it_is(self):
        file = self.lock(SEMAPHORE)
        with subprocess.Popen([tools.zentra, 'check', 'pair'], cwd=self.folder,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            await_catching(process, signal.SIGUSR1)
            process.send_signal(signal.SIGUSR1)
            self.assertIn(b'zentra: ', process.stderr.readline())
            fcntl.lockf(file, fcntl.LOCK_UN)
            self.assertIn(b'pair: sound', process.communicate(timeout=60)[0])
            self.assertEqual(process.returncode, 0)

    def test_an_unread_report_locks_nobody_out(self):
        file = self.lock(SEMAPHORE)
        reader, writer = os.pipe()
        os.set_blocking(writer, False)
        with self.assertRaises(BlockingIOError):
            while os.write(writer, b'x' * 4096):
                pass
        os.set_blocking(writer, True)
        with subprocess.Popen([tools.zentra, 'check', 'pair'], cwd=self.folder,
                              stdout=writer) as process:
            os.close(writer)
            await_catching(process, signal.SIGALRM)  # it waits for the lock
            fcntl.lockf(file, fcntl.LOCK_UN)
            await_catching(process, signal.SIGALRM, False)
            fcntl.lockf(file, fcntl.LOCK_EX)
            with open(reader, 'rb') as report:
                self.assertIn(b'pair: sound', report.read())

    def test_what_kestro_heals(self):
        said = {folder.name: own[-1]['message'] for folder, _, own in self.check_all()}
        healed = [name for name, text in said.items() if text.endswith('kestro -y heals it')]
        self.assertGreater(len(healed), 20)
        for name in healed:
            shutil.copytree(self.all / name, self.folder / name, symlinks=True)
            subprocess.run([tools.kestro, '-yq', 'pair'], cwd=self.folder / name, check=False,
                           capture_output=True)
        _, lines = check(*(f'{name}/pair' for name in healed), folder=self.folder)
        left = [(healed[line['pair'] - 1], line['code']) for line in lines
                if line['type'] == 'finding']
        self.assertEqual(left, [])

    def test_names(self):
        os.link(self.folder / 'pair.idx', self.folder / 'linked.idx')
        shutil.copy(self.folder / 'pair.dat', self.folder / 'linked.dat')
        self.assertEqual(check('pair', 'linked', folder=self.folder)[1][0]['pairs'], 2)
        self.assertEqual(len(check('pair', 'pair.idx', './pair.dat', folder=self.folder)[1]), 4)
        for name in ('a "b"\n\x1b[31m', 'c\udcff', '[d,e]', '\x1fg', 'info', '-f'):
            for end in '.idx', '.dat':
                shutil.copy(self.folder / ('pair' + end), self.folder / (name + end))
            status, lines = check('--', name, folder=self.folder)
            told = bytes.fromhex(lines[1]['name']['hex'])
            self.assertEqual((status, told), (0, os.fsencode(name)))
            self.assertEqual('text' in lines[1]['name'], name.isprintable())
            done = run('check', '--', name, folder=self.folder)
            self.assertEqual(done.returncode, 0)
            self.assertNotRegex(done.stdout, rb'[\x00-\x09\x0b-\x1f\x7f-\xff]')

    def test_what_is_no_pair(self):
        for make in (os.mkdir, os.mkfifo):
            (self.folder / 'pair.idx').unlink()
            make(self.folder / 'pair.idx')
            self.assertEqual(check('pair', folder=self.folder)[0], 2)
            os.rename(self.folder / 'pair.idx', self.folder / make.__name__)
            (self.folder / 'pair.idx').touch()

    def test_command_lines(self):
        for words, named in (('', 'subcommand'), ('check', 'PAIR'), ('check --slow', '--slow'),
                             ('check -j 0 x', '-j'), ('undone x', 'undone'), ('-x check x', '-x'),
                             ('undone --help', 'undone'), ('undo x y', 'y'), ('show x leaf 1', 'leaf'),
                             ('check --wait nan x', 'nan'), ('undo --wait -1 x', '-1')):
            done = run(*words.split(), folder=self.folder)
            self.assertEqual((done.returncode, done.stdout), (16, b''), words)
            self.assertIn(named, done.stderr.decode().split('zentra: ')[1].split('; ')[0], words)
        done = run('check', '--help', folder=self.folder)
        self.assertEqual(done.returncode, 0)
        self.assertIn(b'Not one byte', done.stdout)
        with open('/dev/full', 'wb') as full:
            done = subprocess.run([tools.zentra, 'check', 'pair'], cwd=self.folder, stdout=full,
                                  stderr=subprocess.PIPE, check=False)
        self.assertEqual(done.returncode, 4)
        self.assertIn(b'could not be written', done.stderr)

    def test_several_at_the_same_time(self):
        pairs = [f'{name.name}/pair' for name in sorted(self.all.iterdir())][::STEP]
        def report(*words):
            done = run('check', *words, '--wait', '0', *pairs, folder=self.all)
            return done.returncode, re.sub(rb'"?seconds(-held)?"?[ :][\d.e-]+', b'', done.stdout)
        for form in [], ['--json']:
            alone = report(*form)
            self.assertEqual(alone[1].count(b'"type":"pair-end"'), len(pairs) if form else 0)
            for jobs in '2', '5':
                self.assertEqual(report('-j', jobs, *form), alone)
        done = run('check', '-j', '2', *pairs[:3], folder=self.all,
                   preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.assertEqual(done.stdout.count(b'pairs 3,'), 1)

    def test_a_killed_worker_costs_one_pair(self):
        """Both workers wait for locks: one is killed, and another one does what is left."""
        names = [f'pair{number}' for number in range(6)]
        for name in names:
            for end in '.idx', '.dat':
                shutil.copy(self.folder / f'pair{end}', self.folder / (name + end))
        files = [open(self.folder / f'{name}.idx', 'r+b') for name in names[1:3]]
        for file in files:
            self.addCleanup(file.close)
            fcntl.lockf(file, fcntl.LOCK_EX, SEMAPHORE[1], SEMAPHORE[0])
        with subprocess.Popen([tools.zentra, 'check', '--json', '-j', '2', '--wait', '60', *names],
                              cwd=self.folder, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as process:
            at_work = {}
            while len(at_work) < len(files):
                for worker in children_of(process):
                    for name in names_open_in(worker):
                        if name[:-4] in names[1:3] and name.endswith('.idx'):
                            at_work[name[:-4]] = worker
            process.send_signal(signal.SIGUSR1)
            self.assertRegex(process.stderr.readline(), b'^zentra: Pairs done: (0|16)%\n$')
            os.kill(at_work['pair1'], signal.SIGKILL)
            fcntl.lockf(files[1], fcntl.LOCK_UN)
            lines = [json.loads(line) for line in process.communicate(timeout=60)[0].splitlines()]
        ends = [line for line in lines if line['type'] == 'pair-end']
        self.assertEqual([line['status'] for line in ends], [0, 4, 0, 0, 0, 0])
        self.assertEqual([line['pair'] for line in lines if line['type'] == 'pair'],
                         list(range(1, 7)))
        self.assertEqual(ends[1]['message'], 'could not be finished: signal 9')
        self.assertEqual((lines[-1]['sound'], lines[-1]['unfinished'], process.returncode), (5, 1, 4))

    def test_a_worker_that_dies_when_its_report_is_written(self):
        """Each worker dies before it tells of its first pair."""
        pairs = [f'{name}/pair' for name in ('sound-fixed', 'data-cut', 'big-leaf', 'sound-varying')]
        def report(*words, **more):
            done = run('check', *words, *pairs, folder=self.all, **more)
            return done.returncode, re.sub(rb'"seconds(-held)?":[\d.e-]+', b'', done.stdout)
        pipe, broken = ']', 32
        self.assertEqual(report('--json', '-j', '2', **failing(f'send {pipe} {broken}')),
                         report('--json'))

    def test_names_that_cannot_be_read(self):
        for jobs in '1', '2':
            with subprocess.Popen([tools.zentra, 'check', '-j', jobs, '-'], stdin=os.open('/', os.O_RDONLY),
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE) as asked:
                self.assertIn(b'the names could not all be read', asked.communicate()[1])
            self.assertEqual(asked.returncode, 4)
            done = subprocess.run([tools.zentra, 'check', '-j', jobs, '-'], cwd=self.folder, check=False,
                                  capture_output=True, input=b'.idx\0pair.idx')
            self.assertIn(b'pairs 2, sound 1,', done.stdout)

    def test_names_on_standard_input_are_answered_as_they_come(self):
        pairs = [str(self.all / made / 'pair') for made in ('sound-fixed', 'data-cut', 'nowhere')]
        with subprocess.Popen([tools.zentra, 'check', '--json', '-'], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE) as asked:
            verdicts = []
            for pair in pairs:
                asked.stdin.write(pair.encode() + b'.idx\0')
                asked.stdin.flush()
                for line in map(json.loads, asked.stdout):
                    if line['type'] == 'pair':
                        self.assertEqual(line['name']['text'], pair)
                    if line['type'] == 'pair-end':
                        verdicts.append(line['verdict'])
                        break
            asked.stdin.close()
            self.assertEqual(json.loads(asked.stdout.readline())['type'], 'end')
        self.assertEqual((verdicts, asked.returncode), (['sound', 'damaged', 'unfinished'], 4))
        named = subprocess.run([tools.zentra, 'check', '-j', '2', '-'], capture_output=True, check=False,
                               input='\0'.join([*pairs, pairs[0]]).encode())
        self.assertIn(b'pairs 3, ', named.stdout)

    def test_examples_of_the_manual(self):
        for name, made in (('sound', 'sound-fixed'), ('damaged', 'big-leaf'), ('ledger', 'data-cut'),
                           ('copy', 'sound-fixed'), ('grown', 'big-sound'),
                           ('stock', 'descriptions-zeroed'), ('wages', 'record-state-unknown'),
                           ('headless', 'header-magic')):
            for end in '.idx', '.dat':
                shutil.copy(self.all / made / f'pair{end}', self.folder / (name + end))
        shutil.copy(self.folder / 'ledger.idx', self.folder / 'ledger.idx.before')
        shutil.copy(self.folder / 'sound.dat', self.folder / 'orphan.dat')
        path = os.path.dirname(tools.zentra) + ':' + os.environ['PATH']
        count = 0
        for page in sorted(MANUAL.glob('zentra*.[17]')):
            for line in re.findall(r'^\$ (.*)$', page.read_text(), re.M):
                shell = line.replace('\\-', '-').replace('\\e', '\\')
                done = subprocess.run(['sh', '-c', shell], cwd=self.folder,
                                      env={**os.environ, 'PATH': path}, capture_output=True,
                                      check=False)
                self.assertIn(done.returncode, (0, 1, 2), (line, done))
                is_silent = line.startswith(('cp ', 'printf ')) or ' > ' in line
                self.assertTrue(done.stdout or is_silent, line)
                count += 1
        self.assertGreaterEqual(count, 6)
        _, lines = check('wages', folder=self.folder)
        self.assertEqual(lines[-1]['verdict'], 'sound')
        status, _ = report_of('repair', '-y', '--keys', 'stock.keys', 'stock', folder=self.folder)
        self.assertEqual(status, 0)


if __name__ == '__main__':
    main()
