# SPDX-License-Identifier: Apache-2.0
"""Writes surface.json: every public name with its signature, defaults, annotations and doc string.

    PYTHONPATH=tests/support python tests/golden/record_surface.py

It records the built module as it is. Look at the difference before it becomes the new expectation.
"""

import inspect
import json
import pathlib


def of_function(function):
    return {
        "kind": "function",
        "signature": str(inspect.signature(function)),
        "defaults": repr(function.__defaults__),
        "keyword_defaults": repr(function.__kwdefaults__),
        "annotations": dict(function.__annotations__),
        "doc": function.__doc__,
    }


def of_class(cls):
    members = {}
    for name, member in vars(cls).items():
        member = getattr(member, "fget", None) or getattr(member, "__func__", member)
        if callable(member):
            members[name] = of_function(member)
    kinds = {name: type(member).__name__ for name, member in vars(cls).items() if name in members}
    return {"kind": "class", "doc": cls.__doc__, "members": members, "member_kinds": kinds}


def surface(module):
    names = {}
    for name in module.__all__:
        value = getattr(module, name)
        if isinstance(value, type):
            names[name] = of_class(value)
        elif callable(value):
            names[name] = of_function(value)
        else:
            names[name] = {"kind": "value", "value": repr(value)}
    return {"module_doc": module.__doc__, "names": names}


if __name__ == "__main__":
    folder = pathlib.Path(__file__).parent
    import device

    path = folder / "surface.json"
    path.write_text(json.dumps(surface(device.choose().runtime), indent=1) + "\n")
    print(f"{path.name}: {len(device.choose().runtime.__all__)} names")
