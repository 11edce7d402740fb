"""Checks that every test which tests/FAILURES.md names is there. Arguments: that file, the build
directory, the ctest program."""

import fnmatch
import re
import subprocess
import sys

document, build, ctest = sys.argv[1:]
listing = subprocess.run([ctest, '--test-dir', build, '--show-only'], check=True, text=True,
                         stdout=subprocess.PIPE).stdout
tests = re.findall(r'^ *Test +#\d+: (.*)$', listing, re.MULTILINE)
with open(document, encoding='utf-8') as file:
    named = re.findall(r'`((?:unit|kernel|tav|model)\.[^`]*)`', file.read())
# The name of a parameterised test is followed by the parameter's name, and sometimes its value.
missing = [name for name in named if not fnmatch.filter(tests, name)]
for name in missing:
    print(f'there is no test {name}')
print(f'{len(named)} named, {len(missing)} missing, of {len(tests)}')
sys.exit(1 if missing or not named else 0)
