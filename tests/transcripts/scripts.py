#!/usr/bin/env python3
"""Carries out the cases of tests/scripts: tells processes what to do, line by line, and compares
what they answer with what stands there. tests/scripts/README.md tells the words.

  scripts.py --actor PROGRAM --pairs PROGRAM --programs FOLDER:... [--update] FILE [CASE...]

Of the cases whose first line holds one of the words CASE, or of all. --update writes the answers
into the file, to be read by you. Exit status 0: all is as it should be; 1: it is not.
"""
import argparse
import bisect
import collections
import contextlib
import difflib
import errno
import fcntl
import itertools
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

import recipe

SOURCE = pathlib.Path(__file__).resolve().parents[2]
SCRIPTS = SOURCE / 'tests' / 'scripts'
HEADER = (SOURCE / 'include' / 'isam.h').read_text()
NUMBERS = {name: int(value, 0)
           for name, value in re.findall(r'\b((?:IS|RD_|KF_|AUD)[A-Z]+) = (\w+)', HEADER)}
ERRORS = {**errno.errorcode, **{value: name for name, value in NUMBERS.items()
                                if name.startswith('ISE') and value >= 100}}
FAILURES = {**{name: getattr(errno, name) for name in dir(errno) if name[0] == 'E'},
            **{each.name: -each.value for each in signal.Signals}}
MODES = {'input': 'ISINPUT', 'output': 'ISOUTPUT', 'inout': 'ISINOUT', 'manual': 'ISMANULOCK',
         'auto': 'ISAUTOLOCK', 'exclusive': 'ISEXCLLOCK', 'trans': 'ISTRANS', 'nolog': 'ISNOLOG',
         'anylength': 'ISANYLENGTH',
         **{word: 'RD_' + word.upper()
            for word in 'first last next prev curr equal great gteq lock wait'.split()},
         'skip': 'RD_SKIPLOCK',
         **{word: 'AUD' + word.upper() for word in 'setname getname start stop info'.split()}}
# Where a call's words have one.
MODE_AT = {'open': 3, 'build': 3, 'build-plain': 3, 'start': 3, 'read': 2, 'find': 2, 'audit': 2}
RECORDS, OPEN_LOCK, END = 0x40000000, 0x7FFFFFFF, 0x80000000
LONGEST = 30  # seconds
SURVIVED = 'EINTR', 'EMFILE'  # errors of the system that no call tells
LOCK_ERRORS = ['ISEINUSE', 'ISELOCKED', 'ISENOLOCKS']
RANGE = re.compile(r' (\d+)-(\d+)(?:/(\d+))?(?=\D|$)')


def numbers_of(found):
    """"3-9" and, with each third, "3-9/3"."""
    return range(int(found[1]), int(found[2]) + 1, int(found[3] or 1))


def number_of_mode(words):
    names = words.split('+')
    one_way = {'input', 'output', *list(MODES)[9:]} & set(names)
    return sum(NUMBERS[MODES[name]] for name in names) | (0 if one_way else NUMBERS['ISINOUT'])


