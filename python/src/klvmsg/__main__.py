"""`python3 -m klvmsg` is the command `klvmsg`."""

import sys

from .cli import main

sys.exit(main())
