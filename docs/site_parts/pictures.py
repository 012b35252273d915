# SPDX-License-Identifier: Apache-2.0
"""Pictures of the site: every local SVG becomes part of its page, and follows the page's theme.

A picture brings its colours for both (korvex_tools/figures/svg.py). A file that is shown by itself
follows the system; as a part of a page it follows the button for light and dark as well. A click
opens the file, to be enlarged.
"""

import re
import xml.etree.ElementTree as ElementTree
from pathlib import Path

from docutils import nodes
from sphinx.application import Sphinx
from sphinx.transforms.post_transforms import SphinxPostTransform
from sphinx.util.osutil import relative_uri

SVG = "http://www.w3.org/2000/svg"
LINK = "{http://www.w3.org/1999/xlink}href"
ElementTree.register_namespace("", SVG)
ElementTree.register_namespace("xlink", "http://www.w3.org/1999/xlink")


def for_a_page(text: str, name: str, spoken: str) -> str:
    """The picture with its own name in front of every id, and with what a screen reader says."""
    root = ElementTree.fromstring(text)
    for unused in root.findall(f"{{{SVG}}}metadata"):
        root.remove(unused)
    ids = {element.attrib["id"] for element in root.iter() if "id" in element.attrib}
    for element in root.iter():
        for key, value in element.attrib.items():
            element.set(key, renamed(key, value, ids, name))
        if element.tag == f"{{{SVG}}}style" and element.text:
            # On a page a style holds for all of it.
            element.text = re.sub(r"(?m)(^|\})(\s*)\*\s*\{", r"\1\2#" + name + " *{", element.text)
    root.set("id", name)
    root.set("class", "korvex-figure")
    root.set("role", "img")
    root.set("aria-label", spoken)
    return ElementTree.tostring(root, encoding="unicode")


def renamed(key: str, value: str, ids: set[str], name: str) -> str:
    if key == "id":
        return f"{name}-{value}"
    if key in ("href", LINK) and value.removeprefix("#") in ids:
        return f"#{name}-{value.removeprefix('#')}"
    return re.sub(
        r"url\(#([^)]+)\)",
        lambda found: f"url(#{name}-{found[1]})" if found[1] in ids else found[0],
        value,
    )


class InlinePictures(SphinxPostTransform):
    """In place of <img>, which knows nothing of the page around it."""

    default_priority = 100
    formats = ("html",)

    def run(self, **options: object) -> None:
        used: dict[str, int] = {}
        for node in list(self.document.findall(nodes.image)):
            path = Path(self.env.srcdir, node["uri"])
            if path.suffix != ".svg" or not path.is_file():
                continue
            used[path.stem] = used.get(path.stem, 0) + 1
            number = f"-{used[path.stem]}" if used[path.stem] > 1 else ""
            name = f"picture-{path.stem}{number}"
            shown = for_a_page(path.read_text(), name, node.get("alt") or path.stem)
            link = f'<a class="picture" href="{self.address(node["uri"])}">{shown}</a>'
            node.parent.replace(node, nodes.raw("", link, format="html"))

    def address(self, uri: str) -> str:
        """Where the file itself will lie, seen from this page."""
        builder = self.app.builder
        builder.images[uri] = Path(uri).name  # the builder copies what is listed there
        page = builder.get_target_uri(self.env.current_document.docname)
        return relative_uri(page, f"_images/{Path(uri).name}")


def setup(app: Sphinx) -> dict[str, bool]:
    app.add_post_transform(InlinePictures)
    return {"parallel_read_safe": True, "parallel_write_safe": True}
