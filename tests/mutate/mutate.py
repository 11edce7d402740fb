#!/usr/bin/env python3
"""Changes the daemon's sources one place at a time and lists what no unit test notices.

Every change is made in a copy: the changed file, and what includes it, is compiled beside the
present objects and linked with the unit tests in front of the rest. Needs a build directory in
which unit_tests is built.
"""

import argparse
import os
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from places import changed, places

ROOT = Path(__file__).resolve().parents[2]
EXPLAINED = Path(__file__).with_name('explained.txt')
FOLDERS = ('shell', 'netlink', 'store', 'sync')
# Tests of the exports of the built daemon, which mutated objects do not affect, and of other
# programs.
NOT_OF_THE_DAEMON = 'Executable.*'
MEMORY_BYTES = 4 << 30
VERDICTS = ('noticed', 'hung', 'explained', 'unnoticed', 'not built')


def sources():
    return [path.relative_to(ROOT) for folder in FOLDERS
            for path in sorted((ROOT / folder).iterdir()) if path.suffix in ('.cpp', '.h')]


def run(command, timeout=None, check=False, environment=None):
    """Runs a command in a process group of its own, which is ended with it. None: timed out."""
    def limit():
        resource.setrlimit(resource.RLIMIT_AS, (MEMORY_BYTES, MEMORY_BYTES))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    with tempfile.TemporaryFile() as output:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                   start_new_session=True, preexec_fn=limit, cwd=ROOT,
                                   env={**os.environ, **(environment or {})})
        try:
            status = process.wait(timeout)
        except subprocess.TimeoutExpired:
            status = None
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()
        output.seek(0)
        text = output.read().decode(errors='replace')
    if check and status != 0:
        sys.exit(f'failed ({status}): {shlex.join(map(str, command))}\n{text[-3000:]}')
    return status, text


class Explained:
    """Changes that no test can notice, or that another kind of test notices, and why.

    Identified by file, function (type, constant) and change, so that an entry survives edits.
    """

    def __init__(self, text):
        self.reasons, self.used, owner = {}, set(), None
        for row in text.splitlines():
            if not row.strip() or row.startswith('#'):
                continue
            if not row.startswith(' '):
                owner = tuple(row.split(': '))
            else:
                change, _, reason = row.strip().partition(': ')
                self.reasons[owner + (change,)] = reason

    def reason(self, file, place):
        key = (str(file), place.owner, place.change)
        if key in self.reasons:
            self.used.add(key)
        return self.reasons.get(key)

    def unused(self, files):
        return [key for key in self.reasons if key not in self.used and Path(key[0]) in files]


