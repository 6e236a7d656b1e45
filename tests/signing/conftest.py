"""Certificates made fresh for each test session, and an independent check of signatures."""

import base64
import subprocess

import pytest
from cryptography.hazmat.primitives.asymmetric import rsa

from .pki import Authority


@pytest.fixture(scope="session")
def authority(tmp_path_factory):
    return Authority(tmp_path_factory.mktemp("pki"))


@pytest.fixture(scope="session")
def person_file(authority):
    # RSA here; the other files use EC keys, so both key kinds are signed with.
    return authority.issue("person.p12", key=rsa.generate_private_key(public_exponent=65537, key_size=2048))


@pytest.fixture
def openssl_verify(authority, tmp_path):
    """Checks a Base64 CMS signature with the openssl command against the throw-away root;
    returns (verified, signed content). With `content`, the signature must be detached."""

    def run(signature, content=None):
        der = tmp_path / "sig.der"
        der.write_bytes(base64.b64decode(signature, validate=True))
        cmd = [
            "openssl",
            "cms",
            "-verify",
            "-binary",
            "-inform",
            "DER",
            "-in",
            str(der),
            "-CAfile",
            str(authority.pem_path),
        ]
        if content is not None:
            data = tmp_path / "content.bin"
            data.write_bytes(content.encode("utf-8"))
            cmd += ["-content", str(data)]
        done = subprocess.run(cmd, capture_output=True, check=False)
        return done.returncode == 0, done.stdout.decode("utf-8")

    return run
