"""`python -m brixdebug`."""

import sys

from brixdebug import main

if __name__ == "__main__":
    sys.exit(main())
