"""Quote routing: typed stock ticks through SolaceAPI.on_msg_wrap to a no-op handler.

Run: PYTHONPATH=python python bench/quote_routing.py
Prints messages per second and ratios against the baseline, all measured in this process and
run: building the same records with TickSTKv1.from_content in a tight loop, without routing.
One thread, so one core. Best of three rounds.
"""

import time

from loguru import logger

import quorvex.backend.solace.api as api_module
from quorvex.backend.solace.tick import TickSTKv1

MESSAGES, ROUNDS = 200_000, 3
CODES = ["%04d" % (1101 + n) for n in range(100)]


class QuietSession:
    """The least a SolaceAPI needs at construction; the benchmark sends nothing."""

    sol = False
    _token = ""  # never logged in: the exit hook's logout has nothing to do

    def __getattr__(self, name):
        if name.startswith("set_"):
            return lambda *args: None
        raise AttributeError(name)


def tick_content(code, n):
    return [
        code,
        1704157201500000 + n,
        590.0,
        595.0,
        596.0,
        589.0,
        593.27,
        1785000.0,
        4155000000.0,
        3,
        7004 + n,
        1,
        2,
        2.0,
        0.34,
        3500,
        3504,
        812,
        790,
        0,
        0,
        False,
        False,
    ]


def make_api():
    api_module.SolClient = QuietSession
    if not hasattr(api_module.SolaceAPI, "logout"):
        api_module.SolaceAPI.logout = lambda self: None
    api = api_module.SolaceAPI("inproc://bench", "vpn", "user", "password", False)
    api.set_on_tick_stk_v1_callback(lambda exchange, tick: None)
    return api


def best_rate(run, count):
    times = []
    for _ in range(ROUNDS):
        start = time.perf_counter()
        run()
        times.append(time.perf_counter() - start)
    return count / min(times)


def main():
    messages = [
        ("TIC/v1/STK/D/TSE/" + code, {"content": tick_content(code, n)})
        for n, code in enumerate(CODES * (MESSAGES // len(CODES)))
    ]
    contents = [message["content"] for _, message in messages]
    api = make_api()
    wrap = api.on_msg_wrap

    def build_only():
        from_content = TickSTKv1.from_content
        for content in contents:
            from_content(*content)

    def routed():
        for topic, message in messages:
            wrap(topic, message)

    def routed_reading_fields():
        api.set_on_tick_stk_v1_callback(lambda exchange, tick: (tick.close, tick.volume, tick.datetime))
        try:
            routed()
        finally:
            api.set_on_tick_stk_v1_callback(lambda exchange, tick: None)

    tenth = messages[: MESSAGES // 10]

    def catcher_per_message():
        route = api.on_quote_wrap
        for topic, message in tenth:
            with logger.catch():
                route(topic, message)

    base = best_rate(build_only, MESSAGES)
    print("baseline: TickSTKv1.from_content in a loop  %9.0f /s" % base)
    for name, run, count in (
        ("on_msg_wrap -> no-op handler", routed, MESSAGES),
        ("on_msg_wrap -> handler reading 3 fields", routed_reading_fields, MESSAGES),
        ("a logging catcher made per message", catcher_per_message, len(tenth)),
    ):
        rate = best_rate(run, count)
        print("%-42s %9.0f /s  ratio %.2f" % (name, rate, rate / base))


if __name__ == "__main__":
    main()
