"""`python -m brixdebug`."""

from brixdebug import main

if __name__ == "__main__":
    main()
