"""A Mosquitto broker of the test's own on a free loopback port, stopped at the end."""

import getpass
import os
import shutil
import socket
import subprocess
import time
from pathlib import Path
from typing import Iterator, List

import pytest

MOSQUITTO = shutil.which("mosquitto") or "/usr/sbin/mosquitto"


def _free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Mosquitto:
    """One broker process; `host` is its mqtt:// address."""

    def __init__(self, folder: Path, extra: List[str], persistence: bool = False) -> None:
        if not os.path.exists(MOSQUITTO):
            pytest.skip("mosquitto is not installed; scripts/bootstrap installs it")
        self.port = _free_port()
        self.host = "mqtt://127.0.0.1:{}".format(self.port)
        self.conf = folder / "mosquitto.conf"
        lines = [
            # Started as root it would switch to a user that cannot read the test's folder.
            "user {}".format(getpass.getuser()),
            "listener {} 127.0.0.1".format(self.port),
            "persistence {}".format("true" if persistence else "false"),
            "set_tcp_nodelay true",  # else a reply followed by a report waits for a delayed ack
            "persistence_location {}/".format(folder),
            "log_dest stderr",
            "log_type error",
        ] + extra
        self.conf.write_text("\n".join(lines) + "\n")
        self.start()

    def start(self) -> None:
        self.process = subprocess.Popen([MOSQUITTO, "-c", str(self.conf)], stderr=subprocess.PIPE)
        deadline = time.monotonic() + 10
        while True:
            try:
                socket.create_connection(("127.0.0.1", self.port), timeout=0.2).close()
                return
            except OSError:
                if self.process.poll() is not None or time.monotonic() > deadline:
                    self.stop()
                    raise RuntimeError(
                        "mosquitto did not start: {!r}".format(self.process.stderr.read())
                    ) from None
                time.sleep(0.05)

    def stop(self) -> None:
        if self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(timeout=5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()


@pytest.fixture
def mosquitto(tmp_path) -> Iterator[Mosquitto]:
    broker = Mosquitto(tmp_path, ["allow_anonymous true"])
    yield broker
    broker.stop()