class Build:
    """How the daemon's objects are compiled and linked with the unit tests."""

    def __init__(self, directory):
        self.directory = directory
        commands = self._ninja('unit_tests')
        self.compile = {}
        for words in map(shlex.split, commands):
            if '-c' in words and words[0] != ':':
                source = Path(words[words.index('-c') + 1])
                if source.is_relative_to(ROOT) and source.relative_to(ROOT).parts[0] in FOLDERS:
                    self.compile[source.relative_to(ROOT)] = words
        link = shlex.split(commands[-1].split(' && ')[1])
        self.link = [str(directory / word) if (directory / word).is_file() else word
                     for word in link]
        if shutil.which('ld.lld'):
            self.link.insert(1, '-fuse-ld=lld')
        self.objects = directory / 'mutate'
        self.objects.mkdir(exist_ok=True)
        self.prefix = []

    def _ninja(self, target):
        _, text = run(['ninja', '-C', str(self.directory), '-t', 'commands', target], check=True)
        return [line for line in text.splitlines() if not line.startswith('ninja:')]

    def compile_command(self, source, output, overlay=None):
        """Without optimisation; what the sanitizer build would find in a container is found."""
        words = [word for word in self.compile[source]
                 if not re.match(r'-W(?!l,)|-O|-g|-M|-DNDEBUG$|.*ccache$', word)]
        words[words.index('-o') + 1] = str(output)
        if '-MF' in self.compile[source]:
            del words[words.index(self.compile[source][self.compile[source].index('-MF') + 1])]
            del words[words.index(self.compile[source][self.compile[source].index('-MT') + 1])]
        compiler, flags = words[0], words[1:]
        if overlay:
            changed_source = overlay / source
            if changed_source.is_file():
                flags[flags.index('-c') + 1] = str(changed_source)
            flags = ['-I' + str(overlay)] + flags
        return [compiler, *self.prefix, '-O0', '-Werror=return-type', '-D_GLIBCXX_ASSERTIONS', *flags]

    def precompile(self):
        """Compiles the system's headers that the sources include once and for all: most of the time
        of a compilation goes there."""
        names = sorted({name for file in sources() for name in re.findall(
            r'^#include <([^>]+)>', (ROOT / file).read_text(), re.MULTILINE)} - {'tav/mlr.h',
                                                                                'tav/toolkit.h'})
        header = self.objects / 'system.h'
        header.write_text(''.join(f'#include <{name}>\n' for name in names))
        words = self.compile_command(next(iter(self.compile)), str(header) + '.gch')
        words[words.index('-c') + 1] = str(header)
        words[words.index('-c'):words.index('-c') + 1] = ['-x', 'c++-header', '-c']
        if run(words)[0] == 0:
            self.prefix = ['-include', str(header)]

    def object_of(self, source):
        return self.objects / (str(source).replace('/', '_') + '.o')

    def link_command(self, output, replaced):
        """`replaced`: object by source. The changed objects come first, so that the linker
        uses their copies of inline functions."""
        words, first = list(self.link), []
        for source, words_of in self.compile.items():
            original = str(self.directory / words_of[words_of.index('-o') + 1])
            if original in words:
                words.remove(original)
            if source in replaced:
                first.append(str(replaced[source]))
        rest = [str(self.object_of(source)) for source in self.compile if source not in replaced]
        words[words.index('-o') + 1] = str(output)
        return words[:1] + first + rest + words[1:]

    def dependents(self, file):
        """The daemon's sources that a change of this file reaches."""
        if file.suffix == '.cpp':
            return [file]
        return [source for source in self.compile if file in self._included(source)]

    def _included(self, source, seen=None):
        seen = set() if seen is None else seen
        for name in re.findall(r'^#include "([^"]+)"', (ROOT / source).read_text(), re.MULTILINE):
            file = Path(name)
            if file not in seen and (ROOT / file).is_file():
                seen.add(file)
                self._included(file, seen)
        return seen


def suites_of(folder):
    found = set()
    for path in (ROOT / 'tests' / folder).glob('*_test.cpp'):
        found |= set(re.findall(r'^(?:TEST|TEST_F|TEST_P)\((\w+),', path.read_text(), re.MULTILINE))
    return sorted(found)


def filters(folder):
    """Which tests to run in turn: those of the file's folder, then the other folders'."""
    def patterns(names):
        return ':'.join(f'{name}.*:*/{name}.*' for name in names)
    rest = [suite for other in FOLDERS if other != folder for suite in suites_of(other)]
    return [f'{patterns(names)}-{NOT_OF_THE_DAEMON}' for names in (suites_of(folder), rest)]


class Laboratory:
    """One directory in which one change at a time is tried."""

    def __init__(self, build, seconds):
        self.build, self.seconds = build, seconds
        self.directory = Path(tempfile.mkdtemp(dir=build.objects))

    def try_out(self, file, text):
        """The verdict on a changed text of the file."""
        overlay = self.directory / 'overlay'
        shutil.rmtree(overlay, ignore_errors=True)
        (overlay / file).parent.mkdir(parents=True)
        (overlay / file).write_text(text)
        replaced = {}
        for number, source in enumerate(self.build.dependents(file)):
            replaced[source] = self.directory / f'{number}.o'
            status, _ = run(self.build.compile_command(source, replaced[source], overlay))
            if status != 0:
                return 'not built'
        program = self.directory / 'unit_tests'
        status, text = run(self.build.link_command(program, replaced))
        if status != 0:
            return 'not built'
        return self.verdict_of(program, file.parts[0])

    def verdict_of(self, program, folder):
        for pattern in filters(folder):
            status, _ = run([str(program), '--gtest_filter=' + pattern, '--gtest_fail_fast',
                             '--gtest_brief=1'], self.seconds)
            if status != 0:
                return 'hung' if status is None else 'noticed'
        return 'unnoticed'


