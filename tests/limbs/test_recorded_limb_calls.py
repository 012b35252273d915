# SPDX-License-Identifier: Apache-2.0
"""The operations of a collapse, one by one and in order, as they are documented.

Every other method is compared with its reference implementation, in tests/runtime.
"""


def test_collapse_of_four_limbs(runtime, recorded):
    recorder = recorded(
        """
        l0.double
        result = l0.double()
        torch.zeros_like
        carry = torch.zeros_like(result)
        l1.double
        limb1 = l1.double()
        s1 = result + limb1
        v1 = s1 - result
        sv1 = s1 - v1
        left1 = result - sv1
        right1 = limb1 - v1
        e1 = left1 + right1
        carry1 = carry + e1
        l2.double
        limb2 = l2.double()
        s2 = s1 + limb2
        v2 = s2 - s1
        sv2 = s2 - v2
        left2 = s1 - sv2
        right2 = limb2 - v2
        e2 = left2 + right2
        carry2 = carry1 + e2
        l3.double
        limb3 = l3.double()
        s3 = s2 + limb3
        v3 = s3 - s2
        sv3 = s3 - v3
        left3 = s2 - sv3
        right3 = limb3 - v3
        e3 = left3 + right3
        carry3 = carry2 + e3
        total = s3 + carry3
        """
    )
    result = runtime.TQXResult([])
    recorder.events.clear()  # the dtype that the construction reads
    result.limbs = [recorder.spy(f"l{place}") for place in range(4)]
    result.n_limbs = 4
    collapsed = result.collapse()
    recorder.check()
    assert repr(collapsed) == "<total>"
