"""A recipe: how a pair is made and damaged, and how kestro is run on it, in a few words a line.

The first line says what is wrong. tests/pairs/README.md tells the words of the others.
"""
import dataclasses
import json
import os
import signal
import subprocess

HEADER = {  # of each number its offset and width
    'magic': (0, 2), 'node-size': (6, 2), 'indexes': (8, 2), 'duplicate-width': (11, 1),
    'record-size': (13, 2), 'key-node': (15, 4), 'collates': (19, 1), 'record-list': (25, 4),
    'node-list': (29, 4), 'last-record': (33, 4), 'last-node': (37, 4), 'audit-node': (49, 4),
    'lock-method': (53, 2), 'greatest-size': (59, 2), 'pages-0': (61, 4), 'pages-1': (65, 4),
    'pages-2': (69, 4), 'pages-3': (73, 4), 'pages-4': (77, 4), 'collation': (81, 36),
    'mark': (117, 4), 'mark-process': (121, 4)}
DESCRIPTION = {'size': (0, 2), 'root': (2, 4), 'flags': (6, 1)}
NODE = {'used': (0, 2), 'link': (2, 4), 'kind': (-3, 1), 'level': (-2, 1)}  # below 0: from the end
PAGE = {'magic': (2, 2), 'next': (4, 4), 'previous': (8, 4), 'free': (12, 2), 'end': (14, 2),
        'continuation': (16, 4), 'flags': (20, 1), 'slots': (21, 1), 'class': (22, 1),
        'kind': (-3, 1)}
# Numbers that a place has more than one of, as in slot-3-length: the first one's offset, and how
# far it is from each to the next.
COUNTED = {'part--length': (7, 5, 2), 'part--start': (9, 5, 2), 'part--type': (11, 5, 1),
           'slot--length': (-11, -4, 2), 'slot--offset': (-9, -4, 2), 'entry-': (6, 4, 4),
           'byte-': (1, 1, 1), 'word-': (1, 1, 2), 'long-': (1, 1, 4)}
DUPLICATES, LEAD, TAIL = 1, 4, 8
SUFFIXES = {'index': '.idx', 'data': '.dat'}


class Words:
    """A line, taken word by word."""
    def __init__(self, line):
        self.line, self.left = line, line.split()

    def take(self, only=None):
        """The next word; if it must be a certain one, whether it was."""
        if only is not None:
            return self.left[:1] == [only] and bool(self.take())
        if not self.left:
            raise ValueError(f'in "{self.line}": a word is missing at the end')
        return self.left.pop(0)

    def number(self):
        return int(self.take(), 0)

    def rest(self):
        left, self.left = self.left, []
        return left


@dataclasses.dataclass
class Place:
    file: bytearray
    at: int
    size: int
    numbers: dict = dataclasses.field(default_factory=dict)

    def field(self, name):
        """What a recipe calls a number here."""
        if name in self.numbers:
            at, width = self.numbers[name]
        elif name == 'last-entry':
            at, width = self.get('used') - 4, 4
        else:
            digits = ''.join(filter(str.isdigit, name))
            first, step, width = COUNTED[name.replace(digits, '')]
            at = first + step * (int(digits) - 1)
        return Place(self.file, self.at + at + (self.size if at < 0 else 0), width)

    def get(self, name):
        return self.field(name).value()

    def bytes(self):
        return bytes(self.file[self.at:self.at + self.size])

    def value(self):
        return int.from_bytes(self.bytes(), 'big')

    def put(self, new):
        """Bytes, or a number."""
        if isinstance(new, int):
            new = (new % 256 ** self.size).to_bytes(self.size, 'big')
        if self.at + len(new) > len(self.file):
            raise ValueError('it is not there any more')
        self.file[self.at:self.at + len(new)] = new


