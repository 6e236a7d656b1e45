"""The `quorvex` command line."""
import argparse
import sys
from typing import List, Optional

from quorvex._version import __version__


def _demo(args: argparse.Namespace) -> int:
    from quorvex import _wire

    print("quorvex %s" % __version__)
    sample = b"quorvex"
    encoded = _wire.b58encode(sample)
    print("native core loaded: base58(%r) = %s" % (sample, encoded.decode()))
    return 0 if _wire.b58decode(encoded) == sample else 1


def build_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="quorvex", description="Trading client core for the Taiwan market.")
    parser.add_argument("--version", action="version", version="quorvex %s" % __version__)
    sub = parser.add_subparsers(dest="command")
    demo = sub.add_parser("demo", help="run the whole system end to end on the embedded paper broker")
    demo.set_defaults(func=_demo)
    return parser


def main(argv: Optional[List[str]] = None) -> int:
    parser = build_parser()
    args = parser.parse_args(argv)
    if not getattr(args, "func", None):
        parser.print_help()
        return 2
    return args.func(args)


if __name__ == "__main__":
    sys.exit(main())
