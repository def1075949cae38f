#!/usr/bin/env python3
import unittest

from project import Project

GLOSSARY = """# Glossary

| word | what it is |
|---|---|
| `park` | a word of another table |

## Words that are not used

| not | in | but |
|---|---|---|
| `settle`, `park` | names, comments, files | save or delete |
| `whoever` | comments in src/ broker/ | the caller |
| `say_*`, `g_*_lock` | names in src/ | log_*, *_mutex |
"""
SYMBOLS = "# exported\n\n[NODE functions]\nsay_hello\n[NODE data]\ng_old_lock 8\n"
INSTALL = "set(TARN_MODULE_HEADERS\n  client/types.h)\n"
TYPES = """/* types.h */
typedef struct {
    int park_flag; /* flag */
    int rows[2] TARN_GUARDED_BY(lock), settled;
} parked_t;
enum { PARK_NONE = 0 };
void f(int settle);
"""


class CheckWords(unittest.TestCase):
    def faults(self, files, glossary=GLOSSARY):
        made = Project(
            {
                "docs/glossary.md": glossary,
                "tests/abi/exported_symbols.txt": SYMBOLS,
                "cmake/install.cmake": INSTALL,
                "src/client/types.h": TYPES.replace("void f(int settle);\n", ""),
                **files,
            }
        )
        status, lines = made.run("check_words.py")
        self.assertEqual(status, 1 if lines else 0)
        return lines

    def test_other_words(self):
        self.assertEqual(self.faults({"src/a/a.cpp": "// sparks fly\nint parking, unsettling, says_so;\n"}), [
            "src/a/a.cpp:2: name says parking: save or delete",
        ])
        self.assertEqual(self.faults({"src/a/a.cpp": "// sparks fly\nint unsettled_by, says_so, lock;\n"}), [])

    def test_a_name_and_its_forms(self):
        self.assertEqual(
            self.faults({"src/a/a.cpp": "void settle();\n\nint kSettled, isParked2, settling_it;\n"}),
            [
                "src/a/a.cpp:1: name says settle: save or delete",
                "src/a/a.cpp:3: name says kSettled: save or delete",
                "src/a/a.cpp:3: name says isParked2: save or delete",
                "src/a/a.cpp:3: name says settling_it: save or delete",
            ],
        )

    def test_every_folder(self):
        for folder in ("src/a", "include", "broker", "tests/unit", "bench", "fuzz", "examples/c"):
            self.assertEqual(
                self.faults({f"{folder}/a.c": "int park;\n"}), [f"{folder}/a.c:1: name says park: save or delete"]
            )

    def test_a_comment(self):
        self.assertEqual(
            self.faults({"src/a/a.h": "int a; // it Settles\n/* one\n * Whoever calls */\n"}),
            [
                "src/a/a.h:1: comment says Settles: save or delete",
                "src/a/a.h:3: comment says Whoever: the caller",
            ],
        )

    def test_a_comment_in_another_folder(self):
        self.assertEqual(self.faults({"tests/a.cpp": "// whoever\n", "src/a/a.cpp": "int whoever;\n"}), [])

    def test_a_pattern(self):
        self.assertEqual(
            self.faults({"src/a/a.cpp": "void say_it(); // say_it\nMutex g_new_lock;\nvoid essay_x(), say();\n"}),
            [
                "src/a/a.cpp:1: name says say_it: log_*, *_mutex",
                "src/a/a.cpp:2: name says g_new_lock: log_*, *_mutex",
            ],
        )

    def test_a_file_and_a_folder(self):
        self.assertEqual(
            self.faults({"src/parking/a.cpp": "", "tests/settle_test.py": ""}),
            [
                "src/parking/a.cpp:1: file name says parking: save or delete",
                "tests/settle_test.py:1: file name says settle_test.py: save or delete",
            ],
        )

    def test_texts_in_quotes(self):
        self.assertEqual(self.faults({"src/a/a.cpp": 'f("settle // park", \'\\\'\', R"(park)", "\\"park");\n'}), [])

    def test_frozen_names(self):
        code = "// parked_t\nint x = say_hello(g_old_lock, a.park_flag, b.settled, PARK_NONE);\nparked_t y;\n"
        self.assertEqual(self.faults({"src/a/a.cpp": code}), [])

    def test_parameters_are_not_frozen(self):
        self.assertEqual(
            self.faults({"src/client/types.h": TYPES}), ["src/client/types.h:7: name says settle: save or delete"]
        )

    def test_a_glossary_without_the_table(self):
        self.assertEqual(
            self.faults({}, GLOSSARY.split("## ")[0]),
            ["docs/glossary.md: has no chapter '## Words that are not used'"],
        )
        self.assertEqual(self.faults({}, GLOSSARY.split("| not")[0]), ["docs/glossary.md: refuses no word"])

    def test_a_place_that_is_none(self):
        self.assertEqual(
            self.faults({}, GLOSSARY.replace("| comments in", "| texts in")),
            ["docs/glossary.md:12: says neither names, comments nor files: texts in src/ broker/"],
        )


if __name__ == "__main__":
    unittest.main()
