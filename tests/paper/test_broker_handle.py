"""The Python handle of the paper broker: configuration, attachment, demo credentials."""

import pytest
from pydantic import ValidationError

from quorvex.paper import (
    DEMO,
    PaperAccount,
    PaperApiKey,
    PaperBroker,
    PaperBrokerConfig,
    PaperPerson,
)


@pytest.fixture
def small_config():
    config = PaperBrokerConfig.demo()
    config.contracts_size = 200
    return config


def test_secrets_stay_out_of_reprs():
    shown = repr(DEMO) + repr(PaperBrokerConfig.demo()) + str(PaperBrokerConfig.demo())
    assert "password" not in shown and "simulation_token" not in shown
    secrets = (DEMO.api_secret, DEMO.simulation_token, DEMO.second.api_secret, DEMO.second.simulation_token)
    assert not [secret for secret in secrets if secret in shown]


def test_attach_serves_the_bus_until_closed(small_config):
    with PaperBroker(small_config) as broker:
        assert not broker.attached and broker.host == ""
        broker.attach("handle-test")
        assert broker.attached and broker.host == "inproc://handle-test"
        assert "api/v1/auth/login" in broker.topics()
        assert "api/v1/data/contracts" in broker.topics()
        with pytest.raises(RuntimeError, match="already attached to bus 'handle-test'"):
            broker.attach("elsewhere")
    assert not broker.attached
    broker.close()  # idempotent
    assert repr(broker) == "PaperBroker(not attached)"


def _person(**fields):
    return PaperBrokerConfig(persons=[PaperPerson(person_id="X", **fields)])


@pytest.mark.parametrize(
    "config, message",
    [
        (
            _person(accounts=[PaperAccount(account_type="F", broker_id="9A95", account_id="1")]),
            "futures broker ids start with 'F'",
        ),
        (
            _person(api_keys=[PaperApiKey(key="k", secret="abc")]),
            "expected a 32-byte Ed25519 seed",
        ),
        (
            _person(api_keys=[PaperApiKey(key="k", public_key="12")]),
            "64 hex digits",
        ),
        (
            PaperBrokerConfig(persons=[PaperPerson(person_id="X"), PaperPerson(person_id="X")]),
            "configured twice",
        ),
    ],
    ids=["futures-broker-id", "short-secret", "short-public-key", "duplicate-person"],
)
def test_unusable_configurations_are_refused_with_the_reason(config, message):
    with pytest.raises(ValueError, match=message):
        PaperBroker(config)


def test_configuration_refuses_unknown_settings_and_account_types():
    with pytest.raises(ValidationError):
        PaperBrokerConfig(contract_size=10)
    with pytest.raises(ValidationError, match="'S' \\(stock\\) or 'F' \\(futures\\)"):
        PaperAccount(account_type="H", broker_id="9A95", account_id="1")
    with pytest.raises(TypeError, match="PaperBrokerConfig or None"):
        PaperBroker({"persons": []})
