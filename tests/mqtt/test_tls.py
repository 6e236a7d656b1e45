"""mqtts://: a broker whose certificate the client's authorities vouch for serves requests; one
they do not, or one for another host name, is refused with a BusError naming the host."""

import subprocess

import pytest

from .conftest import Mosquitto


def _openssl(*args, cwd):
    subprocess.run(["openssl", *args], cwd=str(cwd), check=True, capture_output=True)


def _authority(folder, name):
    _openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=" + name,
             "-keyout", name + ".key", "-out", name + ".pem", cwd=folder)  # fmt: skip
    return folder / (name + ".pem")


@pytest.fixture(scope="module")
def pki(tmp_path_factory):
    folder = tmp_path_factory.mktemp("pki")
    _authority(folder, "ca")
    _authority(folder, "other-ca")
    (folder / "san.cnf").write_text("subjectAltName=DNS:localhost\n")
    _openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost", "-keyout", "server.key",
             "-out", "server.csr", cwd=folder)  # fmt: skip
    _openssl("x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key", "-CAcreateserial",
             "-days", "2", "-extfile", "san.cnf", "-out", "server.pem", cwd=folder)  # fmt: skip
    return folder


@pytest.fixture
def tls_broker(tmp_path, pki):
    broker = Mosquitto(
        tmp_path,
        ["allow_anonymous true", "cafile {}".format(pki / "ca.pem"), "certfile {}".format(pki / "server.pem"),
         "keyfile {}".format(pki / "server.key"), "tls_version tlsv1.2"],
    )  # fmt: skip
    yield broker
    broker.stop()


def _connect(port, host_name, cafile):
    from pymqlink import SolClient

    client = SolClient()
    url = "mqtts://{}:{}?cafile={}".format(host_name, port, cafile)
    client.connect(host=url, vpn="", user="", password="tls-s3cret", clientname="t", connect_timeout_ms=3000)
    return client


def test_a_trusted_broker_serves_requests_over_tls(tls_broker, pki):
    import pymqlink

    echo = pymqlink.EchoService(
        "mqtts://localhost:{}?cafile={}".format(tls_broker.port, pki / "ca.pem"), "svc/>"
    )
    client = _connect(tls_broker.port, "localhost", pki / "ca.pem")
    try:
        assert client.request("svc/echo", {"n": 1}, timeout=3000) is not None
    finally:
        client.disconnect()
        echo.close()


@pytest.mark.parametrize("host_name,authority", [("localhost", "other-ca.pem"), ("127.0.0.1", "ca.pem")])
def test_an_untrusted_certificate_or_another_host_name_is_refused(tls_broker, pki, host_name, authority):
    from pymqlink import BusError

    with pytest.raises(BusError) as refused:
        _connect(tls_broker.port, host_name, pki / authority)
    assert "{}:{}".format(host_name, tls_broker.port) in str(refused.value)
    assert "tls-s3cret" not in str(refused.value)
