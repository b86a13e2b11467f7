#!/usr/bin/python3
"""Changes and reports the host's software; run without arguments for its commands."""
import sys

from tessel_lifecycle.cli import main

sys.exit(main(sys.argv[1:]))
