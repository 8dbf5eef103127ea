"""Bills of materials in CycloneDX 1.5 (JSON)."""

from __future__ import annotations

import json
import uuid
from collections.abc import Iterable
from datetime import datetime, timezone
from pathlib import Path
from typing import Any

import project
from linked import Component


def _licences(expression: str) -> list[dict[str, Any]]:
    """The format expects a single licence as an id, and anything else as an expression."""
    if " " in expression:
        return [{"expression": expression}]
    return [{"license": {"id": expression}}]


def _entry(component: Component) -> dict[str, Any]:
    entry: dict[str, Any] = {
        "type": "library",
        "bom-ref": component.purl,
        "name": component.name,
        "version": component.version,
        "licenses": _licences(component.licence),
        "purl": component.purl,
        "properties": [{"name": "kydloguploader:linkage", "value": component.linkage}],
    }
    if component.homepage:
        entry["externalReferences"] = [{"type": "website", "url": component.homepage}]
    if component.patches:
        entry["pedigree"] = {
            "patches": [
                {"type": "unofficial", "diff": {"url": f"cmake/cpprestsdk/{name}"}}
                for name in component.patches
            ]
        }
    return entry


def write(path: Path, product: str, components: Iterable[Component], purpose: str | None) -> None:
    """Writes the bill of a product. The same commit and components give the same bytes."""
    version, commit = project.version(), project.commit()
    root = f"{product}@{version}"
    entries = [_entry(component) for component in components]
    time = datetime.fromtimestamp(project.commit_time(), timezone.utc)
    # The format requires an identifier; this one depends only on the content.
    number = uuid.uuid5(uuid.NAMESPACE_URL, json.dumps([root, commit, entries], sort_keys=True))
    bill = {
        "bomFormat": "CycloneDX",
        "specVersion": "1.5",
        "serialNumber": f"urn:uuid:{number}",
        "version": 1,
        "metadata": {
            "timestamp": time.strftime("%Y-%m-%dT%H:%M:%SZ"),
            "component": {
                "type": "application",
                "bom-ref": root,
                "name": product,
                "version": version,
                **({"description": purpose} if purpose else {}),
                "publisher": project.PUBLISHER,
                "licenses": _licences("MIT"),
                "properties": [{"name": "kydloguploader:commit", "value": commit}],
            },
        },
        "components": entries,
        "dependencies": [
            {"ref": root, "dependsOn": [entry["bom-ref"] for entry in entries]},
            *({"ref": entry["bom-ref"]} for entry in entries),
        ],
    }
    path.write_text(json.dumps(bill, indent=2) + "\n", "utf-8")
