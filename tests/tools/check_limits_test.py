#!/usr/bin/env python3
import unittest

from project import Project

HEADER = """/* limits.h */
enum {
    /* sizes */
    BODY_MAX    = 2112,         /* bytes */
    PACKET_MAX  = 1 + BODY_MAX, /* with its header */
    LOG_SIZE    = 256
};
CHECK(PACKET_MAX >= BODY_MAX);
"""
LIMITS = """| a body: `BODY_MAX` 2112 | is cut, see `BODY_MAX` | `suite.is_cut` |
| a packet: `PACKET_MAX` 2113; a line: `LOG_SIZE` 256 | kept in `data/retain.dat` and `host.c` | `tools.limits` |
"""
TEST_CODE = "TEST_F(suite, is_cut)\n{\n}\n"
OTHER_TESTS = "add_test(NAME tools.limits COMMAND x)\n"


class CheckLimits(unittest.TestCase):
    def faults(self, header=HEADER, limits=LIMITS, security="as `suite.is_cut` shows\n"):
        files = {"src/base/limits.h": header, "docs/limits.md": limits, "docs/security.md": security}
        files |= {"tests/a_test.cpp": TEST_CODE, "tests/CMakeLists.txt": OTHER_TESTS}
        status, lines = Project(files).run("check_limits.py")
        self.assertEqual(status, 1 if lines else 0)
        return lines

    def test_all_is_said(self):
        self.assertEqual(self.faults(), [])

    def test_a_number_that_is_not_named(self):
        self.assertEqual(
            self.faults(header=HEADER.replace("LOG_SIZE", "LOG_LINES")),
            [
                "docs/limits.md:2: src/base/limits.h has no LOG_SIZE",
                "docs/limits.md does not say what LOG_LINES means to users",
            ],
        )

    def test_a_number_that_was_changed(self):
        self.assertEqual(
            self.faults(header=HEADER.replace("2112", "2000")),
            [
                "docs/limits.md:1: BODY_MAX is 2000 and not 2112",
                "docs/limits.md:2: PACKET_MAX is 2001 and not 2113",
                "docs/limits.md says nowhere that BODY_MAX is 2000, as in `BODY_MAX` 2000",
                "docs/limits.md says nowhere that PACKET_MAX is 2001, as in `PACKET_MAX` 2001",
            ],
        )

    def test_a_name_without_its_number(self):
        self.assertEqual(
            self.faults(limits=LIMITS.replace("`LOG_SIZE` 256", "`LOG_SIZE`")),
            ["docs/limits.md says nowhere that LOG_SIZE is 256, as in `LOG_SIZE` 256"],
        )

    def test_tests_that_do_not_exist(self):
        self.assertEqual(
            self.faults(limits=LIMITS + "`suite.is_gone`\n", security="`other.is_cut`\n"),
            [
                "docs/limits.md:3: there is no test suite.is_gone",
                "docs/security.md:1: there is no test other.is_cut",
            ],
        )

    def test_without_the_documents(self):
        made = Project({"src/base/limits.h": HEADER})
        self.assertEqual(len(made.run("check_limits.py")[1]), 3)


if __name__ == "__main__":
    unittest.main()
