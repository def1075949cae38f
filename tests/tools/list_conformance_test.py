#!/usr/bin/env python3
import unittest

from project import Project

LIST = """# statements
== 3.1.1

1.5.3-1   server  Texts are UTF-8
2.3.1-2   client  Identifiers are not in use

== 5.0

1.5.3-1   server  Something else
6.0.0-1   server  Frames are binary
    no test: there is no WebSocket
"""
TESTS = """// [MQTT-1.5.3-1] 3.1.1 [MQTT-1.5.3-1]
TEST_P(framing, texts)
{
}
"""


def project(listed=LIST, tests=TESTS, name="tests/standard/framing_test.cpp"):
    return Project({"tests/standard/statements.txt": listed, name: tests})


class ListConformance(unittest.TestCase):
    def faults(self, made, *options):
        status, lines = made.run("list_conformance.py", *options)
        self.assertEqual(status, 1 if lines else 0)
        return lines

    def test_writes_statements_tests_and_reasons(self):
        made = project()
        self.assertEqual(self.faults(made), [])
        text = made.read("docs/conformance.md")
        self.assertIn("\n## MQTT 3.1.1\n\n1 statements that a server can follow or break: 1 have tests, 0 a", text)
        self.assertIn("| MQTT-1.5.3-1 | Texts are UTF-8 | `standard.framing.texts` |\n", text)
        self.assertIn("\n1 that bind clients alone:\n", text)
        self.assertIn("| MQTT-2.3.1-2 | Identifiers are not in use | none |\n", text)
        self.assertIn("2 statements that a server can follow or break: 1 have tests, 1 a reason why none.", text)
        self.assertIn("| MQTT-1.5.3-1 | Something else | `standard.framing.texts` |\n", text)
        self.assertIn("| MQTT-6.0.0-1 | Frames are binary | none: there is no WebSocket |\n", text)

    def test_a_fresh_list_passes_the_check_and_a_stale_one_does_not(self):
        made = project()
        self.assertEqual(self.faults(made, "--check"), ["docs/conformance.md is stale: run ./dev format"])
        self.faults(made)
        self.assertEqual(self.faults(made, "--check"), [])
        made.write("tests/standard/statements.txt", LIST.replace("UTF-8", "UTF-16"))
        self.assertEqual(self.faults(made, "--check"), ["docs/conformance.md is stale: run ./dev format"])

    def test_a_statement_without_a_test(self):
        self.assertEqual(
            self.faults(project(tests=TESTS.replace("// [MQTT-1.5.3-1] ", "// "))),
            ["tests/standard/statements.txt:9: 5.0 1.5.3-1 has neither a test nor a reason"],
        )

    def test_a_statement_with_a_test_and_a_reason(self):
        self.assertEqual(
            self.faults(project(tests=TESTS.replace("3.1.1", "[MQTT-6.0.0-1] 3.1.1"))),
            [
                "tests/standard/statements.txt:10: 5.0 6.0.0-1 has a test, standard.framing.texts, and a reason why it "
                "has none"
            ],
        )

    def test_a_reason_for_what_binds_clients(self):
        listed = LIST.replace("not in use\n", "not in use\n    no test: none\n")
        self.assertEqual(
            self.faults(project(listed)),
            ["tests/standard/statements.txt:5: 3.1.1 2.3.1-2 binds clients and needs no reason"],
        )

    def test_a_statement_that_does_not_exist(self):
        self.assertEqual(
            self.faults(project(tests=TESTS + "// 3.1.1 [MQTT-6.0.0-1]\nTEST(framing, more)\n{\n}\n")),
            ["tests/standard/framing_test.cpp:5: 3.1.1 has no statement 6.0.0-1"],
        )

    def test_a_statement_within_a_test_and_one_behind_all(self):
        made = project(tests=TESTS + "TEST(framing, more)\n{\n    f(); // 3.1.1 [MQTT-2.3.1-2]\n}\n")
        self.assertEqual(self.faults(made), [])
        self.assertIn("| Identifiers are not in use | `standard.framing.more` |", made.read("docs/conformance.md"))
        self.assertEqual(
            self.faults(project(tests=TESTS + "// [MQTT-6.0.0-1]\n")),
            ["tests/standard/framing_test.cpp:5: there is no test behind [MQTT-6.0.0-1]"],
        )

    def test_unit_tests_count(self):
        made = project(name="tests/unit/codec_standard/text_test.cpp")
        self.assertEqual(self.faults(made), [])
        self.assertIn("`unit.codec_standard.framing.texts`", made.read("docs/conformance.md"))

    def test_a_line_that_is_nothing_and_a_number_twice(self):
        self.assertEqual(
            self.faults(project(LIST + "1.5.3-1   server  Again\n\n7.1  server  Nothing\n")),
            [
                "tests/standard/statements.txt:12: 5.0 1.5.3-1 stands there twice",
                "tests/standard/statements.txt:14: is neither a statement nor a reason",
            ],
        )


if __name__ == "__main__":
    unittest.main()
