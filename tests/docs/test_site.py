# SPDX-License-Identifier: Apache-2.0
"""The site, built as `make site` builds it: every name, every document, nothing from elsewhere."""

import html
import inspect
import re
import shutil
from pathlib import Path

import pytest
from site_builds import build_site

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


def letters(text):
    """What has to be shown: all but blanks, backquotes, underlines and the dashes of lists."""
    return "".join(re.sub(r"^-+$|^\s*- |`", "", text, flags=re.MULTILINE).split())


def assert_documented(entry, documented):
    doc = inspect.getdoc(documented)
    assert doc and letters(doc) in "".join(text_of(entry[1]).split())


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


# ---- how the reference is set ----


def test_doc_strings_are_rendered(site, entries):
    _, shown = entries["korvex.exact.sum"]
    assert "<dl" in shown and '<p class="rubric">Parameters</p>' in shown
    assert '<div class="highlight-pycon' in shown and "----" not in shown and "`" not in shown
    _, shown = entries[f"{RUNTIME}.tqx_sum"]
    assert '<p class="rubric">Raises:</p>' in shown and '<code class="docutils literal' in shown
    _, shown = entries[f"{RUNTIME}.tqx_matmul"]
    assert shown.count("<li>") == 4
    _, shown = entries[f"{RUNTIME}.tqx_sin"]
    assert [text_of(line) for line in re.findall('<div class="line">(.*?)</div>', shown)][:2] == [
        "TRUE TQX sine using compensated Taylor series.",
        "sin(x) = x - x³/3! + x⁵/5! - x⁷/7! + ...",
    ]


def rows_of_signatures(site):
    """Cells of every table of signatures, by the name that is linked in the first one."""
    rows = {}
    for page in (site / "api").glob("*.html"):
        tables = re.findall(r'<table class="signatures.*?</table>', page.read_text(), re.DOTALL)
        for row in re.findall(r"<tr.*?</tr>", "".join(tables), re.DOTALL):
            cells = re.findall(r"<td>(.*?)</td>", row, re.DOTALL)
            if cells:
                rows[re.search(r'href="#([^"]+)"', cells[0])[1]] = cells
    return rows


def test_every_name_stands_in_a_table_of_signatures(site, module):
    from korvex import exact

    rows = rows_of_signatures(site)
    assert {f"{RUNTIME}.{name}" for name in module.__all__} <= rows.keys()
    assert {f"korvex.exact.{name}" for name in exact.__all__} <= rows.keys()
    cell = text_of(rows["korvex.exact.cumulative_sum"][0])
    assert cell == "cumulative_sum(x, /, *, axis=None, dtype=None, include_initial=False)"


def test_every_function_links_to_what_defines_its_exactness(site, module):
    rows = rows_of_signatures(site)
    other = {"TQXResult", "TQXVerifiedResult", "__version__", "get_backend_info"}
    for name in set(module.__all__) - other:
        page, _, row = re.search(r'href="([^"]+)"', rows[f"{RUNTIME}.{name}"][1])[1].partition("#")
        assert page == "../numerics.html"
        rows_there = (site / "numerics.html").read_text().split("<tr ")
        [text] = [text for text in rows_there if text.partition(">")[0].endswith(f'id="{row}"')]
        assert name in text_of(text), name
    from korvex import exact

    for name in set(exact.__all__) - {"get_threads", "set_threads", "loads"}:
        assert "how exact" in text_of(rows[f"korvex.exact.{name}"][1]), name


# ---- formulas and pictures ----


def test_formulas_are_set_as_formulas(site):
    page = (site / "numerics_sum.html").read_text()
    assert "<math" in page and "<msub>" in page
    assert not re.search("<script[^>]*mathjax", page, re.IGNORECASE)
    assert "2<sup>−1074</sup>" in page and "k<sub>j+1</sub>" in page and "l<sub>0</sub>" in page
    assert "2^-" not in re.sub(r"<(code|pre).*?</\1>", "", page, flags=re.DOTALL)


@pytest.mark.parametrize(
    ("text", "shown"),
    [
        ("2^-53", "2<sup>−53</sup>"),
        ("1.5 * 2^k_j - 45", "1.5 · 2<sup>k<sub>j</sub></sup> − 45"),
        ("2^(k_(j-1) - 53) <= x", "2<sup>k<sub>j−1</sub> − 53</sup> ≤ x"),
        ("(x_i - m)^2", "(x<sub>i</sub> − m)<sup>2</sup>"),
        ("N(0,1) * 2^U(-60,60)", "N(0,1) · 2<sup>U(−60,60)</sup>"),
        ("RN(S - l0)", "RN(S − l<sub>0</sub>)"),
        ("2026-11-22, x_flat and a-b", "2026-11-22, x_flat and a-b"),
    ],
)
def test_powers_and_indices(monkeypatch, text, shown):
    pytest.importorskip("latex2mathml")
    monkeypatch.syspath_prepend(DOCS)
    from docutils import nodes
    from site_parts import formulas

    def written(node):
        if isinstance(node, nodes.Text):
            return str(node)
        tag = "sup" if isinstance(node, nodes.superscript) else "sub"
        return f"<{tag}>{''.join(map(written, node))}</{tag}>"

    assert "".join(map(written, formulas.set_scripts(text))) == shown


def test_a_formula_that_cannot_be_set_is_an_error(monkeypatch):
    pytest.importorskip("latex2mathml")
    monkeypatch.syspath_prepend(DOCS)
    from site_parts import formulas

    assert "<mtable" in formulas.mathml(r"\begin{split} a &= b \\ c &= d \end{split}", "block")
    for unknown in (r"\begin{aligned} a &= b \end{aligned}", r"\unknownword{x}"):
        with pytest.raises(ValueError, match="no MathML for"):
            formulas.mathml(unknown, "block")


def test_pictures_are_part_of_their_pages(site):
    """With a name for those who do not see them, ids that no other has, and a file to open."""
    pages = {page: page.read_text() for page in site.rglob("*.html")}
    shown = {name for page in pages.values() for name in re.findall(r'id="picture-(\w+)"', page)}
    drawn = {path.stem for path in DOCS.rglob("*.svg")} - {"icon"}
    assert shown == drawn and len(shown) > 13
    assert all((site / "_images" / f"{name}.svg").is_file() for name in shown)
    for page in pages.values():
        ids = re.findall(r'\bid="([^"]+)"', page)
        assert len(ids) == len(set(ids))
        for picture in re.findall(r"<svg [^>]*korvex-figure[^>]*>", page):
            assert re.search(r'aria-label="[^"]{10,}"', picture) and 'role="img"' in picture
        assert not re.search(r'<img [^>]*\.svg"', page)


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
    shutil.copy(DOCS / "conf.py", source)
    for name in ("site_parts", "_static"):
        shutil.copytree(DOCS / name, source / name)
    (source / "orphan.md").write_text("# Orphan\n")
    (source / "index.md").write_text(
        "# Start\n\n[nowhere](nowhere.md) and [heading](orphan.md#none)\n\n"
        "```{api-names} korvex.tqx_runtime\ntqx_summ\n```\n"
    )
    run = build_site(tmp_path / "site", source)
    assert run.returncode != 0
    for fault in ("nowhere.md", "'none'", "orphan.md", "korvex.tqx_runtime has no name tqx_summ"):
        assert fault in run.stderr, fault
