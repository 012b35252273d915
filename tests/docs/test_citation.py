# SPDX-License-Identifier: Apache-2.0
"""CITATION.cff: the version is the package's own, and nothing is claimed that does not exist."""

import tomllib
from pathlib import Path

import pytest

yaml = pytest.importorskip("yaml")

TREE = Path(__file__).resolve().parents[2]
# What version 1.2.0 of the format asks for, and of the rest what the file makes use of.
REQUIRED = {"cff-version", "message", "title", "authors"}
OPTIONAL = {"type", "abstract", "version", "license", "keywords"}


@pytest.fixture
def citation():
    return yaml.safe_load((TREE / "CITATION.cff").read_text())


def test_version_and_licence_are_those_of_the_package(citation):
    project = tomllib.loads((TREE / "pyproject.toml").read_text())["project"]
    assert citation["version"] == project["version"]
    assert citation["license"] == project["license"]


def test_keys_are_those_of_the_format(citation):
    """No DOI, no address, no date: there is none to cite."""
    assert citation["cff-version"] == "1.2.0" and citation["type"] == "software"
    assert REQUIRED <= set(citation) <= REQUIRED | OPTIONAL
    assert citation["authors"] == [{"name": "The korvex developers"}]
    texts = [value for key, value in citation.items() if key not in ("authors", "keywords")]
    assert all(isinstance(text, str) and text for text in [*texts, *citation["keywords"]])
