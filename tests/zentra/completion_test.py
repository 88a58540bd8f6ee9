#!/usr/bin/env python3
"""What shells complete of zentra's command lines: everything that the help lists."""
import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

COMPLETE = '''. ./script
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_zentra
printf '%s\\0' "${COMPREPLY[@]}"
'''


def run(*words, **more):
    return subprocess.run(words, capture_output=True, text=True, timeout=60, **more)


class Completion(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        for name in 'pair.idx', 'pair.dat', 'with blank.idx', 'with\nnewline.idx', 'keys.txt':
            (self.folder / name).touch()
        (self.folder / 'sub').mkdir()
        self.script('bash')

    def script(self, shell):
        done = run(tools.zentra, 'completion', shell)
        self.assertEqual((done.returncode, done.stderr), (0, ''))
        (self.folder / 'script').write_text(done.stdout)

    def completed(self, *words):
        done = run('bash', '--norc', '-c', COMPLETE, 'bash', 'zentra', *words, cwd=self.folder)
        self.assertEqual(done.stderr, '')
        return set(done.stdout.split('\0')) - {''}

    def subcommands(self):
        return re.findall(r'^  ([a-z]+) ', run(tools.zentra, '--help').stdout.split('Subcommands')[1],
                          re.M)

    def test_all_that_the_help_lists(self):
        subcommands = self.subcommands()
        self.assertGreater(len(subcommands), 3)
        self.assertGreaterEqual(self.completed(''), {*subcommands, '--help'})
        self.assertEqual(self.completed('ch'), {'check'})
        zsh, fish = (run(tools.zentra, 'completion', shell).stdout for shell in ('zsh', 'fish'))
        for name in subcommands:
            rows = re.findall(r'^  (-[-a-z,]+)', run(tools.zentra, name, '--help').stdout, re.M)
            options = {option for row in rows for option in row.split(',')}
            self.assertGreater(len(options), 2 if name != 'completion' else 1, rows)
            self.assertEqual(self.completed(name, '-'), options)
            for option in options:
                self.assertIn(f"'{option}[", zsh)
                is_long = option.startswith('--')
                self.assertIn(f'-l {option[2:]}' if is_long else f'-s {option[1:]}', fish)

    def test_pairs_and_words(self):
        pairs = {'pair.idx', 'with blank.idx', 'with\nnewline.idx', 'sub'}
        self.assertEqual(self.completed('repair', '--keys', 'with'), pairs - {'pair.idx', 'sub'})
        self.assertEqual(self.completed('check', '--quick', ''), pairs)
        self.assertEqual(self.completed('check', '-j', '2', 'one', 'p'), {'pair.idx'})
        self.assertEqual(self.completed('check', '--wait', ''), set())
        self.assertEqual(self.completed('show', '--wait', '1', ''), pairs)
        self.assertEqual(self.completed('show', 'pair', ''), {'record', 'node', 'key', 'dictionary'})
        self.assertEqual(self.completed('show', '--json', 'pair', 'k'), {'key'})
        self.assertEqual(self.completed('show', 'pair', 'key', ''), set())
        self.assertEqual(self.completed('undo', 'pair', ''), set())
        self.assertEqual(self.completed('no', ''), set())
        self.assertEqual(self.completed('completion', ''), {'bash', 'zsh', 'fish'})
        self.assertEqual(self.completed('repair', '--variable', '='), {'keep', 'drop'})
        self.assertEqual(self.completed('repair', '--variable', '=', 'k'), {'keep'})
        self.assertEqual(self.completed('repair', '--variable', '=', 'keep', ''), pairs)
        self.assertEqual(self.completed('repair', '--variable', '=', 'keep', 'pair', ''), set())

    def test_other_shells_read_theirs(self):
        for shell, *check in (['bash', '-n'], ['zsh', '-n'], ['fish', '--no-execute']):
            if shutil.which(shell):
                self.script(shell)
                done = run(shell, *check, 'script', cwd=self.folder)
                self.assertEqual((done.returncode, done.stderr), (0, ''), shell)
        if shutil.which('fish'):
            for line, has, lacks in (('check --qu', '--quick', 'pair.idx'),
                                     ('show ', 'pair.idx', 'record'), ('show pair ', 'record', 'idx'),
                                     ('show --wait 1 p', 'pair.idx', 'record'),
                                     ('show --wait 1 pair n', 'node', 'idx'),
                                     ('check pair p', 'pair.idx', 'record')):
                done = run('fish', '--no-config', '-c',
                           f'. ./script; complete -C "zentra {line}"', cwd=self.folder,
                           env={**os.environ, 'HOME': str(self.folder)})
                self.assertIn(has, done.stdout, line)
                self.assertNotIn(lacks, done.stdout, line)

    def test_other_words(self):
        for words in (), ('tcsh',), ('bash', 'zsh'):
            self.assertEqual(run(tools.zentra, 'completion', *words).returncode, 16)
        with open('/dev/full', 'wb') as full:
            done = subprocess.run([tools.zentra, 'completion', 'bash'], stdout=full, check=False)
        self.assertEqual(done.returncode, 4)


if __name__ == '__main__':
    parser = argparse.ArgumentParser()
    for tool in 'zentra', 'kestro', 'transcripts', 'pairs', 'made':
        parser.add_argument('--' + tool, type=os.path.abspath, required=True)
    tools, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
