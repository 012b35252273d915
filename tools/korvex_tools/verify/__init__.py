# SPDX-License-Identifier: Apache-2.0
"""Are the bits the same here: golden cases, promises, configurations, reports."""
