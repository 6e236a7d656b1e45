"""Start-up: importing the api module against starting the interpreter.

Run: PYTHONPATH=python python bench/import_time.py [RUNS]

Times `python -c "import quorvex.backend.solace.api"` and the baseline `python -c pass`, each
in a fresh process, alternately, RUNS times each (default 20); prints the medians and their
ratio (target at most 8x).
"""

import statistics
import subprocess
import sys
import time


def seconds(code):
    started = time.perf_counter()
    subprocess.run([sys.executable, "-c", code], check=True)
    return time.perf_counter() - started


def main(runs):
    bare, api = [], []
    for _ in range(runs):
        bare.append(seconds("pass"))
        api.append(seconds("import quorvex.backend.solace.api"))
    b, a = statistics.median(bare), statistics.median(api)
    print("| python -c pass | import quorvex.backend.solace.api | ratio |")
    print("|---|---|---|")
    print("| {:.1f} ms | {:.1f} ms | {:.1f}x |".format(b * 1000, a * 1000, a / b))


if __name__ == "__main__":
    main(int(sys.argv[1]) if len(sys.argv) > 1 else 20)
