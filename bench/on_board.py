"""Runs a Python script inside one simulated board run and returns what it wrote.

The script gets its arguments, then the path of a JSON file to write its
results to (the last argument); the board (sim/run-board, root) is torn down
before the results are read.
"""
import json
import os
import subprocess
import tempfile

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))


def run_on_board(script_text, build, scenario, args):
    with tempfile.TemporaryDirectory() as tmp:
        script, out = os.path.join(tmp, "inside.py"), os.path.join(tmp, "result.json")
        with open(script, "w") as f:
            f.write(script_text)
        subprocess.run([os.path.join(REPO, "sim", "run-board"), "--build-dir", build,
                        "--scenario", scenario, "--", "/usr/bin/python3", script] +
                       [str(a) for a in args] + [out], check=True)
        with open(out) as f:
            return json.load(f)