class Cast:
    """Processes a to g. Each has a line of its own from the start: another may fork it."""
    NAMES = 'abcdefg'

    def __init__(self, given, kind, folder):
        self.given, self.kind, self.folder = given, kind, folder
        pairs = [socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET) for _ in self.NAMES]
        self.ours = {name: pair[0] for name, pair in zip(self.NAMES, pairs)}
        self.theirs = [pair[1].fileno() for pair in pairs]
        self.keep = pairs
        self.processes, self.numbers, self.all_numbers, self.paused = {}, {}, {}, set()
        self.fault, self.tells, self.told = '', (), 0  # of process a: what fails, and how it tells

    def hear(self, name):
        answer, until = None, time.monotonic() + LONGEST
        while answer is None:
            gone = name not in self.processes or self.processes[name].poll() is not None
            try:
                self.ours[name].settimeout(0.05)
                answer = self.ours[name].recv(4096).decode()
            except TimeoutError:
                if gone and name in self.processes:
                    self.end(name)
                    return 'is gone'
                if time.monotonic() > until:
                    return 'is silent'
        self.paused.discard(name)
        if answer == 'paused':
            self.paused.add(name)
        if answer[:1] not in ('!', '~'):
            return answer
        name = ERRORS.get(int(answer[1:]), answer)
        return name if answer[0] == '!' else f'ok with {name}'

    def tell(self, name, order):
        self.ours[name].send(order.encode())
        return self.hear(name)

    def start(self, name):
        words = [self.given.actor, self.kind, str(self.NAMES.index(name)), *map(str, self.theirs)]
        process = subprocess.Popen(words, cwd=self.folder, pass_fds=self.theirs)
        self.processes[name] = process
        self.numbers[name] = self.all_numbers[name] = process.pid

    def end(self, name):
        process = self.processes.pop(name, None)
        if process:
            process.kill()
            process.wait()
        elif name in self.numbers:
            os.kill(self.numbers[name], signal.SIGKILL)
        self.numbers.pop(name, None)
        return 'ok'

    def __del__(self):
        for ours, theirs in self.keep:
            ours.close()
            theirs.close()

    def go_on(self, name):
        """The rest of a call that waits or is paused. It may wait again, for the other's call."""
        if name in self.paused:
            self.ours[name].send(b'go on')
        while (answer := self.hear(name)) == 'waits':
            pass
        return answer

    def order(self, line):
        words = line.split()
        name, what = words[0][0], words[1]
        if what == 'is-killed':
            return self.end(name)
        if what == 'goes-on':
            return self.go_on(name)
        if name not in self.numbers:
            self.start(name)
            if name == 'a' and self.fault:
                self.tell(name, f'a {self.fault}')
        if what in MODE_AT:
            words[MODE_AT[what]] = str(number_of_mode(words[MODE_AT[what]]))
        if what == 'fails':
            words[4] = str(FAILURES[words[4]])
        answer = self.tell(name, ' '.join(words))
        if name == 'a' and answer in self.tells:
            self.told += 1
            if '+' in self.fault:
                self.tell(name, 'a works')
            answer = self.tell(name, ' '.join(words))
        if what == 'forks':
            self.numbers[words[2]] = self.all_numbers[words[2]] = int(answer)
            return 'ok'
        return answer

    def name_of(self, number):
        names = [name for name, its in self.numbers.items() if its == number]
        return names[0] if names else 'a stranger'


