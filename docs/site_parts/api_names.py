# SPDX-License-Identifier: Apache-2.0
"""The directive of the reference pages: names of a module, as the installed package has them.

    ```{api-names} korvex.tqx_runtime
    tqx_sum
    TQXResult
    ```

First a table of the signatures, each with a link to the sentence that says how exact the result
is. Then each name with its signature and its doc string, word for word. A class brings its members,
save those with one leading underscore. The emulated device is activated first, so that the runtime
imports on every machine; no signature depends on the device.
"""

import importlib
import inspect
import types
import warnings
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from docutils import nodes
from docutils.parsers.rst import directives
from docutils.statemachine import StringList
from site_parts import doc_strings, exactness
from sphinx import addnodes
from sphinx.application import Sphinx
from sphinx.domains import python
from sphinx.util.docutils import SphinxDirective
from sphinx.util.inspect import stringify_signature

import korvex.emulation

# The signature of the class and the name say it all, or nobody calls it.
_NO_DOC = ("__init__", "__repr__", "__init_subclass__", "__copy__", "__deepcopy__", "__reduce__")
_NOT_MADE_BY_CALLERS = ("Kernel",)
# What stands before a name in the labels of exactness.py.
_PREFIXES = {"korvex.exact": "exact."}


class ApiNames(SphinxDirective):
    """Entries of the Python domain, one a line of the content, after the module's doc string."""

    required_arguments = 1
    has_content = True
    option_spec = {"with-module-doc": directives.flag}

    def run(self) -> list[nodes.Node]:
        module_name = self.arguments[0]
        module = _imported(module_name)
        self.env.ref_context["py:module"] = module_name
        made: list[nodes.Node] = []
        if "with-module-doc" in self.options:
            made.append(_doc_block(module))
        names = list(filter(None, map(str.strip, self.content)))
        for name in names:
            if not hasattr(module, name):
                raise self.error(f"{module_name} has no name {name}")
        made.append(self._table(module, names))
        for name in names:
            made += self._entry(name, getattr(module, name))
        return made

    def _table(self, module: types.ModuleType, names: list[str]) -> nodes.table:
        """Every name of the page with its signature, and where its exactness is defined."""
        defined = exactness.labels(Path(self.env.srcdir))
        prefix = _PREFIXES.get(module.__name__, "")
        labels = {name: f"exactness-of-{prefix}{name}" for name in names}
        with_links = bool(defined.intersection(labels.values()))
        titles = ["signature", *(["result"] if with_links else [])]
        rows = []
        for name in names:
            label = labels[name] if labels[name] in defined else None
            link = [_reference("ref", label, "how exact")] if label else []
            signature = _signature_nodes(module, name)
            rows.append([signature, *([link] if with_links else [])])
        return _table_of(titles, rows)

    def _entry(self, name: str, value: Any) -> list[nodes.Node]:
        if isinstance(value, type):
            return self._class(name, value)
        if callable(value):
            return self._described("function", python.PyFunction, name + _signature(value), value)
        return self._described("data", python.PyVariable, name, None)

    def _class(self, name: str, cls: type) -> list[nodes.Node]:
        shown = name if name in _NOT_MADE_BY_CALLERS else name + _signature(cls)
        made = self._described("class", python.PyClasslike, shown, cls)
        for member_name, member in _members(cls):
            self.env.ref_context["py:class"] = name  # each member takes it away at its end
            made[-1][-1].extend(self._member(f"{name}.{member_name}", member))
        return made

    def _member(self, path: str, member: Any) -> list[nodes.Node]:
        if callable(member):
            shown = path + _signature(member, skip_self=True)
            return self._described("method", python.PyMethod, shown, member)
        getter = getattr(member, "fget", None)
        returned = getter.__annotations__.get("return") if getter else None
        options = {"type": returned} if returned else {}
        return self._described("property", python.PyProperty, path, member, options)

    def _described(
        self, kind: str, directive: type, shown: str, documented: Any, options: dict | None = None
    ) -> list[nodes.Node]:
        """What the Python domain makes of one signature, with the doc string inside."""
        made = directive(
            f"py:{kind}",
            [shown],
            options or {},
            StringList(),
            self.lineno,
            self.content_offset,
            self.block_text,
            self.state,
            self.state_machine,
        ).run()
        if documented and inspect.getdoc(documented):
            made[-1][-1] += _doc_block(documented)
        return made


def _imported(name: str) -> types.ModuleType:
    """The module, on the emulated device; the loader warns where there is no driver."""
    korvex.emulation.activate()
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", RuntimeWarning)
        return importlib.import_module(name)


def _doc_block(documented: Any) -> nodes.container:
    return doc_strings.doc_string(inspect.getdoc(documented) or "")


def _reference(kind: str, target: str, shown: str) -> nodes.Node:
    """A link that is an error while the site is built if nothing has that label."""
    inner = nodes.inline("", shown)
    return addnodes.pending_xref(
        "", inner, refdomain="std", reftype=kind, reftarget=target, refexplicit=True, refwarn=True
    )


def _signature_nodes(module: types.ModuleType, name: str) -> list[nodes.Node]:
    """The name, linked to its entry below, and its parameters without their types."""
    value = getattr(module, name)
    link = nodes.reference("", "", nodes.literal("", name), internal=True)
    link["refid"] = f"{module.__name__}.{name}"
    if not callable(value) or name in _NOT_MADE_BY_CALLERS:
        return [link]
    parameters = [
        each.replace(annotation=inspect.Parameter.empty)
        for each in inspect.signature(value).parameters.values()
    ]
    return [link, nodes.literal("", str(inspect.Signature(parameters)))]


def _table_of(titles: list[str], rows: list[list[list[nodes.Node]]]) -> nodes.table:
    group = nodes.tgroup(cols=len(titles))
    group += [nodes.colspec(colwidth=1) for _ in titles]
    head = nodes.row("", *(nodes.entry("", nodes.paragraph("", title)) for title in titles))
    group += nodes.thead("", head)
    body = nodes.tbody()
    for cells in rows:
        body += nodes.row("", *(nodes.entry("", nodes.paragraph("", "", *c)) for c in cells))
    group += body
    return nodes.table("", group, classes=["signatures"])


def _signature(function: Any, skip_self: bool = False) -> str:
    signature = inspect.signature(function)
    if skip_self and "self" in signature.parameters:
        kept = [each for name, each in signature.parameters.items() if name != "self"]
        signature = signature.replace(parameters=kept)
    return stringify_signature(signature)


def _members(cls: type) -> Iterator[tuple[str, Any]]:
    """Methods and properties of the class and of internal bases, save private ones."""
    shown = importlib.import_module(cls.__module__)
    own = [vars(each) for each in reversed(cls.__mro__) if each is cls or _is_internal(each, shown)]
    for name, member in {k: v for members in own for k, v in members.items()}.items():
        private = name.startswith("_") and not name.endswith("__")
        attribute = isinstance(member, (types.GetSetDescriptorType, property))
        if private or name in _NO_DOC or name in ("__dict__", "__weakref__", "__new__"):
            continue
        if isinstance(member, classmethod):
            member = getattr(cls, name)
        if attribute or callable(member):
            yield name, member


def _is_internal(base: type, module: types.ModuleType) -> bool:
    return base.__module__.startswith(module.__name__) and not hasattr(module, base.__name__)


def setup(app: Sphinx) -> dict[str, bool]:
    app.add_directive("api-names", ApiNames)
    return {"parallel_read_safe": False, "parallel_write_safe": True}
