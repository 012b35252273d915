# SPDX-License-Identifier: Apache-2.0
"""What `make demo` shows: certified means, sums that defeat float64, and the device."""

import re
from decimal import Decimal
from fractions import Fraction

import pytest
from example_run import EXAMPLES, load_example, run_example

DATA = EXAMPLES / "data"
DATA_FILES = sorted(path.name for path in DATA.glob("*.txt"))


@pytest.fixture(scope="module")
def demo():
    """What it prints, once."""
    for package in ("pyarrow", "rich", "tqdm"):
        pytest.importorskip(package)
    run = run_example("demo", "--digits", 2000)
    assert (run.returncode, run.stderr) == (0, "")
    return run.stdout


@pytest.fixture
def example(monkeypatch):
    """The program as a module."""
    monkeypatch.syspath_prepend(EXAMPLES)
    return load_example("demo")


def figures(demo, title):
    [block] = [b for b in demo.split("\n\n") if re.match(rf"{title}: \d+ values\n", b)]
    rows = {"title": block.partition("\n")[0]}
    return rows | {line[2:18].strip(): line[19:].strip() for line in block.splitlines()[1:]}


def decimal_mean(name):
    """The mean of the decimals in a file as published, which is what NIST certifies."""
    values = [Fraction(line) for line in (DATA / name).read_text().split()]
    return sum(values) / len(values)


def test_first_line_names_the_device(demo):
    assert re.match(r"device: (emulated \(.+\)|CUDA): .+", demo.partition("\n")[0])


def test_three_data_sets_are_there():
    assert DATA_FILES == ["Lew.txt", "Michelso.txt", "NumAcc4.txt"]


@pytest.mark.parametrize("name", DATA_FILES)
def test_certified_mean_is_that_of_the_decimals(example, name):
    assert Fraction(example.CERTIFIED_MEANS[name]) == decimal_mean(name)


@pytest.mark.parametrize("name", DATA_FILES)
def test_demo_agrees_with_the_certified_mean_to_its_digits(demo, name):
    mean = Decimal(figures(demo, name)["exact mean"].partition(" (")[0].replace("...", ""))
    [certified] = re.findall(
        rf"^{name}: mean (\S+), as certified, in every digit: yes$", demo, re.M
    )
    assert round(mean, -Decimal(certified).as_tuple().exponent) == Decimal(certified)
    assert Fraction(certified) == decimal_mean(name)


@pytest.mark.parametrize("name", DATA_FILES)
def test_demo_sums_the_float64_values_of_the_file(demo, name):
    values = [Fraction(float(line)) for line in (DATA / name).read_text().split()]
    rows = figures(demo, name)
    assert Fraction(Decimal(rows["exact sum"])) == sum(values)
    assert rows["title"] == f"{name}: {len(values)} values"


def test_readme_of_the_data_tells_the_certified_means():
    lines = (DATA / "README.md").read_text().splitlines()
    rows = [re.split(r"\s*\|\s*", line)[1:-1] for line in lines if line.startswith("| `")]
    documented = {row[0].strip("`"): (int(row[2]), Fraction(row[3])) for row in rows}
    counts = {name: len((DATA / name).read_text().split()) for name in DATA_FILES}
    assert documented == {name: (counts[name], decimal_mean(name)) for name in DATA_FILES}


def test_demo_finds_the_known_sum_of_ill_conditioned_values_in_both_orders(demo):
    shuffled = figures(demo, "ill-conditioned-shuffled.npy")
    ascending = figures(demo, "ill-conditioned-ascending.npy")
    known = 1 + Fraction(2) ** -75
    assert Fraction(Decimal(shuffled["exact sum"])) == known
    assert Fraction(Decimal(ascending["exact sum"])) == known
    assert shuffled["checksum"] == ascending["checksum"]
    assert shuffled["title"].endswith(": 1000000 values")


def test_ill_conditioned_values_defeat_the_float_sums(demo):
    for order in ("shuffled", "ascending"):
        rows = figures(demo, f"ill-conditioned-{order}.npy")
        for name in ("numpy.sum", "one by one"):
            assert abs(float(rows[name].split()[0]) - 1.0) > 0.5


def test_tensors_on_the_device_have_the_same_limbs(demo):
    found = re.findall(r"^(\S+): tqx_sum on the device has the same limbs: yes$", demo, re.M)
    assert sorted(found) == sorted(
        [*DATA_FILES, "ill-conditioned-ascending.npy", "ill-conditioned-shuffled.npy"]
    )


def test_an_answer_that_is_not_met_is_reported_with_exit_code_1(
    example, module, monkeypatch, capsys
):
    import sum_device

    device = sum_device.SumDevice(module, "of the tests")
    monkeypatch.setattr(example, "choose_device", lambda emulated: device)
    monkeypatch.setitem(example.CERTIFIED_MEANS, "Lew.txt", Decimal("-177.436"))
    assert example.main([]) == 1
    verdicts = [line for line in capsys.readouterr().out.splitlines() if line.endswith("NO")]
    assert verdicts == ["Lew.txt: mean -177.436, as certified, in every digit: NO"]
