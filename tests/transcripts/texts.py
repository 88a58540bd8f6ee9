"""Whether all that kestro can print is shown by a transcript."""
import itertools
import re

TOKEN = re.compile(r"""//[^\n]* | \#[^\n]* | '(?:\\.|[^'\\])'
                       | (?P<literal>(?:"(?:\\.|[^"\\])*"[ \n]*)+)""", re.X)
PIECE = re.compile(r'"((?:\\.|[^"\\])*)"')
ANSWERS = re.compile(r'\{Question::k\w+,.*?(?:true|false),\s*"(.*?)",\s*"(.*?)"\}', re.S)


def printable(source):
    """String literals of the program, line by line; outside of the table of messages what has
    several words."""
    found = set()
    for path in (source / 'checker').iterdir():
        is_table = path.name == 'messages.cpp'
        for token in TOKEN.finditer(path.read_text()):
            literal = ''.join(PIECE.findall(token['literal'] or ''))
            literal = re.sub(r'\\(.)', lambda m: '\n' if m[1] == 'n' else m[1], literal)
            for text in literal.split('\n'):
                has_words = ' ' in text[:-1].lstrip(' ;:,')
                if re.search('[a-z{|}~]', text) and (is_table or has_words):
                    found.add(text)
    # What answers do is said by the manual.
    rows = ANSWERS.findall((source / 'checker' / 'findings.cpp').read_text())
    return found - set(itertools.chain(*rows))


def spans(pieces, line):
    """Where in a line the pieces of a text stand first; nowhere when one is missing."""
    found, at = [], 0
    for piece in pieces:
        at = line.find(piece, at)
        if at < 0:
            return []
        found.append((at, at + len(piece)))
        at += len(piece)
    return found


def shown(pairs, printables):
    """Texts that stand in a line of a transcript, but not within a piece of a longer one there."""
    lines = set()
    for path in itertools.chain(pairs.glob('*/first'), pairs.glob('*/second')):
        lines.update(path.read_text('latin-1').splitlines())
    # The pieces of a text between what is filled in.
    pieces = {text: [piece.replace('\0', '%') for piece in
                     re.split('%[^dfosx]*[dfosx]?', text.replace('%%', '\0')) if piece]
              for text in printables}
    found = set()
    for line in lines:
        here = {text: where for text, its in pieces.items() if (where := spans(its, line))}
        for text, where in here.items():
            begin, end = where[0][0], where[-1][1]
            if not any(first <= begin and end <= last and end - begin < last - first
                       for first, last in itertools.chain(*here.values())):
                found.add(text)
    return found


def not_shown(source):
    """A line for each text that no transcript shows and that the list in tests/pairs/README.md
    does not give to a test either, and for each that it gives to one without need."""
    tests = source / 'tests'
    printables = printable(source)
    by_pairs = shown(tests / 'pairs', printables)
    listing = (tests / 'pairs' / 'README.md').read_text().partition('## Texts that no pair shows')[2]
    listed = dict(re.findall(r'^\| `(.*)` \| `(.*)` \|$', listing, re.M))
    sources = ''.join(path.read_text() for path in tests.rglob('*.cpp'))
    for text in sorted(printables - by_pairs - listed.keys()):
        yield f'no transcript shows "{text}"'
    for text, test in listed.items():
        if text not in printables:
            yield f'the list has a text too many: "{text}"'
        if text in by_pairs:
            yield f'a transcript shows "{text}"'
        if test.startswith(('scripts ', 'zentra ')):
            missing = text not in (tests / test.replace(' ', '/')).read_text()
        else:
            missing = f'({test.replace(".", ", ")})' not in sources
        if missing:
            yield f'there is no test {test}'
