"""A metrics parser as strict as its strictest consumer.

node_exporter and windows_exporter read Prometheus' text format; windows_exporter drops the whole file if
it finds the byte-order mark of another encoding, a timestamp after a value or a duplicate sample.
OpenMetrics also requires names to end with their UNIT, adjacent lines for each metric, and a final EOF.
"""

import re
from dataclasses import dataclass, field

_SAMPLE = re.compile(r'([a-z_:][a-z0-9_:]*)\{((?:[a-z_]+="(?:[^"\\]|\\["\\n])*",?)*)\} (-?\d+)')
_LABEL = re.compile(r'([a-z_]+)="((?:[^"\\]|\\["\\n])*)"')
_COMMENT = re.compile(r"# (TYPE|UNIT|HELP) ([a-z_]+) (.+)")
_ESCAPED = {"\\\\": "\\", '\\"': '"', "\\n": "\n"}


@dataclass
class Metrics:
    """Values by name and labels, and the TYPE, UNIT and HELP of each name."""

    samples: dict = field(default_factory=dict)
    said: dict = field(default_factory=dict)

    def value(self, name, **labels):
        """Returns the only sample with this name and these labels, or None."""
        found = [value for (one, its), value in self.samples.items()
                 if one == f"kydloguploader_{name}" and labels.items() <= dict(its).items()]
        assert len(found) <= 1, found
        return found[0] if found else None

    def accounts(self, name):
        return {dict(labels)["account"]: value for (one, labels), value in self.samples.items()
                if one == f"kydloguploader_account_{name}"}


def read(content: bytes) -> Metrics:
    text = content.decode("utf-8")  # fails on invalid UTF-8
    assert not text.startswith("\ufeff") and "\r" not in text and "\0" not in text
    assert text.endswith("\n# EOF\n")
    metrics, current, seen = Metrics(), None, set()
    for line in text.removesuffix("# EOF\n").removesuffix("\n").split("\n"):
        comment = _COMMENT.fullmatch(line)
        if comment:
            keyword, name, rest = comment.groups()
            if keyword == "TYPE":
                assert name not in seen, f"{name} is declared twice"
                seen.add(name)
                current = name
            assert name == current, f"the lines of {name} are not adjacent"
            metrics.said.setdefault(name, {})[keyword] = rest
            continue
        sample = _SAMPLE.fullmatch(line)
        assert sample, line  # also if a timestamp follows the value
        name, labels, value = sample.groups()
        assert name == current and {"TYPE", "HELP"} <= metrics.said[name].keys()
        key = name, tuple((label, re.sub(r"\\.", lambda found: _ESCAPED[found[0]], its))
                          for label, its in _LABEL.findall(labels))
        assert key not in metrics.samples, f"{key} is a duplicate"
        metrics.samples[key] = int(value)
    for name, said in metrics.said.items():
        assert name.startswith("kydloguploader_") and said["TYPE"] == "gauge"
        assert not name.endswith(("_total", "_count", "_sum", "_bucket"))
        assert said["HELP"].endswith(".") and not {"\\", '"'} & set(said["HELP"])
        assert "UNIT" not in said or name.endswith("_" + said["UNIT"])
    return metrics
