#!/usr/bin/env python3
import unittest

from project import Project

CODE = r"""// a.cpp - LOG_WARN("not a call");
void f()
{
    LOG_DEBUG("a trace");
    LOG_WARN("[A] %s 关闭", id);
    if (g() != 0)
        return REFUSE(CODEC_E_PARAM,
                      "A decode: \"bad\" "
                      "length=%d\n", length);
    LOG_FATAL("all is lost");
}
"""
LIST = """# Log lines

- `[A] %s 关闭` (WARN):
  a client is closed.
- `A decode: "bad" length=%d` (ERROR)
- `all is lost` (FATAL): mend it.
"""


class CheckLogLines(unittest.TestCase):
    def faults(self, code=CODE, listed=LIST, name="src/codec/a.cpp"):
        status, lines = Project({name: code, "docs/log-lines.md": listed}).run("check_log_lines.py")
        self.assertEqual(status, 1 if lines else 0)
        return lines

    def test_a_complete_list(self):
        self.assertEqual(self.faults(), [])

    def test_a_line_that_is_not_listed(self):
        self.assertEqual(
            self.faults(CODE + 'void g() { LOG_ERROR("new"); }\n'),
            ["src/codec/a.cpp:12: docs/log-lines.md lacks ERROR: new"],
        )

    def test_no_list_at_all(self):
        made = Project({"src/codec/a.cpp": CODE})
        self.assertEqual(len(made.run("check_log_lines.py")[1]), 3)

    def test_a_line_that_is_gone(self):
        self.assertEqual(
            self.faults(CODE.replace("LOG_FATAL", "LOG_INFO")),
            ["docs/log-lines.md:6: nothing logs this at FATAL: all is lost"],
        )

    def test_another_level(self):
        self.assertEqual(
            self.faults(CODE.replace("LOG_WARN(\"[", "LOG_ERROR(\"[")),
            [
                "docs/log-lines.md:3: nothing logs this at WARN: [A] %s 关闭",
                "src/codec/a.cpp:5: docs/log-lines.md lacks ERROR: [A] %s 关闭",
            ],
        )

    def test_out_of_order_and_twice(self):
        self.assertEqual(
            self.faults(listed=LIST + "- `[A] %s 关闭` (WARN)\n"),
            [
                "docs/log-lines.md:7: is there twice: [A] %s 关闭",
                "docs/log-lines.md:7: is not in order: [A] %s 关闭",
            ],
        )

    def test_a_text_behind_a_plain_format(self):
        self.assertEqual(
            self.faults('void f() { LOG_WARN("%s", "all told"); }\n', "- `all told` (WARN)\n"), []
        )

    def test_texts_that_a_variable_carries(self):
        code = 'int f() { return undecodable(client, "解码X失败：%s", 1); }\nvoid g() { LOG_ERROR(line, 1); }\n'
        self.assertEqual(
            self.faults(code, "", "src/handler/a.cpp"),
            ["src/handler/a.cpp: docs/log-lines.md lacks ERROR: 解码X失败：%s"],
        )

    def test_a_variable_that_nobody_knows(self):
        self.assertEqual(
            self.faults("void f() { LOG_ERROR(row.words, 1); }\n", ""),
            ["src/codec/a.cpp:1: logs row.words, and tools/check_log_lines.py does not know its texts"],
        )


if __name__ == "__main__":
    unittest.main()
