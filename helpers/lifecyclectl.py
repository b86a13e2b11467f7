#!/usr/bin/python3
"""Brings the host to a whole desired state, software and configuration; run without arguments for its command line."""
import sys

from tessel_lifecycle.apply_cli import main

sys.exit(main(sys.argv[1:]))
