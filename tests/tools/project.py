"""A small project in a folder of its own, for tests of the scripts in tools/."""
import atexit
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
TOOLS = ROOT / "tools"


class Project:
    def __init__(self, files):
        self.root = Path(tempfile.mkdtemp(prefix="tarn-tools-"))
        atexit.register(shutil.rmtree, self.root)
        for name, text in files.items():
            self.write(name, text)

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def read(self, name):
        return (self.root / name).read_text(encoding="utf-8")

    def run(self, tool, *options):
        """Exit status and the lines printed."""
        done = subprocess.run([sys.executable, TOOLS / tool, *options, self.root], capture_output=True, text=True)
        assert done.stderr == "", done.stderr
        return done.returncode, done.stdout.splitlines()
