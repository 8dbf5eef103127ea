"""The documents against the program: messages, samples, links, commands."""
