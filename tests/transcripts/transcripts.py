#!/usr/bin/env python3
"""Makes the pairs of tests/pairs, runs kestro on each twice, and compares what it prints with what
stands there.

  transcripts [NAME...]               compares; without names also what can be printed at all
  transcripts --update [NAME...]      writes what is printed there instead, to be read by you
  transcripts --into FOLDER [NAME...] writes it to FOLDER/NAME/first and second instead
  transcripts --make FOLDER [NAME...] only makes the pairs, each in FOLDER/NAME and anew

--kestro PROGRAM in front of these runs another build's program. Exit status 0: all is as it should
be; 1: it is not. What each run printed on standard output and standard error is followed by a line
with its exit status and, for each pair: which of its files changed, how many of its records can be
read, and whether a reader independent of the program finds it sound.
"""
import argparse
import concurrent.futures
import contextlib
import difflib
import fcntl
import os
import pathlib
import pty
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile

import recipe as recipes
import texts

SOURCE = pathlib.Path(__file__).resolve().parents[2]
PAIRS = SOURCE / 'tests' / 'pairs'
LONGEST_RUN = 60  # seconds
# What the surroundings of this run might change.
VARIABLES = ['CLIENT_LOCALE', 'DB_LOCALE', 'SERVER_LOCALE', 'LANG', 'LC_ALL', 'ISAMBUFS',
             'KESTRO_KEEP', 'KESTRO_REPORT', 'ISAMSORTMEM']
# What differs from run to run in a report.
PASSING = re.compile(r'"(time|process|seconds)":(?:"[^"]*"|[-+.\de]+)')


@contextlib.contextmanager
def held(locks, folder):
    """Another process holds locks meanwhile."""
    if not locks:
        yield
        return
    ready, tell = os.pipe()
    process = os.fork()
    if process == 0:
        signal.alarm(LONGEST_RUN)
        for name, for_writing, start, length in locks:
            fd = os.open(f'{folder}/{name}', os.O_RDWR)
            kind = fcntl.LOCK_EX if for_writing else fcntl.LOCK_SH
            fcntl.lockf(fd, kind | fcntl.LOCK_NB, length, start)
        os.write(tell, b'!')
        signal.pause()
        os._exit(1)
    os.close(tell)
    try:
        if os.read(ready, 1) != b'!':
            raise ValueError('no lock')
        yield
    finally:
        os.close(ready)
        os.kill(process, signal.SIGKILL)
        os.waitpid(process, 0)


def shown_on(terminal):
    """What was shown on a terminal, with plain ends of lines."""
    shown = b''
    with contextlib.suppress(OSError):
        while piece := os.read(terminal, 4096):
            shown += piece
    return shown.replace(b'\r', b'')


def read_if_there(path):
    return recipes.read(path) if os.path.isfile(path) else b''


def section(name, text):
    return f'--- {name}\n{text}' if text else ''


