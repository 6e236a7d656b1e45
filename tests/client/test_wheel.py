"""The wheel: built and repaired by scripts/wheel, installed into a fresh virtual environment,
where the README's example runs with the libraries the wheel carries."""

import os
import pathlib
import re
import subprocess
import venv
import zipfile

ROOT = pathlib.Path(__file__).resolve().parents[2]


def _run(args, **kwargs):
    done = subprocess.run([str(a) for a in args], capture_output=True, text=True, timeout=600, **kwargs)
    assert done.returncode == 0, "{}\n{}\n{}".format(args, done.stdout[-3000:], done.stderr[-3000:])
    return done


def test_the_wheel_bundles_its_libraries_and_runs_the_readme_example(tmp_path):
    built = _run([ROOT / "scripts" / "wheel", tmp_path / "dist"], cwd=str(ROOT))
    wheel = pathlib.Path(built.stdout.strip().splitlines()[-1])
    names = zipfile.ZipFile(wheel).namelist()
    for library in ("libsodium", "libcrypto"):
        assert any(re.match(r"quorvex\.libs/{}[-.]".format(library), n) for n in names), names

    venv.create(str(tmp_path / "env"), with_pip=True)
    python = tmp_path / "env" / "bin" / "python"
    _run([python, "-m", "pip", "install", "-q", str(wheel)])

    readme = (ROOT / "README.md").read_text(encoding="utf-8")
    [example] = re.findall(r"```python\n(.*?)```", readme, flags=re.S)
    (tmp_path / "example.py").write_text(example, encoding="utf-8")
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "VIRTUAL_ENV")}
    env["QUORVEX_CONTRACTS_DIR"] = str(tmp_path / "contracts")
    ran = _run([python, "example.py"], cwd=str(tmp_path), env=env)
    assert "Filled 1 of 1" in ran.stdout and "Cancelled" in ran.stdout, ran.stdout
