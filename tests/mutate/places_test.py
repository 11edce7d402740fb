"""What the search for places finds in a source text, and what it leaves alone."""

import sys
import unittest
from pathlib import Path

from mutate import Explained, sources
from places import changed, places


def changes(text, kind=None):
    return [place.change for place in places(text) if kind in (None, place.kind)]


def in_function(body):
    return 'void f() {\n' + body + '\n}\n'


class Tokens(unittest.TestCase):
    def test_a_text_is_changed_at_both_ends(self):
        text = 'const char *a = "%s: b";\n'
        self.assertEqual([changed(text, place) for place in places(text)],
                         ['const char *a = "%s: b~";\n', 'const char *a = "~%s: b";\n'])

    def test_an_empty_text_is_changed_once(self):
        self.assertEqual(changes('x = "";'), ['"" -> "~"'])

    def test_quotes_and_slashes_inside_texts_do_not_end_them(self):
        self.assertEqual(len(changes(r'x = "a\"b // c", 1;')), 3)

    def test_numbers_grow_by_one_and_keep_base_and_suffix(self):
        self.assertEqual(changes("x = 9; y = 0x0f; z = 022; u = 1'000U;"),
                         ['9 -> 10', '0x0f -> 0x10', '022 -> 023', "1'000U -> 1001U"])

    def test_comparisons_stand_between_blanks(self):
        self.assertEqual(changes('template <typename T>\nbool b(std::vector<int> a, int c) '
                                 '{ return c < d || c >= e; }', 'comparison'),
                         ['< -> <=', '>= -> >'])

    def test_logic(self):
        self.assertEqual(changes('x = !a && b || true;'),
                         ['! -> (nothing)', '&& -> ||', '|| -> &&', 'true -> false'])

    def test_comments_includes_and_attributes_are_left_alone(self):
        self.assertEqual(changes('#include "a.h"\n// "b" 1\n/* 2 */\n'
                                 'void f() __attribute__((format(printf, 1, 2)));\n'), [])

    def test_the_body_of_a_macro_is_code(self):
        self.assertEqual(changes('#define A(b)  \\\n    if (b == 1)\n'), ['== -> !=', '1 -> 2'])


class Statements(unittest.TestCase):
    def test_calls_assignments_and_ways_out_can_be_removed(self):
        body = 'g();\na.b = c;\nif (d) {\nreturn;\n}\nfor (;;) {\nbreak;\n}\nthrow e();'
        self.assertEqual(len(changes(in_function(body), 'statement')), 5)

    def test_declarations_cannot(self):
        body = 'int a = b;\nconst auto c = d;\nstd::vector<int> e(f);\ng_t *h = i;\nfor (j k : l) {}'
        self.assertEqual(changes(in_function(body), 'statement'), [])

    def test_nothing_outside_functions_can(self):
        self.assertEqual(changes('namespace a {\nvoid b();\nclass c {\nd();\nint e;\n};\n}\n'), [])

    def test_what_a_lambda_does_can_and_the_call_that_it_is_given_to(self):
        body = 'each(list, [&](int a) {\nuse(a);\n});'
        text = in_function(body)
        removed = [place for place in places(text) if place.kind == 'statement']
        self.assertEqual([text[place.start:place.end] for place in removed], [body, 'use(a);'])

    def test_behind_a_label_too(self):
        self.assertEqual(len(changes(in_function('switch (a) {\ncase b:\nc();\ndefault:\nd();\n}'),
                                     'statement')), 2)

    def test_a_constructor_behind_its_members(self):
        text = 'struct a {\na() : b{c, d}, e(f) { g(); }\n};\n'
        self.assertEqual(len(changes(text, 'statement')), 1)


class ExplainedTest(unittest.TestCase):
    def test_an_entry_is_identified_by_owner_and_change(self):
        explained = Explained('# comment\na.cpp: f\n  1 -> 2: because\n  removed c();: so\n')
        text = 'int f(int a) {\n    b();\n    return 1;\n}\n\nint g() {\n    return 1;\n}\n'
        reasons = {(place.owner, place.change): explained.reason('a.cpp', place)
                   for place in places(text)}
        self.assertEqual(reasons[('f', '1 -> 2')], 'because')
        self.assertIsNone(reasons[('g', '1 -> 2')])
        self.assertEqual(explained.unused([Path('a.cpp')]), [('a.cpp', 'f', 'removed c();')])

    def test_an_owner_is_a_function_a_type_or_a_constant(self):
        for text, owner in (('tk_string CSync::f(const a &b) {\n    c(1);\n}\n', 'f'),
                            ('std::unique_ptr<a, b> f(c *d) {\n    c(1);\n}\n', 'f'),
                            ('CSync::CSync(int a)\n    : b(1) {}\n', 'CSync'),
                            ('struct a {\n    int b = 1;\n};\n', 'a'),
                            ('class [[nodiscard]] a : b {\n    int b = 1;\n};\n', 'a'),
                            ('constexpr a b = 1;\n', 'b'),
                            ('int b[2] = {0};\n', 'b'),
                            ('using a = std::array<char, 6>;\n', 'a'),
                            ('template <typename T>\nT f(a b) {\n    c(1);\n}\n', 'f')):
            with self.subTest(text):
                self.assertEqual({place.owner for place in places(text)}, {owner})

    def test_every_entry_stands_for_a_place_that_there_is(self):
        root = Path(__file__).resolve().parents[2]
        explained = Explained(Path(__file__).with_name('explained.txt').read_text())
        for file in sources():
            for place in places((root / file).read_text()):
                explained.reason(file, place)
        self.assertEqual(explained.unused([Path(key[0]) for key in explained.reasons]), [])


if __name__ == '__main__':
    sys.dont_write_bytecode = True
    unittest.main()
