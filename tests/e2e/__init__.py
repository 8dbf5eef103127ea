"""End-to-end tests: the real executable against real servers and real folders."""
