"""What the host's software helper commands do; see ../README.md."""
