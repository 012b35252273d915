# SPDX-License-Identifier: Apache-2.0
"""How Sphinx makes the site of this folder: `make site` builds it, with warnings as errors.

Nothing is fetched while building, and the pages load nothing from elsewhere. Signatures and doc
strings come from the installed package, by the extensions in site_parts/, which
scripts/build_site.sh puts on the search path: build after `make install`.
"""

import importlib.metadata

project = "korvex"
author = copyright = "The korvex developers"
release = version = importlib.metadata.version("korvex-tqx")

extensions = [
    "myst_parser",
    "site_parts.api_names",
    "site_parts.exactness",
    "site_parts.formulas",
    "site_parts.pictures",
]
exclude_patterns: list[str] = []

# Formulas between dollar signs, as code hosts know them.
myst_enable_extensions = ["dollarmath"]
html_math_renderer = "mathml"

# Headings can be linked to by the names that code hosts give them.
myst_heading_anchors = 3

html_theme = "furo"
html_title = f"korvex {release}"
html_show_sourcelink = False
# Lies at the root of the site under the name that it has in the package.
html_extra_path = ["../korvex/provenance/record-1.schema.json"]
html_copy_source = False
html_favicon = "_static/icon.svg"
html_static_path = ["_static"]
html_css_files = ["site.css"]
html_theme_options = {"footer_icons": []}

# Code blocks without a language are formulas and plain output.
highlight_language = "text"
