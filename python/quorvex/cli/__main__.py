"""`python -m quorvex.cli`: the same as the `quorvex` command."""

import sys

from quorvex.cli import main

sys.exit(main())
