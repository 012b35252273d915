# SPDX-License-Identifier: Apache-2.0
"""Golden checksums. Run it to write provenance.json: python make_provenance.py

The texts are those that two machines compare, so they must never change.
"""

import hashlib
import struct

from korvex_tools.verify import golden
from korvex_tools.verify.golden import Case

REFERENCE = "hashlib over struct.pack of the doubles, which are rounded by struct for narrow types"


def sha256(values):
    return hashlib.sha256(struct.pack(f"<{len(values)}d", *values)).hexdigest()


def flat(matrix):
    return [value for row in matrix for value in row]


def narrow(values):
    return [struct.unpack("<f", struct.pack("<f", value))[0] for value in values]


def texts(values):
    """The checksum, and the same with its last digit changed."""
    right = sha256(values)
    return right, right[:-1] + ("0" if right[-1] != "0" else "1")


OPERANDS = {
    "uniform": lambda: (golden.uniform("checksum", 1000),),
    "any bits": lambda: (golden.patterns("checksum", 1000),),
    "zeros": lambda: ([0.0, -0.0],),
    "nothing": lambda: ([],),
}


def _checksums():
    for kind, inputs in OPERANDS.items():
        yield Case(f"tqx_checksum_hex, {kind}", inputs, sha256, lambda m, x: m.tqx_checksum_hex(x))
        yield Case(
            f"tqx_checksum, {kind}",
            inputs,
            lambda values: sha256(values)[:16],
            lambda m, x: m.tqx_checksum(x),
        )
    yield Case(
        "tqx_checksum_hex of a transposed matrix",
        lambda: (golden.rows(golden.uniform("matrix", 120), 8),),
        lambda matrix: sha256(flat(zip(*matrix, strict=True))),
        lambda m, x: m.tqx_checksum_hex(x.t()),
    )
    yield Case(
        "tqx_checksum_hex of single precision",
        lambda: (golden.uniform("narrow", 100),),
        lambda values: sha256(narrow(values)),
        lambda m, x: m.tqx_checksum_hex(x.float()),
    )
    yield Case(
        "tqx_checksum_hex of limbs",
        lambda: (golden.wide("high", 100), golden.wide("low", 100, -120, -113)),
        lambda high, low: sha256([a + b for a, b in zip(high, low, strict=True)]),
        lambda m, high, low: m.tqx_checksum_hex(m.TQXResult([high, low])),
    )
    yield Case(
        "TQXVerifiedResult",
        lambda: (golden.uniform("verified", 50),),
        lambda values: [sha256(values)[:16], sha256(values)],
        lambda m, x: [
            m.TQXVerifiedResult(x).checksum,
            m.TQXVerifiedResult(x).checksum_full,
        ],
    )
    yield Case(
        "TQXVerifiedResult.verify",
        lambda: (golden.uniform("verified", 50),),
        lambda values: True,
        lambda m, x: m.TQXVerifiedResult(x, m.tqx_checksum(x)).verify(),
    )
    yield Case(
        "tqx_verify",
        lambda: (golden.uniform("verified", 50), *texts(golden.uniform("verified", 50))),
        lambda values, right, wrong: [True, False],
        lambda m, x, right, wrong: [
            m.tqx_verify(x, right, truncate=64),
            m.tqx_verify(x, wrong, truncate=64, raise_on_mismatch=False),
        ],
    )


CASES = [*_checksums()]

if __name__ == "__main__":
    golden.write(__file__, CASES, REFERENCE)
