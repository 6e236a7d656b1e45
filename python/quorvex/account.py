"""Trading accounts of a person at the broker."""

from typing import Any, Union

from pydantic import BeforeValidator
from typing_extensions import Annotated

from quorvex.common import BaseModel
from quorvex.constant import AccountType

__all__ = ["Account", "AccountType", "AnyAccount", "FutureAccount", "StockAccount"]


class Account(BaseModel):
    """One account; ``broker_id`` followed by ``account_id`` identifies it at the broker."""

    account_type: AccountType
    person_id: str = ""
    broker_id: str
    account_id: str
    signed: bool = False
    username: str = ""

    def astype(self) -> "Account":
        """The same account as ``StockAccount``, ``FutureAccount`` or plain ``Account``."""
        target = _ACCOUNT_CLASS.get(self.account_type, Account)
        if type(self) is target:
            return self
        return target(**self.model_dump())


class StockAccount(Account):
    account_type: AccountType = AccountType.Stock


class FutureAccount(Account):
    account_type: AccountType = AccountType.Future


_ACCOUNT_CLASS = {AccountType.Stock: StockAccount, AccountType.Future: FutureAccount}


def _account_record(value: Any) -> Union[Account, Any]:
    # A dict becomes the account class its type names, so records round-trip through dict().
    if isinstance(value, dict):
        account_type = value.get("account_type")
        cls = _ACCOUNT_CLASS.get(account_type, Account) if isinstance(account_type, str) else Account
        return cls(**value)
    return value


AnyAccount = Annotated[Account, BeforeValidator(_account_record)]
