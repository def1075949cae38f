#!/usr/bin/env python3
import unittest

from project import Project

INSTALL = "set(TARN_MODULE_HEADERS\n  base/export.h sub/sub.h)\n"
HEAD = "/*\n * sub.h - what it is for.\n */\n#ifndef SUB_H\n#define SUB_H\n\n"


class CheckHeaders(unittest.TestCase):
    def faults(self, body, head=HEAD, name="src/sub/sub.h"):
        status, lines = Project({"cmake/install.cmake": INSTALL, name: head + body + "\n#endif\n"}).run(
            "check_headers.py"
        )
        self.assertEqual(status, 1 if lines else 0)
        return lines

    def test_an_explained_function(self):
        self.assertEqual(self.faults("/* Adds. */\nint sub_add(const char *id);\n"), [])
        self.assertEqual(self.faults("/*\n * Adds.\n *\n *   id   not null\n */\nint sub_add(const char *id);\n"), [])

    def test_a_bare_function(self):
        self.assertEqual(
            self.faults("int sub_add(const char *id,\n            int qos);\n"),
            ["src/sub/sub.h:7: sub_add has no comment above"],
        )

    def test_a_comment_on_its_line_is_not_above(self):
        self.assertEqual(len(self.faults("int sub_add(void); /* 0 or -1 */\n")), 1)
        self.assertEqual(len(self.faults("/* 0 or -1 */ int sub_add(void);\n")), 1)

    def test_a_blank_line_separates(self):
        self.assertEqual(len(self.faults("/* Adds. */\n\nint sub_add(void);\n")), 1)

    def test_a_group_shares_its_comment_up_to_a_blank_line(self):
        group = "/* Count. */\nvoid count_a(void);\nvoid count_b(void); /* and more */\n"
        self.assertEqual(self.faults(group), [])
        self.assertEqual(
            self.faults(group + "\nvoid count_c(void);\n"), ["src/sub/sub.h:11: count_c has no comment above"]
        )

    def test_a_comment_inside_a_group_does_not_end_it(self):
        self.assertEqual(self.faults("/* Count. */\nvoid count_a(void);\n/* B. */\nvoid count_b(void);\n"), [])

    def test_a_heading_explains_nothing(self):
        self.assertEqual(len(self.faults("/* ------------------------ adding */\nint sub_add(void);\n")), 1)
        self.assertEqual(self.faults("/* ------------------------ adding\n * Each adds. */\nint sub_add(void);\n"), [])

    def test_the_comment_of_a_record_is_not_that_of_what_follows(self):
        record = "/* A record. */\ntypedef struct {\n    int (*call)(int); /* f(x) */\n    int a;\n} entry_t;\n"
        self.assertEqual(
            self.faults(record + "int sub_add(void);\n"), ["src/sub/sub.h:12: sub_add has no comment above"]
        )
        self.assertEqual(self.faults(record), [])

    def test_a_global_is_explained_above_or_behind(self):
        self.assertEqual(self.faults("/* The table. */\nextern int g_table[3];\n"), [])
        self.assertEqual(self.faults("extern int g_table[3]; /* under the lock */\n"), [])
        self.assertEqual(self.faults("extern TARN_SHARED(int) g_count; /* any thread */\n"), [])
        self.assertEqual(
            self.faults("extern int g_table[LIMIT + 1];\n"), ["src/sub/sub.h:7: g_table has no comment above"]
        )

    def test_a_function_that_is_declared_extern(self):
        self.assertEqual(len(self.faults("extern int sub_add(void); /* 0 */\n")), 1)

    def test_a_function_that_returns_a_struct(self):
        self.assertEqual(len(self.faults("struct entry *sub_find(void);\n")), 1)
        self.assertEqual(self.faults("struct entry;\n"), [])

    def test_a_function_with_a_body(self):
        body = "static inline int two(void)\n{\n    if (one())\n        return 2;\n    return 0;\n}\n"
        self.assertEqual(self.faults(body), ["src/sub/sub.h:7: two has no comment above"])
        self.assertEqual(self.faults("/* Two. */\n" + body), [])

    def test_the_preprocessor_may_stand_between(self):
        two = "/* Either. */\n#ifdef __cplusplus\nint entry(...);\n#else\nint entry();\n#endif\n"
        self.assertEqual(self.faults(two), [])
        self.assertEqual(len(self.faults(two.replace("/* Either. */", ""))), 2)
        self.assertEqual(self.faults("#define CALL(x) \\\n    f(x);\n#define END }\n"), [])

    def test_brackets_and_checks_declare_nothing(self):
        linkage = "#ifdef __cplusplus\n%s\n#endif\n"
        brackets = "TARN_API_BEGIN\n" + linkage % 'extern "C" {' + "%s" + linkage % "}" + "TARN_API_END\n"
        self.assertEqual(self.faults(brackets % "" + "TARN_LAYOUT_SIZE(entry_t, 8);\n"), [])
        self.assertEqual(len(self.faults(brackets % "int sub_add(void);\n")), 1)

    def test_a_header_begins_with_its_name(self):
        fault = "src/sub/sub.h:1: does not begin with its name and what it is for"
        self.assertEqual(self.faults("", head="#pragma once\n"), [fault])
        self.assertEqual(self.faults("", head="/*\n * retain.h - what it is for.\n */\n"), [fault])

    def test_the_comment_at_the_top_explains_no_function(self):
        self.assertEqual(len(self.faults("int f(void);\n", head="/*\n * sub.h - what it is for.\n */\n")), 1)

    def test_headers_that_are_not_installed_are_free(self):
        self.assertEqual(self.faults("int f(void);\n", name="src/sub/sub_internal.h"), [])

    def test_the_public_header_is_held_to_it(self):
        name = "include/tarn_sdk_mqtt_broker.h"
        self.assertEqual(
            self.faults("int f(void);\n", head="/*\n * tarn_sdk_mqtt_broker.h - a broker.\n */\n", name=name),
            [f"{name}:4: f has no comment above"],
        )


if __name__ == "__main__":
    unittest.main()
