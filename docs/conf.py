# SPDX-License-Identifier: Apache-2.0
"""How Sphinx makes the site of this folder: `make site` builds it, with warnings as errors.

Nothing is fetched while building, and the pages load nothing from elsewhere. Signatures and doc
strings come from the installed package, by api_names.py in this folder, which
scripts/build_site.sh puts on the search path: build after `make install`.
"""

import importlib.metadata

project = "korvex"
author = copyright = "The korvex developers"
release = version = importlib.metadata.version("korvex-tqx")

extensions = ["myst_parser", "api_names"]
exclude_patterns: list[str] = []

# Headings can be linked to by the names that code hosts give them.
myst_heading_anchors = 3

html_theme = "furo"
html_title = f"korvex {release}"
html_show_sourcelink = False
# Lies at the root of the site under the name that it has in the package.
html_extra_path = ["../korvex/provenance/record-1.schema.json"]
html_copy_source = False
# Doc strings have lines of up to 100 characters, and should fit without scrolling.
html_theme_options = {"light_css_variables": {"code-font-size": "75%"}, "footer_icons": []}

# Code blocks without a language are formulas and plain output.
highlight_language = "text"
