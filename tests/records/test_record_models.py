import warnings

import pytest
from pydantic import ValidationError

from quorvex.account import Account, FutureAccount, StockAccount
from quorvex.constant import FetchStatus, Status
from quorvex.contracts import BaseContract, Stock
from quorvex.data import AccountBalance, CASign, Kbars, Margin, Ticks
from quorvex.order import Order, OrderStatus, Trade
from quorvex.position import ProfitLossSummaryTotal, ProfitLossTotal, StockPosition
from quorvex.reserve import ErrorResponse, ReserveOrder
from record_examples import ORDER, RECORDS, TSMC, TXF


@pytest.mark.parametrize("record", RECORDS, ids=lambda r: type(r).__name__)
def test_round_trip_through_dict(record):
    with warnings.catch_warnings():
        warnings.simplefilter("error")  # dict() must not go through pydantic's deprecated path
        fields = record.dict()
    assert type(record)(**fields) == record


def test_dict_gives_plain_nested_dicts_and_enum_members():
    fields = Trade(contract=TSMC, order=ORDER, status=OrderStatus()).dict()
    assert list(fields) == ["contract", "order", "status"]
    assert fields["contract"]["limit_up"] == 1100.0  # the Stock's own fields survive
    assert fields["order"]["account"]["broker_id"] == "9A95"
    assert fields["order"]["action"] is ORDER.action


def test_held_records_keep_their_class_after_a_round_trip():
    trade = Trade(**Trade(contract=TXF, order=ORDER, status=OrderStatus()).dict())
    assert type(trade.contract).__name__ == "Future"
    assert type(trade.order.account) is StockAccount


@pytest.mark.parametrize(
    "build,field",
    [
        (lambda: Order(action="Hold", price=1, quantity=1), "action"),
        (lambda: Order(action="Buy", price="cheap", quantity=1), "price"),
        (lambda: Order(action="Buy", price=1, quantity=0), "quantity"),
        (lambda: Order(action="Buy", price=1, quantity=1, ordertype="IOC"), "ordertype"),
        (lambda: Stock(exchange="NYSE", code="1"), "exchange"),
        (lambda: Account(account_type="S", broker_id="1"), "account_id"),
        (lambda: Margin(equity="lots"), "equity"),
        (lambda: StockPosition(id=1, code="2330", direction="Buy", cond="Credit"), "cond"),
        (lambda: Trade(contract=TSMC, order=ORDER, status=OrderStatus(), note=1), "note"),
        (lambda: ReserveOrder(share=0), "share"),
        (lambda: Order(action="Buy", price=1, quantity=1, account={"account_type": ["S"]}), "account_type"),
        (lambda: Trade(contract={"security_type": {}}, order=ORDER, status=OrderStatus()), "exchange"),
    ],
)
def test_bad_values_name_the_field(build, field):
    with pytest.raises(ValidationError) as caught:
        build()
    assert field in str(caught.value)


def test_assignment_is_validated():
    status = OrderStatus()
    status.status = "Cancelled"
    assert status.status is Status.Cancelled
    with pytest.raises(ValidationError, match="status"):
        status.status = "Gone"


@pytest.mark.parametrize("account_type,cls", [("S", StockAccount), ("F", FutureAccount), ("H", Account)])
def test_astype_picks_the_class_of_the_account_type(account_type, cls):
    account = Account(account_type=account_type, person_id="A1", broker_id="B", account_id="1")
    typed = account.astype()
    assert type(typed) is cls
    assert typed.dict() == account.dict()
    assert typed.astype() is typed


@pytest.mark.parametrize(
    "placeholder,fill",
    [
        (AccountBalance(status=FetchStatus.Fetching), {"acc_balance": 5, "date": "d", "errmsg": ""}),
        (Margin(status=FetchStatus.Fetching), {"equity": 1, "unknown_margin_field": 2}),
        (
            ProfitLossSummaryTotal(status=FetchStatus.Fetching),
            {"profitloss_summary": [], "total": ProfitLossTotal()},
        ),
    ],
)
def test_lazy_setter_fills_in_place_and_marks_fetched(placeholder, fill):
    placeholder.lazy_setter(**fill)
    assert placeholder.status is FetchStatus.Fetched
    for name, value in fill.items():
        assert placeholder[name] == value


def test_lazy_setter_keeps_an_explicit_status_and_leaves_records_without_one():
    balance = AccountBalance(status=FetchStatus.Fetching)
    balance.lazy_setter(acc_balance=1, status=FetchStatus.Fetching)
    assert balance.status is FetchStatus.Fetching
    status = OrderStatus(status=Status.Submitted)
    status.lazy_setter(msg="ok")
    assert status.status is Status.Submitted
    bars = Kbars()
    bars.lazy_setter(ts=[1], Close=[2.0])
    assert bars.Close == [2.0] and "status" not in bars.keys()  # noqa: SIM118 (iterating a model yields pairs)


def test_lazy_setter_validates_values_and_changes_nothing_when_one_is_refused():
    ticks = Ticks(volume=[3])
    with pytest.raises(ValidationError, match="close"):
        ticks.lazy_setter(volume=[1], close=["high"])
    assert ticks.volume == [3] and ticks.close == []


def test_item_access_and_mapping_unpacking():
    position = StockPosition(id=7, code="2330", direction="Sell", extra_field=1)
    assert position["code"] == "2330" and position["extra_field"] == 1
    assert {**position}["direction"] == "Sell"
    with pytest.raises(KeyError, match="no field 'nope'"):
        position["nope"]


def test_base_contract_reduces_a_contract_to_its_identity():
    assert BaseContract(**TSMC.dict()).dict() == {"security_type": "STK", "exchange": "TSE", "code": "2330"}


def test_small_records_take_their_fields_by_position():
    assert ErrorResponse(404, "missing") == ErrorResponse(status_code=404, detail="missing")
    signed = CASign("sig", "text")
    assert ReserveOrder(1000, signed).ca == signed
    with pytest.raises(TypeError, match="both by position and by keyword"):
        ErrorResponse(404, status_code=405)
    with pytest.raises(TypeError, match="at most 2 positional"):
        CASign("a", "b", "c")


SECRET = "S3CR3T-SIGNATURE"


@pytest.mark.parametrize(
    "record",
    [
        Order(action="Buy", price=1, quantity=1, ca=SECRET),
        CASign(signature=SECRET, plain_text="t"),
        ReserveOrder(1, CASign(SECRET, "t")),
    ],
    ids=lambda r: type(r).__name__,
)
def test_signatures_stay_out_of_reprs(record):
    assert SECRET not in repr(record) and SECRET not in str(record)
    assert SECRET in str(record.dict())