class Stage:
    """A folder of its own for a case, and what its lines answer there."""
    def __init__(self, given, kind, folder):
        self.given, self.folder = given, pathlib.Path(folder)
        self.cast = Cast(given, kind, folder)
        self.kept, self.made, self.rules = {}, {}, ''

    def end(self):
        for name in list(self.cast.numbers):
            self.cast.end(name)

    def answer(self, line):
        if line.startswith('$ '):
            return self.shell(line[2:])
        words = line.split()
        if re.fullmatch('[a-f][0-9]?', words[0]):
            if words[1] == 'each-write-refused':
                return self.refuse_each(words[0], ' '.join([words[0], *words[2:]]))
            return self.order_all(line)
        return getattr(self, 'do_' + words[0].replace('-', '_'))(*words[1:])

    def order_all(self, line):
        """"20-59" stands for each of these numbers, until one fails."""
        found = RANGE.search(line)
        if not found:
            return self.cast.order(line)
        for number in numbers_of(found):
            answer = self.cast.order(f'{line[:found.start()]} {number}{line[found.end():]}')
            if answer.startswith(('ISE', 'E')):
                return f'{answer} at {number}'
        return answer

    def files(self):
        return {path.name: path.read_bytes() for path in self.folder.iterdir() if path.is_file()}

    def refuse_each(self, who, line):
        met, write = set(), 0
        def position():
            return [self.cast.order(f'{who} read {mode}') for mode in ('curr', 'next')]
        while True:
            self.cast.order(f'{who} read first')
            first = position()
            self.cast.order(f'{who} read first')
            before, number = self.files(), self.cast.order(f'{who} recnum')
            self.cast.tell(who[0], f'{who} refuses {write}')
            answer = self.cast.order(line)
            if self.cast.tell(who[0], f'{who} refused') == '0':
                return ', '.join([*sorted(met), f'then {answer}'])
            after = self.cast.order(f'{who} recnum')
            self.cast.order(f'{who} flush')
            changed = [name for name, now in self.files().items() if now != before.get(name)]
            changed += ['isrecnum'] * (after != number) + ['the position'] * (position() != first)
            if changed:
                answer += f' with {" ".join(changed)} changed'
            met.add(answer)
            write += 1

    def do_pair(self, name, records):
        orders = [f'build {name} exclusive', *(f'write {id}.{id // 3}' for id in
                                               range(1, int(records) + 1)), 'close']
        answers = {self.cast.order('g ' + order) for order in orders}
        self.cast.end('g')
        return ', '.join(answers)

    def do_make(self, name, *shape):
        """A pair as the recipes of tests/pairs make them."""
        done = subprocess.run([self.given.pairs, 'make', self.folder / name, self.cast.kind, *shape],
                              stdout=subprocess.PIPE, check=True)
        self.made[name] = json.loads(done.stdout)
        return 'ok'

    def do_damage(self, name, *words):
        """... and as they damage it."""
        pair = recipe.Pair(str(self.folder / name), self.made[name])
        pair.damage(words[0], recipe.Words(' '.join(words[1:])))
        pair.save()
        return 'ok'

    def do_pages(self, name, before):
        """How many storage pages of a made pair hold other bytes than in another file, and kinds."""
        size, built = self.made[name]['node_size'], self.made[name]
        now, old = ((self.folder / file).read_bytes() for file in (f'{name}.idx', before))
        ends = [number * size for number in built['page'] + built['big-page']]
        changed = sum(now[end - size:end - 3] != old[end - size:end - 3] for end in ends)
        return f'{changed} changed, kinds {sorted({now[end - 3] for end in ends})}'

    def look(self, name):
        """What an independent reader finds."""
        return subprocess.run([self.given.pairs, 'look', self.folder / name], text=True,
                              stdout=subprocess.PIPE, check=True).stdout.splitlines()

    def do_sound(self, name):
        look = self.look(name)
        report = self.shell(f'kestro -nq {name}')
        if 'ERROR' in report or '?' in report:
            return report
        return f'{len(look) - 1} records' if look[0] == 'sound' else look[0]

    def do_records(self, name):
        """The records as NUMBER=ID.GROUP.COUNTER."""
        look = self.look(name)
        shown = [] if look[0] == 'sound' else look[:1]
        for number, content in map(str.split, look[1:]):
            record = bytes.fromhex(content)
            shown.append(f'{number}={int(record[:60])}.{int(record[60:68])}.'
                         f'{int.from_bytes(record[68:72], "big", signed=True)}')
        return ' '.join(shown) or 'none'

    def do_logged(self, name):
        """The types of the records in a log."""
        log, letters, at = (self.folder / name).read_bytes(), [], 4
        while at < len(log):
            letters.append(log[at + 2:at + 4].decode('latin-1'))
            at += int.from_bytes(log[at:at + 2], 'big') or len(log)
        return ' '.join(letters) or 'nothing'

    def do_keep(self):
        self.kept = self.files()
        return 'ok'

    def do_restore(self):
        for name, content in self.kept.items():
            (self.folder / name).write_bytes(content)
        return 'ok'

    def do_changed(self):
        now = self.files()
        names = [name for name in sorted(now) if now[name] != self.kept.get(name)]
        return ', '.join(names + [f'no {name}' for name in sorted(self.kept) if name not in now]
                         ) or 'nothing'

    def do_bytes(self, name, offset, count):
        return (self.folder / name).read_bytes()[int(offset):][:int(count)].hex(' ')

    def do_set(self, name, offset, *content):
        with open(self.folder / name, 'r+b') as file:
            file.seek(int(offset))
            file.write(bytes.fromhex(''.join(content)))
        return 'ok'

    def do_size(self, name):
        return str((self.folder / name).stat().st_size)

    def do_mark(self, name):
        """Of an exclusive open that has kept changes back."""
        mark = (self.folder / f'{name}.idx').read_bytes()[117:125]
        if mark[:4] != b'EXCL':
            return 'none' if mark == bytes(8) else mark.hex(' ')
        return 'of ' + self.cast.name_of(int.from_bytes(mark[4:], 'big'))

    def do_opened(self, who):
        """The indexes that a process has open."""
        folder = pathlib.Path(f'/proc/{self.cast.numbers[who]}/fd')
        names = {str(entry.readlink()) for entry in folder.iterdir()}
        return ' '.join(sorted(name.rpartition('/')[2] for name in names if '.idx' in name)
                        ) or 'none'

    def do_locks(self, name):
        with open(self.folder / name, 'r+b') as file:
            return ', '.join(self.locks(file, 0, END)) or 'none'

    def locks(self, file, start, end):
        """Those of a range: the first that the system names, and what lies on either side."""
        if start >= end:
            return []
        form = 'hhqqi4x'
        wanted = struct.pack(form, fcntl.F_WRLCK, os.SEEK_SET, start, end - start, 0)
        kind, _, at, length, process = struct.unpack(form,
                                                     fcntl.fcntl(file, fcntl.F_GETLK, wanted))
        if kind == fcntl.F_UNLCK:
            return []
        behind = at + length if length else end
        name, has = self.cast.name_of(process), 'shares' if kind == fcntl.F_RDLCK else 'has'
        return [*self.locks(file, start, at), f'{name} {has} {self.range_name(at, behind)}',
                *self.locks(file, behind, end)]

    @staticmethod
    def range_name(start, end):
        named = {(0, RECORDS - 1): 'the calls', (RECORDS, OPEN_LOCK - 1): 'the file',
                 (OPEN_LOCK, END): 'the open lock'}
        return named.get((start, end)) or (
            f'record {start - RECORDS}' if end == start + 1 else f'{start} to {end}')

    def environment(self, rules=''):
        more, rules = {}, rules or self.rules
        if rules:
            more.update(KESTRO_FAILING_CALLS=rules, LD_PRELOAD=self.given.failing_calls)
        return {**os.environ, 'PAIRS': self.given.pairs, 'MANUAL': str(SOURCE / 'man' / 'kestro.8'),
                'PATH': f'{self.given.programs}:/usr/bin:/bin', **more}

    def do_commands_fail(self, call, file, error, *when):
        """A rule for the system calls of commands."""
        self.rules += f'{call} {file} {FAILURES[error]} {"".join(when)};'
        return 'ok'

    def do_stops(self, call, file, when, *command):
        """Starts a command that stands still at a system call."""
        before = self.rules
        self.do_commands_fail(call, file, 'SIGSTOP', when)
        self.standing = subprocess.Popen(['/bin/sh', '-c', 'exec ' + ' '.join(command)],
                                         cwd=self.folder, env=self.environment())
        self.rules = before
        return 'ok' if os.WIFSTOPPED(os.waitpid(self.standing.pid, os.WUNTRACED)[1]) else 'it ended'

    def do_continues(self):
        self.standing.send_signal(signal.SIGCONT)
        status = self.standing.wait(LONGEST)
        return f'status {status}' if status else 'ok'

    def do_stranger(self, name):
        """Another program opens an index, waits for its turn, has it open and reads its magic."""
        code = f"""import fcntl
file = open('{name}', 'r+b', buffering=0)
print('begins', flush=True)
fcntl.lockf(file, fcntl.LOCK_EX, {RECORDS - 1})
fcntl.lockf(file, fcntl.LOCK_SH | fcntl.LOCK_NB, 1, {OPEN_LOCK})
print(file.read(2).hex())"""
        self.other = subprocess.Popen([sys.executable, '-c', code], cwd=self.folder, text=True,
                                      stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.other.stdout.readline()
        time.sleep(0.1)
        return 'waits' if self.other.poll() is None else self.do_stranger_reads()

    def do_stranger_reads(self):
        return self.other.communicate(timeout=LONGEST)[0].strip()

    def shell(self, command):
        """What a command prints, and how it ends."""
        done = subprocess.run(['/bin/sh', '-c', command], cwd=self.folder, env=self.environment(),
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=LONGEST)
        said = done.stdout.decode('latin-1')
        if done.stderr:
            said += '--- standard error\n' + done.stderr.decode('latin-1')
        if done.returncode:
            said += f'--- status {done.returncode}\n'
        said = said.replace(str(self.folder), 'FOLDER')
        names = {str(number): name for name, number in self.cast.all_numbers.items()}
        # An audit trail has the lower half of a process's number.
        halves = {str(int(number) & 0xFFFF): name for number, name in names.items()}
        named = 'PROCESS-{}'.format
        said = re.sub(r' +(\d+) +\d+  \d{4}-\d\d-\d\dT[\d:]{8}Z', lambda found: '  ' + named(
            names.get(found[1], halves.get(found[1], '?'))) + ' USER TIME', said)
        said = re.sub(r'\d{4}-\d\d-\d\d[ T]\d\d:\d\d:\d\d', 'TIME', said)
        said = re.sub(r'\b\d+\b', lambda found: named(names[found[0]])
                      if found[0] in names else found[0], said)
        if 'Sanitizer' in said or 'runtime error' in said or done.returncode < 0:
            raise ValueError(f'{command} fails: {said}')
        return said

    def do_cuts(self, name, *command):
        """A command on each beginning of a file: how often it ends how."""
        whole = (self.folder / name).read_bytes()
        return self.statuses(name, (whole[:size] for size in range(1, len(whole))), command)

    def do_flips(self, name, step, *command):
        """A command on a file of which one byte is wrong: how it ends."""
        whole = (self.folder / name).read_bytes()
        damaged = (whole[:at] + bytes([whole[at] ^ (255 if at % 3 == 0 else 1 << at % 8)]) +
                   whole[at + 1:] for at in range(4, len(whole), int(step)))
        said = self.statuses(name, damaged, command)
        return ' and '.join(re.findall(r'status \d', said))

    def start_over(self):
        for name in set(self.files()) - set(self.kept):
            (self.folder / name).unlink()
        self.do_restore()

    def strange_files(self):
        return [name for name in self.files()
                if name not in self.kept and not name.startswith('pair.idx.before')]

    def left(self, repaired):
        """What a repair of the kept pair has left."""
        files = self.files()
        index = files['pair.idx']
        told = [*[said for said, whole in (('as it was', self.kept['pair.idx']), ('repaired', repaired))
                  if index == whole], *['marked'] * any(index[117:125]), 'something else'][:1]
        told += ['data changed'] * (files['pair.dat'] != self.kept['pair.dat'])
        return told + ['kept'] * ('pair.idx.before' in files) + ['another file'] * len(
            self.strange_files())

    def do_cut_short(self, call, error, when, *command):
        """A repair of the kept pair that fails at its first such system call, at its second, and so
        on: what it leaves, and what the next run leaves of that where this is not sound."""
        def run(at, what):
            self.start_over()
            rules = self.rules + (f'{call} * {what} {when}{at};' if at else 'none * 0;')
            return subprocess.run(command, cwd=self.folder, capture_output=True,
                                  env=self.environment(rules))
        records, mended, met = self.look('pair')[1:], {}, set()
        run(0, 0)
        repaired = self.files()['pair.idx']
        calls = bisect.bisect(range(1, 1000), False, key=lambda at: run(at, -9).returncode != -9)
        sparsely = call == 'step' and 'KESTRO_EVERY_CALL' not in os.environ
        for at in range(1, calls + 1, 3 if sparsely else 1):
            done = run(at, FAILURES[error])
            told = self.left(repaired) + ['said to be as it was'] * (
                b'the pair is as it was' in done.stdout + done.stderr)
            state = hash(frozenset(self.files().values()))
            if state not in mended:
                self.shell(' '.join(command))
                mended[state] = [said for said in [self.do_sound('pair')]
                                 if said != f'{len(records)} records'] + self.strange_files()
                mended[state] += ['other records'] * (self.look('pair')[1:] != records)
            met.add(', '.join([*told, *mended[state]]))
        return ('' if calls > 20 else f'{calls} calls: ') + '; '.join(sorted(met))

    def do_signals(self, signals, *command):
        """Signals end a repair of the kept pair, each at several moments: what it leaves."""
        def run(signal, moment):
            self.start_over()
            repair = subprocess.Popen(command, cwd=self.folder, env=self.environment(),
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            with contextlib.suppress(subprocess.TimeoutExpired):
                repair.wait(moment)
            repair.send_signal(-signal)
            return repair.wait(LONGEST)
        start, met = time.monotonic(), collections.Counter()
        run(0, LONGEST)
        whole, repaired = time.monotonic() - start, self.files()['pair.idx']
        moments = int(os.environ.get('KESTRO_SIGNAL_MOMENTS', 5))
        for at, name in itertools.product(range(moments), signals.split('+')):
            status = run(FAILURES[name], whole * (at + 0.5) / moments)
            left = self.left(repaired)
            met[left[0] if status in (0, FAILURES[name]) else f'status {status}'] += 1
            met['several files'] += len(left) > 3 or (len(left) > 2 and name != 'SIGKILL')
        return ', '.join(sorted(+met))

    def statuses(self, name, contents, command):
        met = collections.Counter()
        for content in contents:
            (self.folder / name).write_bytes(content)
            shown = self.shell(' '.join(command))
            met[(re.findall(r'--- (status \d)', shown) or ['status 0'])[0]] += 1
        return ', '.join(f'{count} times {status}' for status, count in sorted(met.items()))


def carry_out(stage, lines):
    """The lines with what is answered now."""
    made, at = [], 0
    while at < len(lines):
        line, at = lines[at], at + 1
        if line.startswith('$ '):
            while at < len(lines) and lines[at].startswith('|'):
                at += 1
            shown = stage.answer(line).splitlines()
            made += [line, *(f'| {each}'.rstrip() for each in shown)]
        elif not line or line.startswith(('# ', 'only ', 'with ', 'failing ')):
            made.append(line)
        else:
            told, _, expected = line.partition(' : ')
            answer = stage.answer(told)
            made.append(line if expected == '?' else
                        told if answer == 'ok' else f'{told} : {answer}')
    return made


def parts_of(path):
    """What is ahead of the cases, and each case."""
    lines = path.read_text().splitlines()
    starts = [at for at, line in enumerate(lines) if line.startswith('# ')] + [len(lines)]
    return [lines[begin:end] for begin, end in zip([0, *starts], starts)]


def once(given, kind, head, told, fault='', tells=()):
    """A case with what is answered, how often the system call of a fault was met, and how often it
    was told."""
    with tempfile.TemporaryDirectory(prefix='kestro-test-') as folder:
        stage = Stage(given, kind, folder)
        stage.cast.fault, stage.cast.tells = fault, tells
        try:
            carry_out(stage, head)
            said = carry_out(stage, told)
            ended = stage.cast.told and '+' in fault
            met = sys.maxsize if ended else int(stage.cast.order('a met')) if fault else 0
            return said, met, stage.cast.told
        finally:
            stage.end()


def rounds(given, kind, head, told):
    """What is answered; then for each fault behind `failing` the same where the first such system
    call fails, the next one, and so on."""
    yield once(given, kind, head, told)[0], ''
    faults = [line[8:].split(', ') for line in told if line.startswith('failing ')]
    for call, file, error, *when in map(str.split, faults[0] if faults else []):
        tells = [] if error in SURVIVED else [error, *LOCK_ERRORS * call.endswith('lock')]
        at, met = 1, 1
        while at <= met:
            fault = f'fails {call} {file} {FAILURES[error]} {when[0] if when else "#"}{at}'
            said, met, count = once(given, kind, head, told, fault, tells)
            unheard = at <= met and call != 'read' and count != min(1, len(tells))
            ends = ['not told once'] * unheard + ['never met'] * (at == 1 and not met)
            yield [*said, *ends], fault
            at += met if '/' in fault else 1 + at // 10


def play(given, kind, head, case):
    """A case with what is answered now; behind `with` once for each number in place of N."""
    numbers = [line[5:] for line in case if line.startswith('with ')]
    found = RANGE.match(f' {numbers[0]}') if numbers else None
    for number in numbers_of(found) if found else numbers[0].split() if numbers else ['']:
        value = str(number).replace('_', ' ')
        told = [re.sub(r'\bN\b', value, line) for line in case]
        for said, fault in rounds(given, kind, head, told):
            made = [old if new == meant else new for old, new, meant in zip(case, said, told)
                    ] if len(said) == len(case) else said
            if made != case:
                return [*made, *[f'where {fault}'] * bool(fault)]
    return case


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    for tool in ('--actor', '--pairs', '--programs', '--failing-calls'):
        parser.add_argument(tool, required=True)
    parser.add_argument('--update', action='store_true')
    parser.add_argument('file')
    parser.add_argument('cases', nargs='*')
    given = parser.parse_args()
    recipe.default_signals()
    path = SCRIPTS / given.file
    head, *cases = parts_of(path)
    good = True
    for number, case in enumerate(cases):
        if given.cases and not any(word in case[0] for word in given.cases):
            continue
        for kind in ('fixed', 'varying'):
            if {f'only {other}' for other in ('fixed', 'varying') if other != kind} & {*head, *case}:
                continue
            made = play(given, kind, head[1:], case)
            if made == case:
                continue
            good = False
            print(f'{given.file}, {kind}: {case[0]}')
            print('\n'.join(list(difflib.unified_diff(case, made, lineterm=''))[3:]))
            if given.update:
                cases[number] = case = made
    if given.update:
        path.write_text('\n'.join('\n'.join(part) for part in (head, *cases)) + '\n')
    return 0 if good else 1


if __name__ == '__main__':
    sys.exit(main())