class Stage:
    """A folder with the pairs of a recipe, and the program run in it."""
    def __init__(self, tools, recipe, folder):
        self.tools, self.folder = tools, folder
        os.chmod(folder, 0o755)  # others than the owner must get in
        self.pairs = {name: None for name in recipe.make(folder, tools.pairs)}
        self.wrong = ''  # what no run may do, whatever it prints
        for name in self.pairs:
            self.pairs[name] = self.look_at(name)
        self.files = self.names_of_files()

    def look_at(self, name):
        """Index, data, and what the independent reader says: a verdict and the records."""
        base = f'{self.folder}/{name}'
        both = read_if_there(base + '.idx'), read_if_there(base + '.dat')
        if not os.path.isfile(base + '.idx') or not os.path.exists(base + '.dat'):
            return *both, None, {}
        if self.pairs[name] and self.pairs[name][:2] == both and self.pairs[name][2]:
            return self.pairs[name]
        done = subprocess.run([self.tools.pairs, 'look', base], check=True, capture_output=True)
        verdict, *records = done.stdout.decode().splitlines()
        return *both, verdict, dict(record.split(' ') for record in records)

    def names_of_files(self):
        """All in the folder; undo data stands in a file of its own where attributes cannot be had,
        and a temporary file's name ends in a number of the system's."""
        names = set()
        for name in os.listdir(self.folder):
            for part in ('.kestro', '.idx.new'):
                if part in name:
                    name = name[:name.index(part)] + part
            if not name.endswith('.undo'):
                names.add(name)
        return names

    def prepare(self, run):
        """In the new process."""
        for fd in run.closed:
            os.close(fd)
        if run.file_limit:
            resource.setrlimit(resource.RLIMIT_FSIZE, (run.file_limit, resource.RLIM_INFINITY))
        if run.user:
            os.setgroups([])
            os.setgid(run.user)
            os.setuid(run.user)

    def run(self, run):
        # By way of its descriptor the program can be started by whoever cannot reach its folder.
        opened = os.open(self.tools.kestro, os.O_RDONLY)
        program = f'/proc/self/fd/{opened}' if run.user else self.tools.kestro
        environment = {name: value for name, value in os.environ.items() if name not in VARIABLES}
        environment.update(run.environment)
        if run.failures:
            environment.update(KESTRO_FAILING_CALLS=run.failures,
                               LD_PRELOAD=self.tools.failing_calls)
        ours, theirs = pty.openpty() if run.terminal else (-1, subprocess.PIPE)
        with held(run.locks, self.folder):
            with subprocess.Popen([program, *run.words], cwd=self.folder, env=environment,
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=theirs,
                                  pass_fds=[opened], umask=0o22,
                                  preexec_fn=lambda: self.prepare(run)) as process:
                try:
                    out, err = process.communicate(run.answers.encode(), LONGEST_RUN)
                except subprocess.TimeoutExpired:
                    self.wrong += 'it does not end\n'
                    process.kill()
                    out, err = process.communicate()
        os.close(opened)
        shown = b''
        if run.terminal:
            os.close(theirs)
            shown = shown_on(ours)
            os.close(ours)
        printed, err, shown = ((text or b'').decode('latin-1') for text in (out, err, shown))
        for part in (section('standard error', err), section('terminal', shown)):
            printed += '\n' + part if part and printed and printed[-1] != '\n' else part
        printed += self.report(run)
        printed = printed.replace(self.folder, 'FOLDER').replace(self.tools.version, 'VERSION')
        return f'{printed}--- {self.outcome(run, process.returncode)}\n'

    def report(self, run):
        """What stands in the file that KESTRO_REPORT names; a report is taken away."""
        path = f'{self.folder}/report'
        written = read_if_there(path).decode('latin-1') if run.environment.get('KESTRO_REPORT') else ''
        if written.startswith('{"schema"'):
            os.remove(path)
        return section('report', PASSING.sub(r'"\1":0', written))

    def outcome(self, run, status):
        said = [f'signal {-status}' if status < 0 else f'status {status}']
        may_change = not run.words or run.words[0][:1] != '-' or 'n' not in run.words[0]
        for name in self.pairs:
            now = self.look_at(name)
            said.append(f'{name}: {self.change(name, now, may_change)}')
            self.pairs[name] = now
        before, self.files = self.files, self.names_of_files()
        said += [f'new: {name}' for name in sorted(self.files - before)]
        said += [f'gone: {name}' for name in sorted(before - self.files)]
        return '; '.join(said)

    def change(self, name, now, may_change):
        index, data, _, records = self.pairs[name]
        now_index, now_data, verdict, now_records = now
        if data != now_data:
            self.wrong += f'{name}.dat was changed\n'
        if index != now_index and not may_change:
            self.wrong += f'{name}.idx was changed\n'
        said = 'as it was' if index == now_index else 'index changed'
        if verdict is None:
            return said + ', not complete'
        gone = sum(now_records.get(number) != record for number, record in records.items())
        lost = f' ({gone} gone)' if gone else ''
        return f'{said}, {len(now_records)} records{lost}, {verdict}'


def difference(expected, printed):
    """The first that differs, with three lines before it."""
    lines = difflib.unified_diff(expected.splitlines(), printed.splitlines(), lineterm='')
    return ''.join(f'  {line}\n' for line in list(lines)[3:15])


def told_of(tools, given, name):
    """What is wrong with a pair's transcript."""
    recipe = recipes.Recipe(PAIRS / name / 'recipe')
    if recipe.needs_root and os.geteuid() != 0:
        print(f'{name} is left out: only root can make it')
        return ''
    if given.make:
        shutil.rmtree(given.make / name, ignore_errors=True)
        os.makedirs(given.make / name)
        recipe.make(given.make / name, tools.pairs)
        return ''
    with tempfile.TemporaryDirectory(prefix='kestro-test-') as folder:
        stage = Stage(tools, recipe, folder)
        made = {'first': stage.run(recipe.first), 'second': stage.run(recipe.second)}
        os.chmod(folder, 0o755)
    told = stage.wrong
    for run, printed in made.items():
        if given.into:
            os.makedirs(given.into / name, exist_ok=True)
            recipes.write(given.into / name / run, printed.encode('latin-1'))
        else:
            expected = read_if_there(PAIRS / name / run).decode('latin-1')
            if expected != printed:
                told += f'  the {run} run:\n{difference(expected, printed)}'
    return told


def try_to_tell_of(*what):
    try:
        return told_of(*what)
    except (ValueError, KeyError, IndexError, OSError, subprocess.SubprocessError) as error:
        return f'  {error!r}\n'


def arguments():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    for tool in ('--version', '--pairs', '--failing-calls', '--kestro'):
        parser.add_argument(tool, required=True, help=argparse.SUPPRESS)  # from the build
    parser.add_argument('--update', action='store_const', const=PAIRS, dest='into')
    parser.add_argument('--into', type=pathlib.Path)
    parser.add_argument('--make', type=pathlib.Path)
    parser.add_argument('names', nargs='*', metavar='NAME')
    given = parser.parse_args()
    given.kestro = os.path.abspath(given.kestro)
    return given


def main():
    given = arguments()
    recipes.default_signals()
    names = given.names or sorted(path.name for path in PAIRS.iterdir() if path.is_dir())
    good = True
    # Mostly one waits for its program.
    with concurrent.futures.ProcessPoolExecutor(2) as workers:
        todo = {name: workers.submit(try_to_tell_of, given, given, name) for name in names}
        for name, told in todo.items():
            if told.result():
                print(f'{name}:\n{told.result()}', end='')
                good = False
    if not (given.names or given.into or given.make):
        for told in texts.not_shown(SOURCE):
            print(told)
            good = False
    print(f'{len(names)} pairs')
    return 0 if good else 1


if __name__ == '__main__':
    sys.exit(main())
