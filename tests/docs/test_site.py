# SPDX-License-Identifier: Apache-2.0
"""The site, built as `make site` builds it: every name, every document, nothing from elsewhere."""

import html
import inspect
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

pytest.importorskip("sphinx")
pytest.importorskip("myst_parser")
pytest.importorskip("furo")

TREE = Path(__file__).resolve().parents[2]
DOCS = TREE / "docs"
API = DOCS / "api"
RUNTIME = "korvex.tqx_runtime"
LOADER = {
    "HAS_CUPY": [],
    "UNAVAILABLE_REASON": [],
    "NativeCubinLoader": ["arch", "cubin_path", "get_kernel"],
    "Kernel": ["block", "blocks_per_multiprocessor", "form", "function", "launch", "name"]
    + ["parameters"],
}


def build(target, source=DOCS):
    return subprocess.run(
        [TREE / "scripts" / "build_site.sh", sys.executable, target, source],
        capture_output=True,
        text=True,
    )


@pytest.fixture(scope="session")
def site(tmp_path_factory):
    folder = tmp_path_factory.mktemp("site") / "site"
    run = build(folder)
    assert (run.returncode, run.stderr) == (0, "")
    return folder


@pytest.fixture(scope="session")
def entries(site):
    """Signature without blanks, and what follows it, of every name on the reference pages."""
    found = {}
    for page in (site / "api").glob("*.html"):
        parts = re.split(r'<dt class="sig [^"]*" id="([^"]+)">', page.read_text())
        for name, rest in zip(parts[1::2], parts[2::2], strict=True):
            signature, _, described = rest.partition("</dt>")
            assert name not in found, f"{name} stands on two pages"
            found[name] = ("".join(text_of(signature).split()).removesuffix("¶"), described)
    return found


def text_of(fragment):
    return html.unescape(re.sub("<[^>]+>", "", fragment))


def shown_signature(function, skip_self=False):
    """As Sphinx writes it: annotations bare, `Optional` and `Union` as alternatives, an arrow."""
    signature = inspect.signature(function)
    if skip_self:
        rest = [each for name, each in signature.parameters.items() if name != "self"]
        signature = signature.replace(parameters=rest)
    shown = re.sub(r": '([^']*)'", r": \1", str(signature))
    shown = re.sub(r"-> '([^']*)'", r"-> \1", shown)
    shown = re.sub(r"Optional\[([\w.]+)\]", r"\1 | None", shown)
    shown = re.sub(r"Union\[([^,\]]+), (\w+)\]", r"\1 | \2", shown)
    return "".join(shown.replace("->", "→").split())


def assert_documented(entry, documented):
    doc = inspect.getdoc(documented)
    assert doc and doc in text_of(entry[1])


# ---- the reference ----


def test_every_public_name_stands_there_with_signature_and_doc_string(module, entries):
    for name in module.__all__:
        value = getattr(module, name)
        signature, _ = entry = entries[f"{RUNTIME}.{name}"]
        if isinstance(value, type):
            assert signature == f"class{RUNTIME}.{name}" + shown_signature(value)
            assert_documented(entry, value)
        elif callable(value):
            assert signature == f"{RUNTIME}.{name}" + shown_signature(value)
            assert_documented(entry, value)


@pytest.mark.parametrize("class_name", ["TQXResult", "TQXVerifiedResult"])
def test_every_method_stands_there_with_signature_and_doc_string(module, entries, class_name):
    cls = getattr(module, class_name)
    prefix = f"{RUNTIME}.{class_name}."
    documented = {
        name: getattr(member, "fget", member)
        for name, member in vars(cls).items()
        if (callable(member) or isinstance(member, property)) and member.__doc__
        if not re.match("_[^_]", name)
    }
    assert {name for name in entries if name.startswith(prefix)} == {prefix + n for n in documented}
    for name, function in documented.items():
        signature, _ = entry = entries[prefix + name]
        if isinstance(vars(cls)[name], property):
            assert signature == f"property{name}:{function.__annotations__['return']}"
        else:
            assert signature == name + shown_signature(function, skip_self=True)
        assert_documented(entry, function)


