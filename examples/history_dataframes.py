"""History and positions as pandas DataFrames (pip install 'quorvex[pandas]').

Run: python examples/history_dataframes.py
"""

from quorvex import Client
from quorvex.paper import DEMO


def main() -> None:
    with Client.paper(market_start="09:00", clock_speed=10) as client:
        client.login_api_key(DEMO.api_key, DEMO.api_secret)
        bars = client.kbars("2330").df()  # one-minute bars; ts in Taipei time
        print(bars.tail())
        ticks = client.ticks("TXF", last=5).df()
        print(ticks[["ts", "close", "volume", "bid_price", "ask_price"]])
        snapshots = client.snapshots(["2330", "2317", "TXF"]).df()
        print(snapshots[["code", "close", "change_rate", "total_volume"]])
        print(client.daily_quotes().df().nlargest(5, "volume")[["code", "close", "volume"]])
        print(client.scanners("VolumeRank", count=5).df()[["code", "name", "close", "rank_value"]])


if __name__ == "__main__":
    main()
