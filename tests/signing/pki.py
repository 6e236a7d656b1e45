"""A throw-away certificate authority that issues persons' PKCS#12 files."""

import datetime

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec, rsa
from cryptography.hazmat.primitives.serialization import pkcs12
from cryptography.x509.oid import NameOID

PERSON = "A123456789"
PASSWORD = "Tr0ub4dor&3"
PUBLIC_IP = "203.0.113.7"


def _name(**attrs):
    oids = {"C": NameOID.COUNTRY_NAME, "CN": NameOID.COMMON_NAME, "serialNumber": NameOID.SERIAL_NUMBER}
    return x509.Name([x509.NameAttribute(oids[k], v) for k, v in attrs.items()])


class Authority:
    def __init__(self, folder):
        self.folder = folder
        self.key = rsa.generate_private_key(public_exponent=65537, key_size=2048)
        now = datetime.datetime.now(datetime.timezone.utc)
        name = _name(C="TW", CN="Throw-away Root")
        self.cert = (
            x509.CertificateBuilder()
            .subject_name(name)
            .issuer_name(name)
            .public_key(self.key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(now - datetime.timedelta(days=1))
            .not_valid_after(now + datetime.timedelta(days=30))
            .add_extension(x509.BasicConstraints(ca=True, path_length=None), critical=True)
            .sign(self.key, hashes.SHA256())
        )
        self.pem_path = folder / "root.pem"
        self.pem_path.write_bytes(self.cert.public_bytes(serialization.Encoding.PEM))

    def issue(self, file_name, password=PASSWORD, key=None, valid_from=-1.0, valid_to=30.0, **subject):
        """Writes a PKCS#12 file for a person; validity offsets are in days from now."""
        key = key or ec.generate_private_key(ec.SECP256R1())
        now = datetime.datetime.now(datetime.timezone.utc)
        cert = (
            x509.CertificateBuilder()
            .subject_name(_name(**(subject or {"CN": PERSON})))
            .issuer_name(self.cert.subject)
            .public_key(key.public_key())
            .serial_number(x509.random_serial_number())
            .not_valid_before(now + datetime.timedelta(days=valid_from))
            .not_valid_after(now + datetime.timedelta(days=valid_to))
            .sign(self.key, hashes.SHA256())
        )
        encryption = (
            serialization.BestAvailableEncryption(password.encode())
            if password
            else serialization.NoEncryption()
        )
        data = pkcs12.serialize_key_and_certificates(b"person", key, cert, [self.cert], encryption)
        path = self.folder / file_name
        path.write_bytes(data)
        return path