class Pair:
    """Both files of a pair in memory, and what stands where."""
    def __init__(self, base, built):
        self.base, self.built = base, built
        self.files = {name: bytearray(read(base + SUFFIXES[name])) for name in SUFFIXES}

    def save(self):
        for name, content in self.files.items():
            write(self.base + SUFFIXES[name], content)

    def node(self, number, numbers=None):
        size = self.built['node_size']
        return Place(self.files['index'], (number - 1) * size, size, numbers or NODE)

    def number_of(self, place):
        return place.at // self.built['node_size'] + 1

    def record(self, number):
        length, slot = self.built['length'], self.built['slot']
        return Place(self.files['data'], (number - 1) * slot, slot,
                     {'state': (length, 1), 'length': (length + 1, 2), 'reference': (length + 3, 4),
                      'reference-slot': (length + 3, 1)})

    def description(self, number):
        for node in map(self.node, self.built['key-node']):
            at = 6
            while at < node.get('used'):
                place = Place(node.file, node.at + at, 0, DESCRIPTION)
                place.size = place.get('size')
                at += place.size
                number -= 1
                if number == 0:
                    return place
        raise ValueError('there is no such description')

    def items(self, index, node):
        """Items of a node. Their keys stand there without what is compressed."""
        dups = self.built['dup_width'] if index['flags'] & DUPLICATES else 0
        items, at, repeats = [], node.at + 2, False
        while at < node.at + node.get('used'):
            kept = 0 if repeats else index['width']
            for flag in (LEAD, TAIL):
                if index['flags'] & flag and not repeats:
                    kept -= node.file[at]
                    at += 1
            items.append(Place(node.file, at, kept + dups + 4,
                               {'key': (0, kept), 'duplicate': (kept, dups),
                                'pointer': (kept + dups, 4)}))
            at += kept + dups + 4
            repeats = node.file[at - 4] & 0x80 != 0
        return items

    def place(self, words):
        """What a recipe calls a place, such as item 1.2.3."""
        name = words.take()
        if name == 'header':
            return self.node(1, HEADER)
        if name == 'audit':
            return self.node(self.built['audit'])
        path = words.take().split('.')

        def one_of(places):
            part = path.pop(0)
            number = len(places) if part == 'last' else int(part)
            if not 1 <= number <= len(places):
                raise ValueError(f'in "{words.line}": there is no {part}')
            return places[number - 1]

        if name in ('root', 'inner', 'leaf', 'root-item', 'inner-item', 'item'):
            index = one_of(self.built['indexes'])
            of_items = name.endswith('item')
            where = {'item': 'leaf', 'inner-item': 'inner', 'root-item': 'root'}.get(name, name)
            node = self.node(index['root'] if where == 'root' else one_of(index[where]))
            return one_of(self.items(index, node)) if of_items else node
        number = int(path[0]) if path[0] != 'last' else 0
        if name == 'node':
            return self.node(number)
        if name == 'record':
            return self.record(one_of(range(1, self.built['slots'] + 1)))
        if name == 'page-of':
            return self.node(self.record(number).get('reference') & 0xFFFFFF, PAGE)
        if name == 'description':
            return self.description(number)
        if name == 'listed-page':
            return one_of([page for page in (self.node(n, PAGE) for n in self.built['page'])
                           if 1 <= page.get('class') <= 4])
        return self.node(one_of(self.built[name]), PAGE if name.endswith('page') else NODE)

    def places(self, words):
        if words.take('last-leaves'):
            return [self.node(index['leaf'][-1]) for index in self.built['indexes']]
        if not words.take('records'):
            return [self.place(words)]
        first, last = map(int, words.take().split('-'))
        return [self.record(number) for number in range(first, last + 1)]

    def damage(self, what, words):
        """Whether that is damage, which is done then."""
        if what in ('set', 'add'):
            places = self.places(words)
            name = words.take()
            of_node = words.take('number-of')
            value = self.number_of(self.place(words)) if of_node else words.number()
            for field in (place.field(name) for place in places):
                field.put(value + (field.value() if what == 'add' else 0))
        elif what == 'text':
            field = self.place(words).field(words.take())
            field.put(words.take().encode().ljust(field.size, b'\0'))
        elif what == 'fill':
            places, value = self.places(words), words.number()
            start = words.number() if words.left else 0
            count = words.number() if words.left else places[0].size - start
            for place in places:
                Place(place.file, place.at + start, count).put(bytes([value]) * count)
        elif what in ('copy', 'swap'):
            self.move(what == 'swap', words)
        elif what == 'cut':
            file, size = self.files[words.take()], words.number()
            del file[size:]
        elif what == 'grow':
            file, count = self.files[words.take()], words.number()
            file.extend(bytes([words.number()]) * count)
        else:
            return False
        return True

    def move(self, both, words):
        """Copies or swaps two numbers, or two things of one kind."""
        between = 'with' if both else 'to'

        def take():
            place = self.place(words)
            if words.left and not words.take(between):
                place = place.field(words.take())
                words.take(between)
            return place
        one, other = take(), take()
        width = min(one.size, other.size)
        old = other.bytes()[:width]
        other.put(one.bytes()[:width])
        if both:
            one.put(old)


