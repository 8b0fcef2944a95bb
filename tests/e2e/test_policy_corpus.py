"""Each policy of tests/policies: what the check finds in it, and what the schema says to it."""
import json
import pathlib
import subprocess

import pytest

from conftest import BIN, TOP

POLICIES = sorted((TOP / "tests/policies").glob("*.xml"))
SCHEMA = TOP / "packaging/zol-policy.rng"
# What a schema can know: names, places and the forms of values, and what makes the daemon drop an item.
STRUCTURAL = {"refused", "cut-short", "nothing-watched", "dropped", "no-key", "unknown-element", "unknown-attribute",
              "letter-case", "misplaced", "number", "no-time"}


@pytest.fixture(scope="module", name="findings")
def all_findings(tmp_path_factory):
    """By file; on a machine without a key store."""
    environment = {"ZOL_ROOT": str(tmp_path_factory.mktemp("root"))}
    listed = subprocess.run([BIN / "zolctl", "policy", "check", "--json", *POLICIES], env=environment, check=False,
                            capture_output=True, timeout=300).stdout
    return {pathlib.Path(one["file"]): one["findings"] for one in json.loads(listed)}


def line(finding):
    hint = f" ({finding['hint']})" if finding["hint"] else ""
    text = (finding["text"] + hint).replace("\n", r"\n")
    return f"{finding['line']}:{finding['column']}: {finding['severity']}: {text}\n"


def is_beyond_a_limit(found):
    return any(finding["name"] == "refused" and not finding["text"].startswith("not well-formed") for finding in found)


def test_there_are_many_and_each_has_its_findings_beside_it():
    expected = {file.with_suffix(".xml") for file in (TOP / "tests/policies").glob("*.expected")}

    assert len(POLICIES) >= 60 and set(POLICIES) == expected


@pytest.mark.parametrize("file", POLICIES, ids=lambda file: file.stem)
def test_the_check_finds_what_stands_beside_it(file, findings):
    assert "".join(map(line, findings[file])) == file.with_suffix(".expected").read_text()


def test_each_finding_is_shown_by_a_policy(findings):
    shown = {finding["name"] for found in findings.values() for finding in found}

    # That needs a key store, and too many of them.
    assert {"key-type", "more"}.isdisjoint(shown)
    assert STRUCTURAL < shown and len(shown) == 23


def test_the_schema_accepts_exactly_what_has_no_finding_of_structure(findings):
    said = subprocess.run(["xmllint", "--noout", "--nonet", "--noent", "--dtdattr", "--relaxng", SCHEMA, *POLICIES],
                          check=False, capture_output=True, text=True, errors="replace", timeout=300).stderr
    accepted = {file for file in POLICIES if f"{file} validates\n" in said}

    judged = {file for file in POLICIES if not is_beyond_a_limit(findings[file])}
    sound = {file for file in judged if not STRUCTURAL & {finding["name"] for finding in findings[file]}}
    assert accepted & judged == sound
    assert len(sound) > 20 and len(judged - sound) > 20
