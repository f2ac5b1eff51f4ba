"""`python -m brixdebug`."""

from brixdebug.commandline import main

if __name__ == "__main__":
    main()
