"""Reads a file of metrics as strictly as its strictest consumer.

node_exporter and windows_exporter read Prometheus' text format; windows_exporter drops the whole file for
a byte-order mark of another encoding, for a time behind a value and for a sample that is there twice.
OpenMetrics in addition wants UNIT to be the end of the name, each metric's lines together, and EOF.
"""

import re
from dataclasses import dataclass, field

_SAMPLE = re.compile(r'([a-z_:][a-z0-9_:]*)\{((?:[a-z_]+="(?:[^"\\]|\\["\\n])*",?)*)\} (-?\d+)')
_LABEL = re.compile(r'([a-z_]+)="((?:[^"\\]|\\["\\n])*)"')
_COMMENT = re.compile(r"# (TYPE|UNIT|HELP) ([a-z_]+) (.+)")
_ESCAPED = {"\\\\": "\\", '\\"': '"', "\\n": "\n"}


@dataclass
class Metrics:
    """Values by name and labels, and what is said of each name."""

    samples: dict = field(default_factory=dict)
    said: dict = field(default_factory=dict)

    def value(self, name, **labels):
        """The one sample of that name with these labels, or None."""
        found = [value for (one, its), value in self.samples.items()
                 if one == f"kydloguploader_{name}" and labels.items() <= dict(its).items()]
        assert len(found) <= 1, found
        return found[0] if found else None

    def accounts(self, name):
        return {dict(labels)["account"]: value for (one, labels), value in self.samples.items()
                if one == f"kydloguploader_account_{name}"}


def read(content: bytes) -> Metrics:
    text = content.decode("utf-8")  # strictly
    assert not text.startswith("\ufeff") and "\r" not in text and "\0" not in text
    assert text.endswith("\n# EOF\n")
    metrics, current, seen = Metrics(), None, set()
    for line in text.removesuffix("# EOF\n").removesuffix("\n").split("\n"):
        comment = _COMMENT.fullmatch(line)
        if comment:
            keyword, name, rest = comment.groups()
            if keyword == "TYPE":
                assert name not in seen, f"{name} is there twice"
                seen.add(name)
                current = name
            assert name == current, f"{name} is not together"
            metrics.said.setdefault(name, {})[keyword] = rest
            continue
        sample = _SAMPLE.fullmatch(line)
        assert sample, line  # with a time behind the value, too
        name, labels, value = sample.groups()
        assert name == current and {"TYPE", "HELP"} <= metrics.said[name].keys()
        key = name, tuple((label, re.sub(r"\\.", lambda found: _ESCAPED[found[0]], its))
                          for label, its in _LABEL.findall(labels))
        assert key not in metrics.samples, f"{key} is there twice"
        metrics.samples[key] = int(value)
    for name, said in metrics.said.items():
        assert name.startswith("kydloguploader_") and said["TYPE"] == "gauge"
        assert not name.endswith(("_total", "_count", "_sum", "_bucket"))
        assert said["HELP"].endswith(".") and not {"\\", '"'} & set(said["HELP"])
        assert "UNIT" not in said or name.endswith("_" + said["UNIT"])
    return metrics
