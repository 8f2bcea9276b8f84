"""The example of the Python page runs as printed there."""
import os
import subprocess
import sys


def test_page_example(child_env):
    example = os.path.join(os.path.dirname(__file__), "..", "examples", "head.py")
    run = subprocess.run([sys.executable, example], capture_output=True, text=True, timeout=60, env=child_env)
    assert (run.returncode, run.stderr) == (0, "")
    assert run.stdout == "speaking: ---Head -> Speaker eStrong null 0<br />\nafter: ---Head<br />\n"
    page = open(os.path.join(os.path.dirname(__file__), "..", "..", "docs", "python.md")).read()
    assert open(example).read() in page
