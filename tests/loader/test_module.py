# SPDX-License-Identifier: Apache-2.0
"""The built extension, its surface, its stub file, and the kernels installed with it."""

import ast

import pytest
import stub_driver

from korvex_tools.elf_file import ElfFile


def test_extension_exports_its_entry_point_alone_and_links_to_no_cuda():
    elf_file = ElfFile(stub_driver.installed_extension())
    assert elf_file.exported == ["PyInit_cubin_loader_native"]
    assert not [name for name in elf_file.needed if "cuda" in name or "nvidia" in name]


def declared_in_the_stub_file():
    """Names of the module and, of its classes, their members."""
    tree = ast.parse((stub_driver.installed_folder() / "cubin_loader_native.pyi").read_text())
    names = {node.target.id for node in tree.body if isinstance(node, ast.AnnAssign)}
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            names |= {node.name}
            names |= {f"{node.name}.{member.name}" for member in node.body}
    return names


def test_stub_file_declares_what_there_is(run):
    run(
        f"""
        module = import_loader()
        names = {{name for name in vars(module) if not name.startswith("__")}}
        for kind in (module.Kernel, module.NativeCubinLoader):
            members = (name for name in vars(kind) if not name.startswith("_"))
            names |= {{f"{{kind.__name__}}.{{name}}" for name in members}}
        assert names == {declared_in_the_stub_file()} - {{"NativeCubinLoader.__init__"}}, names
        """
    )


def test_methods_have_signatures_and_all_have_doc_strings(run):
    run(
        """
        import inspect
        module = import_loader()
        expected = {"Kernel.launch": "(self, /, *args, grid)",
                    "Kernel.function": "(self, grid, block, args, /)",
                    "NativeCubinLoader.get_kernel": "(self, name, /)"}
        for kind in (module.Kernel, module.NativeCubinLoader):
            assert kind.__doc__ and kind.__module__ == "korvex.cubin_loader_native"
            for name, member in vars(kind).items():
                if not name.startswith("_"):
                    assert member.__doc__, name
                if callable(member) and not name.startswith("_"):
                    assert str(inspect.signature(member)) == expected.pop(f"{kind.__name__}.{name}")
        assert not expected and str(inspect.signature(module.NativeCubinLoader)) == "()"
        """
    )


def test_loader_and_kernel_are_true_and_name_themselves(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        kernel = loader.get_kernel("tqx_sum_seq_kernel")
        assert loader and kernel
        assert repr(loader) == f"<NativeCubinLoader sm_90 {loader.cubin_path}>"
        assert repr(kernel) == "<kernel tqx_sum_seq_kernel(x:f64[n] out:f64[4] n:i64)>"
        """
    )


@pytest.mark.skipif(
    not (stub_driver.installed_folder() / "cubins").is_dir(),
    reason="this build holds no compiled kernels",
)
def test_installed_kernels_are_found_beside_the_module(run):
    """Here the module is imported as a program imports it, from the installed package."""
    run(
        """
        import sys, types
        sys.modules["cupy"] = types.ModuleType("cupy")
        from korvex import cubin_loader_native
        assert cubin_loader_native.HAS_CUPY, cubin_loader_native.UNAVAILABLE_REASON
        driver.set_devices((9, 0, 4), (99, 0, 4))
        loader = cubin_loader_native.NativeCubinLoader()
        assert loader.cubin_path.parent == stub_driver.installed_folder() / "cubins"
        assert exact_sum(loader, [1e100, 1.0, -1e100], 0) == [1.0, 0.0, 0.0, 0.0]
        assert exact_sum(loader, [1e100, 2.0, -1e100], 1) == [2.0, 0.0, 0.0, 0.0]
        loads = [line for line in driver.take_log() if "cuModuleLoadDataEx" in line]
        assert len(loads) == 2 and all("stub" not in line for line in loads)
        """
    )
