"""``python -m zelpy``: the same command as the installed ``zelpy``."""

import sys

from zelpy.cli import main

if __name__ == "__main__":
    sys.exit(main())