@dataclasses.dataclass
class Run:
    """One run of the program."""
    words: list
    answers: str = ''
    environment: dict = dataclasses.field(default_factory=dict)
    failures: str = ''  # of system calls, as failing_calls takes them
    locks: list = dataclasses.field(default_factory=list)  # that another process holds
    closed: list = dataclasses.field(default_factory=list)  # descriptors
    user: int = 0
    file_limit: int = 0  # greatest size of a file; 0: none
    terminal: bool = False  # standard error is one

    def add(self, words):
        what = words.take()
        if what == 'answers':
            self.answers += ''.join(answer + '\n' for answer in words.rest())
        elif what == 'environment':
            name, value = words.take().split('=', 1)
            self.environment[name] = value
        elif what == 'fails':
            self.failures += ' '.join(words.rest()) + ';'
        elif what == 'locked':
            self.locks.append((words.take(), words.take() == 'write', words.number(),
                               words.number()))
        elif what == 'closed':
            self.closed.append(words.number())
        elif what == 'user':
            self.user = words.number()
        elif what == 'file-limit':
            self.file_limit = words.number()
        elif what == 'terminal':
            self.terminal = True
        else:
            raise ValueError(f'what is {what}?')


class Recipe:
    def __init__(self, path):
        with open(path, encoding='utf-8') as file:
            self.description, *lines = file.read().splitlines()
        self.first, self.second = Run(['-yq', 'pair']), Run(['-nq', 'pair'])
        self.lines = []  # of making
        run = None
        for words in map(Words, filter(None, lines)):
            if words.left[0] in ('first', 'second'):
                run = self.first if words.take() == 'first' else self.second
                run.words = words.rest()
            elif run is not None:
                run.add(words)
                nothing_left(words)
            else:
                self.lines.append(words.line)
        # Whether files are to belong to others, or others to run the program.
        self.needs_root = self.first.user != 0 or self.second.user != 0 or any(
            line.startswith('owner ') for line in self.lines)

    def make(self, folder, builder):
        """Makes the files in a folder, with the program that builds pairs: the names of the pairs."""
        names, shape, pair = [], '', None

        def build(base, words):
            done = subprocess.run([builder, 'make', base, *words.split()], capture_output=True)
            if done.returncode != 0:
                raise ValueError(done.stderr.decode())
            return Pair(base, json.loads(done.stdout))

        for line in self.lines:
            words = Words(line)
            what = words.take()
            if what == 'pair':
                if pair:
                    pair.save()
                names.append(words.take() if words.take('called') else 'pair')
                shape = ' '.join(words.rest())
                pair = build(f'{folder}/{names[-1]}', shape)
            elif what in ('later', 'earlier'):
                # One of the files is as it was, or will be, when the pair was otherwise.
                file = words.take()
                other = build(f'{folder}/other-time', shape + ' ' + ' '.join(words.rest()))
                pair.files[file] = other.files[file]
                for suffix in SUFFIXES.values():
                    os.remove(other.base + suffix)
            elif not pair.damage(what, words):
                pair.save()
                pair.files = {}  # they are not any more what the files are
                change_file(folder, what, words)
            nothing_left(words)
        pair.save()
        return names


def change_file(folder, what, words):
    name = words.take()
    path = f'{folder}/{name}'
    if what == 'remove':
        os.remove(path)
    elif what == 'write':
        write(path, words.take().encode() + b'\n')
    elif what == 'folder':
        os.makedirs(path, exist_ok=True)
    elif what == 'link':
        os.link(path, f'{folder}/{words.take()}')
    elif what == 'rename':
        os.rename(path, f'{folder}/{words.take()}')
    elif what == 'symlink':
        os.symlink(name, f'{folder}/{words.take()}')
    elif what == 'mode':
        os.chmod(path, int(words.take(), 8))
    elif what == 'owner':
        os.chown(path, owner := words.number(), owner)
    else:
        raise ValueError(f'in "{words.line}": what is {what}?')


def default_signals():
    """Programs run from here on end by these signals, also where we were told to ignore them."""
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.SIG_DFL)


def nothing_left(words):
    if words.left:
        raise ValueError(f'in "{words.line}": what is {words.left[0]}?')


def read(path):
    with open(path, 'rb') as file:
        return file.read()


def write(path, content):
    with open(path, 'wb') as file:
        file.write(content)
