"""Signatures of Windows programs and packages."""

from __future__ import annotations

import os
from pathlib import Path

import project
from project import Failure


class Signing:
    """Signatures of Windows programs (Authenticode), by osslsigncode."""

    def __init__(self, certificate: Path, key: Path, time_stamp: str | None) -> None:
        for path in (certificate, key):
            if not path.is_file():
                raise Failure(f"{path} does not exist")
        self._sign = [
            "osslsigncode", "sign", "-h", "sha256", "-certs", os.fspath(certificate.resolve()),
            "-key", os.fspath(key.resolve()), "-n", project.NAME,
        ]
        if time_stamp:
            # Without a time stamp, a signature expires with its certificate.
            self._sign += ["-ts", time_stamp]

    def __call__(self, program: Path) -> None:
        signed = program.with_suffix(".signed")
        project.run(*self._sign, "-in", program, "-out", signed)
        os.replace(signed, program)