def prepare(build, jobs):
    """Compiles the unchanged objects and lets all tests pass once. How long they may take."""
    build.precompile()
    with ThreadPoolExecutor(jobs) as pool:
        for _ in pool.map(lambda source: run(
                build.compile_command(source, build.object_of(source)), check=True), build.compile):
            pass
    program = build.objects / 'unchanged'
    run(build.link_command(program, {}), check=True)
    started = time.monotonic()
    for pattern in filters(FOLDERS[0]):
        run([str(program), '--gtest_filter=' + pattern, '--gtest_brief=1'], 600, check=True)
    return max(10, 10 * (time.monotonic() - started))


def choose(arguments):
    """The (file, place) to try, and the files that are tried as a whole."""
    what = arguments.what or ['60']
    files = sources()
    if what[0].isdigit():
        everything = [(file, place) for file in files for place in places((ROOT / file).read_text())]
        seed = arguments.seed if arguments.seed is not None else random.randrange(1 << 32)
        print(f'a sample of {what[0]} of {len(everything)} places; --seed {seed}')
        chosen = random.Random(seed).sample(everything, min(int(what[0]), len(everything)))
        return sorted(chosen, key=lambda one: (str(one[0]), one[1].start)), []
    if not arguments.all:
        wanted = [file for file in files
                  if any(file == Path(name) or Path(name) in file.parents for name in what)]
        if not wanted:
            sys.exit(f'no source of {", ".join(FOLDERS)} among: {" ".join(what)}')
        files = wanted
    return [(file, place) for file in files for place in places((ROOT / file).read_text())], files


def print_counts(counts):
    print(f'\n{"folder":<10}{"places":>8}' + ''.join(f'{verdict:>11}' for verdict in VERDICTS)
          + f'{"share":>9}')
    for folder in FOLDERS + ('all',):
        row = counts if folder == 'all' else {key: count for key, count in counts.items()
                                              if key[0] == folder}
        by_verdict = [sum(count for key, count in row.items() if key[1] == verdict)
                      for verdict in VERDICTS]
        built = sum(by_verdict[:-1])
        if built:
            share = 100 * (by_verdict[0] + by_verdict[1]) / built
            print(f'{folder:<10}{sum(by_verdict):>8}' + ''.join(f'{n:>11}' for n in by_verdict)
                  + f'{share:>8.1f}%')


def main():
    parser = argparse.ArgumentParser(description='Changes the daemon one place at a time and lists '
                                     'what no unit test notices.')
    parser.add_argument('what', nargs='*', help='number of places taken at random (60), or files '
                        'or folders of the daemon')
    parser.add_argument('--all', action='store_true', help='every place of every file')
    parser.add_argument('--seed', type=int, help='of the sample')
    parser.add_argument('--jobs', type=int, default=os.cpu_count())
    parser.add_argument('--list', action='store_true', help='print the places, and try none')
    parser.add_argument('--build', type=Path, default=ROOT / 'build' / 'test')
    arguments = parser.parse_args()
    if arguments.all:
        arguments.what = ['all']

    chosen, whole_files = choose(arguments)
    if arguments.list:
        for file, place in chosen:
            print(f'{file}: {place.owner}: {place.change} | line {place.line}: {place.source}')
        return 0

    explained = Explained(EXPLAINED.read_text())
    build = Build(arguments.build.resolve())
    seconds = prepare(build, arguments.jobs)
    laboratories = [Laboratory(build, seconds) for _ in range(arguments.jobs)]
    counts = {}

    def attempt(one):
        file, place = one
        laboratory = laboratories.pop()
        verdict = laboratory.try_out(file, changed((ROOT / file).read_text(), place))
        laboratories.append(laboratory)
        return verdict

    with ThreadPoolExecutor(arguments.jobs) as pool:
        for (file, place), verdict in zip(chosen, pool.map(attempt, chosen)):
            if verdict == 'unnoticed' and explained.reason(file, place):
                verdict = 'explained'
            key = (file.parts[0], verdict)
            counts[key] = counts.get(key, 0) + 1
            print(f'# {sum(counts.values())} of {len(chosen)}', flush=True)
            if verdict == 'unnoticed':
                print(f'{file}: {place.owner}: {place.change} | line {place.line}: {place.source}',
                      flush=True)
    for laboratory in laboratories:
        shutil.rmtree(laboratory.directory)
    print_counts(counts)

    stale = explained.unused(whole_files)
    for entry in stale:
        print('explained, but noticed or not there: ' + ': '.join(entry))
    return 1 if stale or any(verdict == 'unnoticed' for _, verdict in counts) else 0


if __name__ == '__main__':
    sys.exit(main())
