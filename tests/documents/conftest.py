"""Options of the document tests."""

from pathlib import Path

import pytest

from .markdown import ROOT


def pytest_addoption(parser):
    parser.addoption("--bin", type=Path, default=ROOT / "build/linux/bin", help="folder of the programs")


@pytest.fixture(scope="session")
def programs(request):
    folder = request.config.getoption("--bin").resolve()
    for name in ("KydLogUploader", "KydUploadStatus", "keyward-seal"):
        if not (folder / name).exists():
            pytest.fail(f"{folder / name} is missing: build first", pytrace=False)
    return folder
