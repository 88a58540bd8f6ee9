#!/usr/bin/env python3
"""Carries out the cases of tests/scripts: tells processes what to do, line by line, and compares
what they answer with what stands there. tests/scripts/README.md tells the words.

  scripts.py --actor PROGRAM --pairs PROGRAM --programs FOLDER:... [--update] FILE [CASE...]

Of the cases whose first line holds one of the words CASE, or of all. --update writes the answers
into the file, to be read by you. Exit status 0: all is as it should be; 1: it is not.
"""
import argparse
import errno
import fcntl
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile

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
         **{word: 'RD_' + word.upper()
            for word in 'first last next prev curr equal great gteq lock wait'.split()},
         'skip': 'RD_SKIPLOCK',
         **{word: 'AUD' + word.upper() for word in 'setname getname start stop info'.split()}}
# Where a call's words have one.
MODE_AT = {'open': 3, 'build': 3, 'start': 3, 'read': 2, 'find': 2, 'audit': 2}
RECORDS, OPEN_LOCK, END = 0x40000000, 0x7FFFFFFF, 0x80000000
LONGEST = 60  # seconds


def number_of_mode(words):
    names = words.split('+')
    one_way = {'input', 'output', *list(MODES)[8:]} & set(names)
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
        self.processes, self.numbers, self.paused = {}, {}, set()

    def hear(self, name):
        self.ours[name].settimeout(LONGEST)
        try:
            answer = self.ours[name].recv(4096).decode()
        except TimeoutError:
            return 'is silent'
        self.paused.discard(name)
        if answer == 'paused':
            self.paused.add(name)
        return ERRORS.get(int(answer[1:]), answer) if answer[:1] == '!' else answer

    def tell(self, name, order):
        self.ours[name].send(order.encode())
        return self.hear(name)

    def start(self, name):
        words = [self.given.actor, self.kind, str(self.NAMES.index(name)), *map(str, self.theirs)]
        process = subprocess.Popen(words, cwd=self.folder, pass_fds=self.theirs)
        self.processes[name], self.numbers[name] = process, process.pid

    def end(self, name):
        process = self.processes.pop(name, None)
        if process:
            process.kill()
            process.wait()
        elif name in self.numbers:
            os.kill(self.numbers[name], signal.SIGKILL)
        self.numbers.pop(name, None)
        return 'ok'

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
        if what in MODE_AT:
            words[MODE_AT[what]] = str(number_of_mode(words[MODE_AT[what]]))
        if what == 'fails':
            words[4] = str(FAILURES[words[4]])
        answer = self.tell(name, ' '.join(words))
        if what == 'forks':
            self.numbers[words[2]] = int(answer)
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
        self.kept = {}

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
        return getattr(self, 'do_' + words[0])(*words[1:])

    def order_all(self, line):
        """"20-59" stands for each of these numbers, until one fails."""
        found = re.search(r' (\d+)-(\d+)', line)
        if not found:
            return self.cast.order(line)
        for number in range(int(found[1]), int(found[2]) + 1):
            answer = self.cast.order(f'{line[:found.start()]} {number}{line[found.end():]}')
            if answer.startswith(('ISE', 'E')):
                return f'{answer} at {number}'
        return answer

    def files(self):
        return {path.name: path.read_bytes() for path in self.folder.iterdir() if path.is_file()}

    def refuse_each(self, who, line):
        met, write = set(), 0
        while True:
            before = self.files()
            self.cast.tell(who[0], f'{who} refuses {write}')
            answer = self.cast.order(line)
            if self.cast.tell(who[0], f'{who} refused') == '0':
                return ', '.join([*sorted(met), f'then {answer}'])
            self.cast.order(f'{who} flush')
            met.add(answer if self.files() == before else f'{answer} and changes at {write}')
            write += 1

    def do_pair(self, name, records):
        orders = [f'build {name} exclusive', *(f'write {id}.{id // 3}' for id in
                                               range(1, int(records) + 1)), 'close']
        answers = {self.cast.order('g ' + order) for order in orders}
        self.cast.end('g')
        return ', '.join(answers)

    def do_sound(self, name):
        look = subprocess.run([self.given.pairs, 'look', self.folder / name], text=True,
                              stdout=subprocess.PIPE, check=True).stdout.splitlines()
        report = self.shell(f'kestro -nq {name}')
        if 'ERROR' in report or '?' in report:
            return report
        return f'{len(look) - 1} records' if look[0] == 'sound' else look[0]

    def do_records(self, name):
        """What an independent reader finds, as NUMBER=ID.GROUP.COUNTER."""
        look = subprocess.run([self.given.pairs, 'look', self.folder / name], text=True,
                              stdout=subprocess.PIPE, check=True).stdout.splitlines()
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

    def shell(self, command):
        """What a command prints, and how it ends."""
        environment = {**os.environ, 'PATH': f'{self.given.programs}:/usr/bin:/bin'}
        done = subprocess.run(['/bin/sh', '-c', command], cwd=self.folder, env=environment,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=LONGEST)
        said = done.stdout.decode('latin-1')
        if done.stderr:
            said += '--- standard error\n' + done.stderr.decode('latin-1')
        if done.returncode:
            said += f'--- status {done.returncode}\n'
        said = said.replace(str(self.folder), 'FOLDER')
        said = re.sub(r'\d{4}-\d\d-\d\d[ T]\d\d:\d\d:\d\d', 'TIME', said)
        for name, number in self.cast.numbers.items():
            said = re.sub(rf'\b({number}|{number & 0xFFFF})\b', f'PROCESS-{name}', said)
        return said


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
        elif not line or line.startswith(('# ', 'only ')):
            made.append(line)
        else:
            told = line.split(' : ')[0]
            answer = stage.answer(told)
            made.append(told if answer == 'ok' else f'{told} : {answer}')
    return made


def parts_of(path):
    """What is ahead of the cases, and each case."""
    lines = path.read_text().splitlines()
    starts = [at for at, line in enumerate(lines) if line.startswith('# ')] + [len(lines)]
    return [lines[begin:end] for begin, end in zip([0, *starts], starts)]


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    for tool in ('--actor', '--pairs', '--programs'):
        parser.add_argument(tool, required=True)
    parser.add_argument('--update', action='store_true')
    parser.add_argument('file')
    parser.add_argument('cases', nargs='*')
    given = parser.parse_args()
    path = SCRIPTS / given.file
    head, *cases = parts_of(path)
    good = True
    for number, case in enumerate(cases):
        if given.cases and not any(word in case[0] for word in given.cases):
            continue
        for kind in ('fixed', 'varying'):
            if {f'only {other}' for other in ('fixed', 'varying') if other != kind} & {*head, *case}:
                continue
            with tempfile.TemporaryDirectory(prefix='kestro-test-') as folder:
                stage = Stage(given, kind, folder)
                try:
                    carry_out(stage, head[1:])
                    made = carry_out(stage, case)
                finally:
                    stage.end()
            if made == case:
                continue
            good = False
            print(f'{given.file}, {kind}: {case[0]}')
            print(''.join(f'  - {old}\n  + {new}\n' for old, new in zip(case, made) if old != new))
            if given.update:
                cases[number] = case = made
    if given.update:
        path.write_text('\n'.join('\n'.join(part) for part in (head, *cases)) + '\n')
    return 0 if good else 1


if __name__ == '__main__':
    sys.exit(main())
