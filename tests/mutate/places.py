"""The places of a C++ source text that can be changed, and what each is changed into.

Works on tokens and relies on the format that clang-format gives the sources: a comparison is
between blanks, a template's angle brackets do not.
"""

import re
from collections import namedtuple

# Bytes [start, end) of the text become `new`; `change` says so in one line. `owner` is the function,
# type or constant that the place belongs to, `source` its line.
Place = namedtuple('Place', 'start end new kind change line owner source')

_Token = namedtuple('_Token', 'kind text start end')

_TOKEN = re.compile(r'''
    (?P<directive>^[ \t]*\#[ \t]*define[ \t]+\w+(?:\([^)\n]*\))? | ^[ \t]*\#[^\n]*)
  | (?P<space>\s+ | \\\n)
  | (?P<comment>//[^\n]* | /\*.*?\*/)
  | (?P<string>"(?:\\.|[^"\\\n])*")
  | (?P<character>'(?:\\.|[^'\\\n])+')
  | (?P<number>(?:0[xX][0-9a-fA-F']+|[0-9][0-9']*)[uUlL]*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<sign><<=|>>=|->|::|==|!=|<=|>=|&&|\|\||\+\+|--|[-+*/%&|^]=|<<|>>|.)
''', re.VERBOSE | re.MULTILINE | re.DOTALL)

_COMPARISONS = {'==': '!=', '!=': '==', '<=': '<', '>=': '>', '<': '<=', '>': '>='}
_LOGICAL = {'&&': '||', '||': '&&'}
_BOOLEANS = {'true': 'false', 'false': 'true'}
_TYPES = {'struct', 'class', 'enum', 'union'}
_BEFORE_BLOCK = {')', '}', ']', 'const', 'noexcept', 'override', 'mutable', 'else', 'do', 'try'}
_STATEMENT_WORDS = {'return', 'throw', 'continue', 'break', 'delete'}
_DECLARING_WORDS = {'using', 'typedef', 'static_assert', 'const', 'constexpr', 'static', 'auto',
                    'template', 'if', 'for', 'while', 'switch', 'else', 'do', 'try', 'catch'}


def _tokens(text):
    """The tokens that count: no space, comment, directive, nor what a compiler checks by itself."""
    found = [_Token(match.lastgroup, match.group(), match.start(), match.end())
             for match in _TOKEN.finditer(text)]
    tokens, skipping = [], None
    for token in found:
        if token.kind in ('space', 'comment', 'directive'):
            continue
        if token.text == '__attribute__':
            skipping = 0
        if skipping is not None:
            skipping += {'(': 1, ')': -1}.get(token.text, 0)
            if token.text == ')' and skipping == 0:
                skipping = None
            continue
        tokens.append(token)
    return tokens


def _one_more(number):
    digits = re.match(r"0[xX][0-9a-fA-F']+|[0-9']+", number).group()
    suffix, plain = number[len(digits):], digits.replace("'", '')
    if plain[:2] in ('0x', '0X'):
        return hex(int(plain, 16) + 1) + suffix
    if len(plain) > 1 and plain[0] == '0':
        return '0%o' % (int(plain, 8) + 1) + suffix
    return str(int(plain) + 1) + suffix


def _token_changes(text, tokens):
    """(start, end, new, kind) for each change of one token."""
    for token, before in zip(tokens, [None] + tokens):
        if token.kind == 'string':
            yield token.start, token.end, '"~' + token.text[1:], 'text'
            if token.text != '""':
                yield token.start, token.end, token.text[:-1] + '~"', 'text'
        elif token.kind == 'character':
            yield token.start, token.end, "'!'" if token.text == "'~'" else "'~'", 'text'
        elif token.kind == 'number':
            yield token.start, token.end, _one_more(token.text), 'number'
        elif token.text in _BOOLEANS:
            yield token.start, token.end, _BOOLEANS[token.text], 'boolean'
        elif token.text in _LOGICAL:
            yield token.start, token.end, _LOGICAL[token.text], 'logic'
        elif token.text == '!':
            yield token.start, token.end, '', 'logic'
        elif token.text in _COMPARISONS:
            between_blanks = text[token.start - 1].isspace() and text[token.end].isspace()
            if (between_blanks or len(token.text) == 2) and before.text not in ('template',
                                                                               'operator'):
                yield token.start, token.end, _COMPARISONS[token.text], 'comparison'


