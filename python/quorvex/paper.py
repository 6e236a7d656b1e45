"""The embedded paper broker: its configuration, its demo credentials and a handle to run one.

Connecting a session to ``paper://NAME`` starts the broker of the in-process bus NAME with
the demo configuration; nothing else needs starting. To run a broker of your own
configuration, build it and attach it to a bus, and connect to ``inproc://NAME``::

    from quorvex.paper import PaperBroker, PaperBrokerConfig, DEMO

    config = PaperBrokerConfig.demo()
    config.contracts_size = 20000
    with PaperBroker(config) as broker:
        broker.attach("desk")
        api = SolaceAPI("inproc://desk", "vpn", "user", "password", False)
        api.login(DEMO.person_id, DEMO.password)

Importing this module also makes ``paper://`` reachable for every session of the process.
"""

from typing import Any, Dict, List, Optional

from pydantic import BaseModel, ConfigDict, Field, field_validator

from quorvex import _paper
from quorvex.constant import AccountType

__all__ = [
    "DEFAULT_BUS",
    "DEMO",
    "DemoCredentials",
    "DemoPerson",
    "PaperAccount",
    "PaperApiKey",
    "PaperBroker",
    "PaperBrokerConfig",
    "PaperPerson",
]

DEFAULT_BUS: str = _paper.DEFAULT_BUS


class _Config(BaseModel):
    # A misspelt setting must fail loudly, not fall back to a default.
    model_config = ConfigDict(extra="forbid", validate_assignment=True)


class PaperAccount(_Config):
    """One account of a person: ``S`` stock or ``F`` futures and options."""

    account_type: AccountType = AccountType.Stock
    broker_id: str
    account_id: str
    # Orders and reservations of live sessions must carry the holder's certificate signature.
    signed: bool = True
    opening_cash: float = Field(default=0.0, ge=0)  # TWD

    @field_validator("account_type")
    @classmethod
    def _stock_or_futures(cls, value: AccountType) -> AccountType:
        if value not in (AccountType.Stock, AccountType.Future):
            raise ValueError(
                "account_type must be 'S' (stock) or 'F' (futures), got {!r}".format(value.value)
            )
        return value


class PaperApiKey(_Config):
    """An API key: give its Base58 ``secret`` (the Ed25519 seed) or its hex ``public_key``."""

    key: str
    secret: str = Field(default="", repr=False)
    public_key: str = ""


class PaperPerson(_Config):
    person_id: str
    name: str = ""
    password: str = Field(default="", repr=False)
    api_keys: List[PaperApiKey] = []
    simulation_tokens: List[str] = Field(default=[], repr=False)
    accounts: List[PaperAccount] = []


class PaperBrokerConfig(_Config):
    """Persons, reference data size and seeds, clock speed, and the login time window."""

    persons: List[PaperPerson] = []
    contracts_size: int = Field(default=5000, ge=1)
    contracts_seed: int = Field(default=20260105, ge=0)
    # The reference data's trading day, YYYY-MM-DD; the broker clock's date when None.
    trading_day: Optional[str] = None
    seed: int = Field(default=20260105, ge=0)
    synthetic_liquidity: bool = True
    clock_speed: float = Field(default=1.0, gt=0)
    # Taipei time market time starts from, "YYYY-MM-DDTHH:MM[:SS]"; the broker clock's now when None.
    market_start: Optional[str] = None
    max_receive_window_ms: int = Field(default=60000, ge=1)
    ip_address: str = "127.0.0.1"

    @classmethod
    def demo(cls) -> "PaperBrokerConfig":
        """The configuration of ``paper://`` brokers: the two demo persons of ``DEMO``."""
        return cls(**_paper.demo_config())

    def wire(self) -> Dict[str, Any]:
        """The dict the broker is built from (secrets included: keep it out of logs)."""
        return self.model_dump(mode="json")


class PaperBroker:
    """A paper broker; ``attach(name)`` serves the in-process bus ``name`` until ``close()``.

    Building one generates its reference data; attaching and closing release the
    interpreter lock. Usable as a context manager, which closes it on exit.
    """

    def __init__(self, config: Optional[PaperBrokerConfig] = None) -> None:
        if config is not None and not isinstance(config, PaperBrokerConfig):
            raise TypeError(
                "PaperBroker expects a PaperBrokerConfig or None, got {}".format(type(config).__name__)
            )
        self._broker = _paper.PaperBroker(None if config is None else config.wire())

    def attach(
        self, bus_name: str = DEFAULT_BUS, *, vpn: str = "", user: str = "", password: str = ""
    ) -> "PaperBroker":
        """Serve the in-process bus ``bus_name``, or a network bus when ``bus_name`` is a host
        with a scheme (``mqtt://HOST:PORT``), logging in with ``user`` and ``password`` under the
        topic prefix ``vpn``. RuntimeError when already attached (close first)."""
        if not isinstance(bus_name, str) or not bus_name:
            raise ValueError("bus_name must be a non-empty str, got {!r}".format(bus_name))
        for name, value in (("vpn", vpn), ("user", user), ("password", password)):
            if not isinstance(value, str):
                raise TypeError("{} must be a str, got {}".format(name, type(value).__name__))
        self._broker.attach(bus_name, vpn=vpn, user=user, password=password)
        return self

    def close(self) -> None:
        """Stop serving; requests being decided finish first. The books stay. Idempotent."""
        self._broker.close()

    @property
    def attached(self) -> bool:
        return self._broker.attached

    @property
    def bus_name(self) -> str:
        """The bus served, empty when not attached."""
        return self._broker.bus_name

    @property
    def host(self) -> str:
        """The host to give a session to reach this broker: ``inproc://NAME``, or the network
        bus's host."""
        if not self._broker.attached:
            return ""
        name = self._broker.bus_name
        return name if "://" in name else "inproc://" + name

    def topics(self) -> List[str]:
        return self._broker.topics()

    def __enter__(self) -> "PaperBroker":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __repr__(self) -> str:
        where = "attached to {!r}".format(self.bus_name) if self.attached else "not attached"
        return "PaperBroker({})".format(where)


class DemoPerson(BaseModel):
    """The credentials of one demo person (documented, so safe to show except in logs)."""

    model_config = ConfigDict(frozen=True)

    person_id: str
    password: str = Field(repr=False)
    api_key: str
    api_secret: str = Field(repr=False)
    simulation_token: str = Field(repr=False)
    stock_account: Dict[str, Any]
    futures_account: Dict[str, Any]


class DemoCredentials(DemoPerson):
    """``DEMO``: the demo person (signed accounts) and a second person for isolation."""

    second: DemoPerson
    host: str = "paper://"


def _demo() -> DemoCredentials:
    credentials = _paper.demo_credentials()
    config = _paper.demo_config()

    def person(entry: Dict[str, Any]) -> Dict[str, Any]:
        found = next(p for p in config["persons"] if p["person_id"] == entry["person_id"])

        def account(kind: str) -> Dict[str, Any]:
            raw = next(a for a in found["accounts"] if a["account_type"] == kind)
            return {
                "account_type": kind,
                "person_id": found["person_id"],
                "broker_id": raw["broker_id"],
                "account_id": raw["account_id"],
                "signed": raw["signed"],
                "username": found["name"],
            }

        return dict(entry, stock_account=account("S"), futures_account=account("F"))

    return DemoCredentials(second=DemoPerson(**person(credentials["second"])), **person(credentials["demo"]))


DEMO: DemoCredentials = _demo()
