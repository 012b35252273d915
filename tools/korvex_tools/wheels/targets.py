# SPDX-License-Identifier: Apache-2.0
"""For which processors, interpreters and C libraries there are wheels, and their names."""

from dataclasses import dataclass

VERSIONS = ("3.12", "3.13", "3.14")
PROCESSORS = ("x86_64", "aarch64")
# The oldest C library that runs the wheels: torch's own ask for this one.
GLIBC = (2, 28)

DEBIAN_ARCHITECTURES = {"x86_64": "amd64", "aarch64": "arm64"}


@dataclass(frozen=True)
class Target:
    """One processor and one CPython, as in Target("aarch64", "3.14")."""

    processor: str
    version: str

    @property
    def tag(self) -> str:
        return "cp" + self.version.replace(".", "")

    @property
    def platform(self) -> str:
        return f"manylinux_{GLIBC[0]}_{GLIBC[1]}_{self.processor}"

    @property
    def module_suffix(self) -> str:
        """What follows the dot in the file names of extension modules."""
        return f"cpython-{self.tag[2:]}-{self.processor}-linux-gnu.so"

    def __str__(self) -> str:
        return f"CPython {self.version} on {self.processor}"


def targets(processors: tuple[str, ...], versions: tuple[str, ...]) -> list[Target]:
    """Processor by processor, as one build folder serves all interpreters of a processor."""
    return [Target(processor, version) for processor in processors for version in versions]
