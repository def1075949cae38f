#!/usr/bin/env python3
"""./dev on machines that are made up: it sees the programs in a folder of this test, and nothing else."""
import os
import pty
import shutil
import subprocess
import unittest

from project import ROOT, Project

# Each notes that it was called. The compiler's run prints what one of ninja looks like.
STAND_IN = '#!/bin/sh\necho "${0##*/} $*" >>"$CALLS"\n'
CMAKE = STAND_IN + 'case "$*" in --build*) echo "[7/9] Building it"; [ ! -e broken ] || { echo "a mistake"; exit 3; };; esac\n'
CTEST = STAND_IN + 'echo "Start 1: first"\n'
NEEDED = ["sh", "env", "cat", "mkdir", "rm", "dirname", "sed", "stty", "head", "nproc"]
HERE = {"g++": STAND_IN, "ninja": STAND_IN, "cmake": CMAKE, "ctest": CTEST, "apt-get": STAND_IN, "ldconfig": STAND_IN,
        "id": "#!/bin/sh\necho 0\n"}


class Dev(unittest.TestCase):
    def setUp(self):
        self.project = Project({"dev": (ROOT / "dev").read_text(encoding="utf-8"),
                                "build/release/CMakeCache.txt": "CMAKE_INSTALL_LIBDIR:PATH=lib\n"})
        for name, text in HERE.items():
            self.add_program(name, text)
        for name in NEEDED:
            (self.project.root / "bin" / name).symlink_to(shutil.which(name))

    def add_program(self, name, text=STAND_IN):
        self.project.write(f"bin/{name}", text)
        (self.project.root / "bin" / name).chmod(0o755)

    def dev(self, *arguments, on_terminal=False):
        """Exit status, standard output, and standard error, which may be a terminal."""
        root = self.project.root
        environment = {"PATH": str(root / "bin"), "CALLS": str(root / "calls"), "TERM": "xterm"}
        command = ["/bin/sh", root / "dev", *arguments]
        if not on_terminal:
            done = subprocess.run(command, env=environment, capture_output=True, text=True)
            return done.returncode, done.stdout, done.stderr
        terminal, inside = pty.openpty()
        with subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=inside, text=True) as process:
            os.close(inside)
            shown = b""
            try:
                while some := os.read(terminal, 4096):
                    shown += some
            except OSError:
                pass  # so ends a terminal
            output = process.stdout.read()
        os.close(terminal)
        return process.returncode, output, shown.decode()

    def calls(self):
        path = self.project.root / "calls"
        return path.read_text(encoding="utf-8").splitlines() if path.exists() else []

    def installed_packages(self):
        return [word for call in self.calls() if call.startswith("apt-get") and " install " in call
                for word in call.split(" install ")[1].split()]

    def test_install_brings_what_finds_the_library(self):
        self.assertEqual(self.dev("install")[0], 0)
        self.assertIn("pkg-config", self.installed_packages())

    def test_install_leaves_a_pkg_config_that_is_there(self):
        self.add_program("pkg-config")
        self.assertEqual(self.dev("install")[0], 0)
        self.assertNotIn("pkg-config", self.installed_packages())

    def test_install_tells_the_loader_however_the_folder_is_written(self):
        for words in [], ["/usr/local"], ["/usr/local/"], ["/usr/../usr//local"]:
            with self.subTest(words):
                status, _, told = self.dev("install", *words)
                self.assertEqual(status, 0, told)
                self.assertRegex(self.calls()[-2], "^cmake --install build/release --prefix ")
                self.assertEqual(self.calls()[-1], "ldconfig ")
                self.assertNotIn("export", told)

    def test_install_elsewhere_tells_how_it_is_found(self):
        prefix = str(self.project.root / "else where")
        status, _, told = self.dev("install", prefix + "/")
        self.assertEqual(status, 0, told)
        self.assertNotIn("ldconfig ", self.calls())
        self.assertIn(f"  export PKG_CONFIG_PATH='{prefix}/lib/pkgconfig' CMAKE_PREFIX_PATH='{prefix}' "
                      f"LD_LIBRARY_PATH='{prefix}/lib'\n", told)

    def test_coverage_fails_below_what_it_is_to_reach(self):
        self.add_program("find")
        self.add_program("gcovr", STAND_IN + 'case "$*" in *--fail-under-line*) exit 2;; esac\n')
        self.assertEqual(self.dev("coverage")[0], 2)
        self.assertIn("-LE faults", next(call for call in self.calls() if call.startswith("ctest ")))
        counted, lines, branches = [call for call in self.calls() if call.startswith("gcovr ")]
        self.assertIn("--exclude-throw-branches --json build/coverage/coverage.json", counted)
        self.assertNotIn("--branches", lines)
        self.assertIn("--branches --fail-under-line 95 --fail-under-branch 85", branches)

    def test_building_shows_its_progress_on_a_terminal(self):
        self.add_program("pkg-config")
        _, output, told = self.dev("install", on_terminal=True)
        self.assertEqual(output, "")
        self.assertIn("\r\x1b[K[7/9] Building it\r\x1b[K", told)

    def test_building_is_quiet_elsewhere(self):
        self.add_program("pkg-config")
        _, output, told = self.dev("install")
        self.assertEqual(output, "")
        for line in told.splitlines():
            self.assertTrue(line.startswith("dev: "), line)
        self.assertNotIn("\x1b", told)

    def test_a_build_that_fails_is_told_with_all_its_output(self):
        self.project.write("broken", "")
        for on_terminal in False, True:
            status, _, told = self.dev("install", on_terminal=on_terminal)
            self.assertEqual(status, 3)
            self.assertIn("a mistake", told)
            self.assertIn("dev: failed: cmake --build --preset release", told)
            self.assertFalse([call for call in self.calls() if "--install" in call])

    def test_testing_shows_its_progress_where_standard_output_does_not(self):
        _, output, told = self.dev("test", on_terminal=True)
        self.assertIn("\r\x1b[KStart 1: first\r\x1b[K", told)
        self.assertEqual(output, "Start 1: first\n0 passed, 0 failed\n")
        _, output, told = self.dev("test")
        self.assertNotIn("Start 1", told)
        self.assertEqual(output, "Start 1: first\n0 passed, 0 failed\n")


if __name__ == "__main__":
    unittest.main()
