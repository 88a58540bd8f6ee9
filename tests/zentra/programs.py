"""What the tests of zentra have in common: the programs, and how they are run and read."""
import argparse
import json
import os
import subprocess
import sys
import unittest

tools = argparse.Namespace()
STEP = int(os.environ.get('KESTRO_STEP', 1))  # one of so many cases is tried where there are many


def sample(cases):
    return list(cases)[::STEP]


def zentra(*words, folder, **more):
    return subprocess.run([tools.zentra, *words], cwd=folder, stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=60, check=False, **more)


def take_pairs(folder, *names):
    """Copies of the pairs that tests/pairs describes, all or these, each in a folder of its name."""
    pairs = [os.path.join(tools.made, name) for name in names or os.listdir(tools.made)]
    subprocess.run(['cp', '-a', *pairs, folder], check=True)


def failing(rule):
    """What makes system calls of the program fail, by tests/transcripts/failing_calls.c."""
    library = os.path.join(os.path.dirname(tools.transcripts), 'libfailing_calls.so')
    return {'env': {**os.environ, 'LD_PRELOAD': library, 'KESTRO_FAILING_CALLS': rule + ';'}}


def lines_of(done):
    """The objects of a report."""
    lines = [json.loads(line) for line in done.stdout.decode().splitlines()]
    assert lines[0]['schema'] == 1 and lines[-1]['type'] == 'end', done
    assert lines[-1]['status'] == done.returncode, done
    assert b'\n' not in done.stderr, done
    return lines


def report_of(subcommand, *words, folder):
    """The exit status and the objects of a report."""
    done = zentra(subcommand, '--json', *words, folder=folder)
    return done.returncode, lines_of(done)


def main():
    parser = argparse.ArgumentParser()
    for tool in 'zentra', 'kestro', 'transcripts', 'pairs', 'made':
        parser.add_argument('--' + tool, type=os.path.abspath, required=True)
    _, rest = parser.parse_known_args(namespace=tools)
    unittest.main(argv=[sys.argv[0], *rest], module='__main__')
