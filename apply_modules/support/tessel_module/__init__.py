"""What the programs of configuration modules share."""