def _declares(statement):
    """Whether the statement makes a name: without it nothing would compile."""
    words = [token.text for token in statement]
    if words[0] in _DECLARING_WORDS:
        return True
    if words[0] in _STATEMENT_WORDS or statement[0].kind != 'word':
        return False
    at = 1
    while at + 1 < len(words) and words[at] == '::':
        at += 2
    if at < len(words) and words[at] == '<':
        while at < len(words) and words[at] not in ('>', '>>'):
            at += 1
        at += 1
    while at < len(words) and words[at] in ('*', '&', 'const'):
        at += 1
    return at < len(words) and statement[at].kind == 'word'


# The name that an unindented line declares.
_DECLARED = re.compile(r'(?:struct|class|enum|union) (?:\[\[\w+\]\] )?(\w+)|(?:.*?\W)??~?(\w+)\(|'
                       r'.*?(\w+)(?:\[\w*\])* ?(?:=|;|\{)')


def _owners(text):
    """For each line, what the last line at the margin up to it declares."""
    owner = ''
    for line in text.splitlines():
        if re.match(r'[A-Za-z_]', line) and not line.startswith(('namespace', 'template', 'extern "')):
            found = _DECLARED.match(line)
            owner = next(name for name in found.groups() if name) if found else owner
        yield owner


class _Frame:
    """An open brace: what it is, and the statement around it."""

    def __init__(self, kind, outer_start, outer_depth):
        self.kind, self.outer_start, self.outer_depth = kind, outer_start, outer_depth


def _brace_kind(statement):
    """What a brace after these tokens opens."""
    if not statement:
        return 'block'
    words = [token.text for token in statement]
    if words[0] in ('namespace', 'extern'):
        return 'scope'
    last_round = max((i for i, word in enumerate(words) if word == '('), default=-1)
    if any(word in _TYPES for word in words[last_round + 1:]) and words[-1] not in ('=', ')'):
        return 'type'
    return 'block' if words[-1] in _BEFORE_BLOCK else 'values'


def _statements(tokens):
    """The statements inside functions, as lists of tokens that end in the semicolon."""
    frames, start, depth = [], 0, 0

    def in_function():
        kinds = [frame.kind for frame in frames if frame.kind != 'values']
        return bool(kinds) and kinds[-1] == 'block'

    for at, token in enumerate(tokens):
        if token.text in '([':
            depth += 1
        elif token.text in ')]':
            depth -= 1
        elif token.text == '{':
            kind = _brace_kind(tokens[start:at])
            frames.append(_Frame(kind, start, depth))
            if kind != 'values':
                start, depth = at + 1, 0
        elif token.text == '}' and frames:
            frame = frames.pop()
            if frame.kind != 'values':
                start, depth = frame.outer_start, frame.outer_depth
                if depth == 0:
                    start = at + 1
        elif token.text == ':' and depth == 0 and tokens[start].text in ('case', 'default'):
            start = at + 1
        elif token.text == ';' and depth == 0:
            statement = tokens[start:at + 1]
            start = at + 1
            if len(statement) > 1 and in_function() and not _declares(statement):
                yield statement


def places(text):
    """Every place of a source text, in its order."""
    tokens = _tokens(text)
    changes = [(start, end, new, kind, f'{text[start:end]} -> {new or "(nothing)"}')
               for start, end, new, kind in _token_changes(text, tokens)]
    changes += [(statement[0].start, statement[-1].end, ';', 'statement',
                 'removed ' + ' '.join(text[statement[0].start:statement[-1].end].split())[:60])
                for statement in _statements(tokens)]
    found, lines, owners = [], text.splitlines(), list(_owners(text))
    for start, end, new, kind, change in sorted(changes):
        line = text.count('\n', 0, start) + 1
        found.append(Place(start, end, new, kind, change, line, owners[line - 1],
                           ' '.join(lines[line - 1].split())))
    return found


def changed(text, place):
    """The source text with that one change."""
    return text[:place.start] + place.new + text[place.end:]
