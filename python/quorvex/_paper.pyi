"""The paper broker for Python: BrokerCore serving an in-process bus, and the paper:// scheme.

Importing the module registers paper:// for every session of the process.
"""

from typing import Any, Dict, List, Optional

DEFAULT_BUS: str

class PaperBroker:
    """A broker built from a configuration dict (the demo one when None).

    Building generates the reference data; attach and close release the interpreter lock.
    """

    def __init__(self, config: Optional[Dict[str, Any]] = None) -> None: ...
    def attach(self, bus_name: str, *, vpn: str = "", user: str = "", password: str = "") -> None:
        """Serve the in-process bus of that name (clients reach it with inproc://NAME), or the
        bus at a host with a scheme (mqtt://HOST:PORT) with that login.
        RuntimeError when already attached or when the bus refuses."""
    def close(self) -> None:
        """Stop serving; the request being decided finishes first. Idempotent."""
    @property
    def attached(self) -> bool: ...
    @property
    def bus_name(self) -> str: ...
    def topics(self) -> List[str]:
        """Every topic the broker serves."""

def demo_config() -> Dict[str, Any]:
    """The demo configuration as a dict (API keys given by their public keys)."""

def demo_credentials() -> Dict[str, Dict[str, str]]:
    """The demo persons' credentials: {"demo": {...}, "second": {...}}."""

def register_paper_scheme() -> None:
    """Make paper://NAME reachable (done on import)."""
