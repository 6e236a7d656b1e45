import os
from typing import Optional, Union

class CASignError(RuntimeError):
    """Signing was asked of an inactive certificate, or OpenSSL failed while signing."""

class PyTWCASign:
    def __init__(
        self,
        ca_path: Union[str, bytes, os.PathLike[str], os.PathLike[bytes]],
        ca_password: Union[str, bytes],
        person_id: str,
        public_ip: Optional[str],
        store: int = 0,
    ) -> None: ...
    def is_activate(self) -> bool: ...
    def sign(self) -> str: ...
    def get_sign(self, plain_text: str) -> str: ...
    @property
    def person_id(self) -> str: ...
    @property
    def public_ip(self) -> str: ...
    @property
    def activation_error(self) -> str: ...
    @property
    def subject(self) -> str: ...

def issue_demo_certificate(
    path: Union[str, bytes, os.PathLike[str], os.PathLike[bytes]],
    password: str,
    person_id: str,
    days: int = 30,
) -> str:
    """Write a PKCS#12 file for person_id from the demo authority (paper trading only); returns the path."""

def demo_authority_pem() -> str:
    """The demo authority's certificate in PEM, the same in every process."""