def test_loader_and_emulated_device_stand_there(entries):
    import korvex.emulation

    loader = "korvex.cubin_loader_native"
    expected = {f"{loader}.{name}" for name in LOADER}
    expected |= {f"{loader}.{name}.{member}" for name in LOADER for member in LOADER[name]}
    assert {name for name in entries if name.startswith(loader)} == expected
    assert entries[f"{loader}.Kernel.launch"][0] == "launch(*args,grid)"
    for name in korvex.emulation.__all__:
        entry = entries[f"korvex.emulation.{name}"]
        function = getattr(korvex.emulation, name)
        assert entry[0].startswith(f"korvex.emulation.{name}(")
        assert_documented(entry, function)


def test_exact_sums_of_any_array_stand_there(entries):
    from korvex import exact

    prefix = "korvex.exact."
    found = {name.removeprefix(prefix) for name in entries if name.startswith(prefix)}
    methods = {
        f"{name}.{member}"
        for name in ("Sum", "Dot", "Moments", "GradientAccumulator")
        for member in dir(getattr(exact, name))
        if not member.startswith("_")
    }
    assert {name for name in found if "._" not in name and ".__" not in name} == (
        {*exact.__all__} | methods
    )
    for name in exact.__all__:
        assert_documented(entries[prefix + name], getattr(exact, name))
    assert entries["korvex.exact.sum"][0].startswith("korvex.exact.sum(x:Any,/,*,axis:")


def test_records_and_their_schema_stand_there(site, entries):
    from korvex import provenance

    prefix = "korvex.provenance."
    for name in provenance.__all__:
        assert_documented(entries[prefix + name], getattr(provenance, name))
    for method in ("add", "add_file", "dumps", "write", "verify", "environment_changes"):
        assert f"{prefix}Record.{method}" in entries
    schema = TREE / "korvex" / "provenance" / "record-1.schema.json"
    assert (site / schema.name).read_bytes() == schema.read_bytes()


def test_names_stand_on_the_page_of_their_folder():
    for page in API.glob("*.md"):
        own = "tqx_runtime" if page.stem == "runtime" else f"functions/{page.stem}"
        folder = TREE / "korvex" / own
        found = re.search(rf"{{api-names}} {RUNTIME}\n(.*?)```", page.read_text(), re.DOTALL)
        if found:
            sources = "".join(path.read_text() for path in folder.glob("*.cpp"))
            names = [line for line in found[1].splitlines() if line and not line.startswith(":")]
            assert names and all(f'"{name}"' in sources for name in names), page.name


# ---- the documents ----


def test_every_document_is_a_page(site):
    documents = [path.relative_to(DOCS).with_suffix(".html") for path in DOCS.rglob("*.md")]
    assert len(documents) > 30
    assert [str(page) for page in documents if not (site / page).is_file()] == []


def test_pages_load_nothing_from_elsewhere(site):
    loading = r'<(?:script|link|img|iframe)\b[^>]*(?:src|href)="(?:https?:)?//[^"]*"'
    pages, styles = list(site.rglob("*.html")), list(site.rglob("*.css"))
    assert pages and styles
    assert [page.name for page in pages if re.search(loading, page.read_text())] == []
    outside = r"(?:@import|url\()\s*['\"]?(?:https?:)?//"
    assert [style.name for style in styles if re.search(outside, style.read_text())] == []


def test_faults_of_documents_are_errors(tmp_path):
    """A link that leads nowhere, a heading that is not there, a page in no list, a wrong name."""
    source = tmp_path / "source"
    source.mkdir()
    for name in ("conf.py", "api_names.py"):
        shutil.copy(DOCS / name, source)
    (source / "orphan.md").write_text("# Orphan\n")
    (source / "index.md").write_text(
        "# Start\n\n[nowhere](nowhere.md) and [heading](orphan.md#none)\n\n"
        "```{api-names} korvex.tqx_runtime\ntqx_summ\n```\n"
    )
    run = build(tmp_path / "site", source)
    assert run.returncode != 0
    for fault in ("nowhere.md", "'none'", "orphan.md", "korvex.tqx_runtime has no name tqx_summ"):
        assert fault in run.stderr, fault
