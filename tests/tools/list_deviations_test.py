#!/usr/bin/env python3
import unittest

from project import Project

CODE = """// text.cpp - about texts.
void f()
{
    // QUIRK(long-id): a long id is cut instead of being refused [MQTT-3.1.3-8],
    // since older hosts send them.
    //   standard profile: lifted (ids)
    //   test: ids.long_ones_are_cut
    cut();
}
"""
TEST = "TEST(ids, long_ones_are_cut)\n{\n}\n"


def project(code=CODE, test=TEST):
    return Project({"src/codec/text.cpp": code, "tests/unit/codec/text_test.cpp": test})


class ListDeviations(unittest.TestCase):
    def faults(self, made, *options):
        status, lines = made.run("list_deviations.py", *options)
        self.assertEqual(status, 1 if lines else 0)
        return lines

    def test_writes_statement_reason_profile_code_and_test(self):
        made = project()
        self.assertEqual(self.faults(made), [])
        self.assertIn(
            "\n## long-id\n\n"
            "A long id is cut instead of being refused [MQTT-3.1.3-8], since older hosts send them.\n\n"
            "- Standard: MQTT-3.1.3-8\n- Standard profile: lifted (ids)\n"
            "- Code: `src/codec/text.cpp`\n- Test: `ids.long_ones_are_cut`\n",
            made.read("docs/deviations.md"),
        )

    def test_a_fresh_list_passes_the_check_and_a_stale_one_does_not(self):
        made = project()
        self.assertEqual(self.faults(made, "--check"), ["docs/deviations.md is stale: run ./dev format"])
        self.faults(made)
        self.assertEqual(self.faults(made, "--check"), [])
        made.write("src/codec/text.cpp", CODE.replace("cut instead", "shortened instead"))
        self.assertEqual(self.faults(made, "--check"), ["docs/deviations.md is stale: run ./dev format"])

    def test_the_check_writes_nothing(self):
        made = project()
        self.faults(made, "--check")
        self.assertFalse((made.root / "docs").exists())

    def test_sorts_by_name(self):
        made = project(CODE + CODE.replace("long-id", "another"))
        self.faults(made)
        text = made.read("docs/deviations.md")
        self.assertLess(text.index("## another"), text.index("## long-id"))

    def test_a_test_that_does_not_exist(self):
        self.assertEqual(
            self.faults(project(test="TEST(ids, short_ones)\n")),
            ["src/codec/text.cpp:4: QUIRK(long-id) names the test ids.long_ones_are_cut, which does not exist"],
        )

    def test_several_tests_on_several_lines(self):
        code = CODE.replace("ids.long_ones_are_cut", "ids.a, ids.b,\n    //   ids.c")
        made = project(code, "TEST(ids, a)\nTEST_F(ids, b)\nTEST_P(ids, c)\n")
        self.assertEqual(self.faults(made), [])
        self.assertIn("- Test: `ids.a`, `ids.b`, `ids.c`\n", made.read("docs/deviations.md"))

    def test_no_test_no_statement_and_a_name_used_twice(self):
        code = "// QUIRK(one): something.\nint a;\n// QUIRK(one): more [MQTT-1.5.4-1].\n"
        self.assertEqual(
            self.faults(project(code)),
            [
                "src/codec/text.cpp:1: QUIRK(one) names no statement of the standard, as in [MQTT-3.1.2-24]",
                "src/codec/text.cpp:1: QUIRK(one) does not say what is so in the standard profile",
                "src/codec/text.cpp:1: QUIRK(one) names no test",
                "src/codec/text.cpp:3: QUIRK(one) is also at src/codec/text.cpp:1",
                "src/codec/text.cpp:3: QUIRK(one) does not say what is so in the standard profile",
                "src/codec/text.cpp:3: QUIRK(one) names no test",
            ],
        )

    def test_lists_what_each_rule_lifts(self):
        made = project(CODE + CODE.replace("long-id", "another"))
        self.assertEqual(self.faults(made), [])
        text = made.read("docs/deviations.md")
        self.assertRegex(text, r"\n\| ids \| [^|]+ \| \[another\]\(#another\), \[long-id\]\(#long-id\) \|\n")
        self.assertRegex(text, r"\n\| wills \| [^|]+ \| - \|\n")
        self.assertNotIn("These stay", text)

    def test_says_how_a_rule_lifts_it_on_several_lines(self):
        code = CODE.replace("lifted (ids)", "lifted (ids): up to\n    //   65535 bytes")
        made = project(code)
        self.assertEqual(self.faults(made), [])
        self.assertIn("\n- Standard profile: lifted (ids): up to 65535 bytes\n", made.read("docs/deviations.md"))

    def test_lists_what_stays_and_why(self):
        made = project(CODE.replace("lifted (ids)", "stays: records are\n    //   as long as they are."))
        self.assertEqual(self.faults(made), [])
        text = made.read("docs/deviations.md")
        self.assertIn("\n- [long-id](#long-id): records are as long as they are.\n\n## long-id", text)
        self.assertRegex(text, r"\n\| ids \| [^|]+ \| - \|\n")

    def test_neither_lifted_nor_staying(self):
        for wrong in ("lifted", "lifted ()", "stays", "stays:", "gone (ids)"):
            self.assertEqual(
                self.faults(project(CODE.replace("lifted (ids)", wrong))),
                [
                    "src/codec/text.cpp:4: QUIRK(long-id) says of the standard profile neither 'lifted (rule)' nor "
                    f"'stays: reason', but '{wrong}'"
                ],
            )

    def test_a_rule_that_does_not_exist(self):
        self.assertEqual(
            self.faults(project(CODE.replace("(ids)", "(names)"))),
            [
                "src/codec/text.cpp:4: QUIRK(long-id) is lifted by names, which is no rule of the standard profile",
            ],
        )

    def test_a_chapter_number_is_a_statement_too(self):
        for statement in ("[MQTT 3.1.1 3.2.2.3]", "chapter 2.2.2.1", "MQTT 5.0 3.4.2.1"):
            self.assertEqual(self.faults(project(CODE.replace("[MQTT-3.1.3-8]", statement))), [])

    def test_the_number_of_a_version_is_none(self):
        for version in ("3.1.1", "5.0"):
            for behind in ("", ".", ", as before"):
                code = CODE.replace("[MQTT-3.1.3-8],\n    // since older hosts send them.", version + behind)
                self.assertEqual(len(self.faults(project(code))), 1, version + behind)

    def test_a_statement_that_cannot_exist(self):
        for wrong in ("MQTT-3.1.2.10", "MQTT-3.14 of 3.1.1", "MQTT-3.1.2-24 of 4.0", "MQTT 3.1.2-24", "MQTT 5.0"):
            self.assertEqual(
                self.faults(project(CODE.replace("MQTT-3.1.3-8", "MQTT-3.1.3-8, " + wrong))),
                [
                    f"src/codec/text.cpp:4: QUIRK(long-id) names {wrong}, which is neither a statement as in "
                    "[MQTT-3.1.2-24 of 3.1.1] nor a chapter as in [MQTT 5.0 3.1.2.4]"
                ],
            )
        for right in ("MQTT-3.1.2-24 of 3.1.1", "MQTT-3.1.2-23 of 5.0", "MQTT 3.1.1 3.14", "MQTT 5.0 3.8.2.1.2"):
            self.assertEqual(self.faults(project(CODE.replace("MQTT-3.1.3-8", "MQTT-3.1.3-8, " + right))), [])


if __name__ == "__main__":
    unittest.main()
