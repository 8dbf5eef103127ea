"""The text that a run appends to the daily result file."""

import re

_TIME = re.compile(r"   (\d{4}:\d\d:\d\d \d\d:\d\d:\d\d)\r\n")


def block(time, *, total, target, not_subject, success, error, log_dir=None, errors=()):
    """The complete text of one run."""
    lines = [
        "<< Upload Result >>",
        " [Execution time]",
        f"   {time}",
        "",
        " [User folder information]",
        "   Number of folders (users)",
        f"      Total                   : {total}",
        f"      Upload target           : {target}",
        f"      Not subject to upload   : {not_subject}",
        "   Number of log files",
        f"      Upload success  : {success}",
        f"      Upload error    : {error}",
        "",
    ]
    if errors:
        lines += [
            " [Error file information]",
            f"   Upload folder path : {log_dir}",
            "   Upload errors occurred [Folder / Number of errors]",
        ]
        lines += [f"           [{name} / {count}]" for name, count in errors]
    return "\r\n".join([*lines, "", "", ""])


def times(content):
    return _TIME.findall(content.decode("utf-16-le"))
