# SPDX-License-Identifier: Apache-2.0
"""TQXResult as a container: its attributes, shape operations, scalar forms and copies."""

import copy
import pickle

import device
import pytest
import torch


def host(*values):
    return [torch.tensor(value, dtype=torch.float64) for value in values]


# ---- construction ----


def test_empty_result(runtime):
    result = runtime.TQXResult([])
    assert (result.n_limbs, result.shape, result.device) == (0, (), "cuda")
    assert result.dtype is torch.float64 and type(result.shape) is tuple


def test_attributes_are_set_in_order(runtime):
    result = runtime.TQXResult(host([1.0, 2.0]), "elsewhere")
    assert list(vars(result)) == ["limbs", "device", "n_limbs", "shape", "dtype"]
    assert (result.device, result.n_limbs, result.shape) == ("elsewhere", 1, torch.Size([2]))


def test_list_is_kept_and_not_copied(runtime):
    limbs = host(1.0, 2.0)
    result = runtime.TQXResult(limbs)
    assert result.limbs is limbs
    assert runtime.TQXResult(limbs=limbs, device="x").limbs is limbs


def test_shape_is_that_of_the_first_limb(runtime):
    first, second = torch.zeros(2, 3), torch.zeros(5)
    assert runtime.TQXResult([first, second]).shape == torch.Size([2, 3])


def test_dtype_is_float64_whatever_the_limbs_are(runtime):
    assert runtime.TQXResult([torch.zeros(1, dtype=torch.int8)]).dtype is torch.float64


def test_elements_are_not_checked_beyond_the_first(runtime):
    result = runtime.TQXResult([torch.zeros(1), None, "anything"])
    assert result.n_limbs == 3


def test_first_limb_without_a_shape(runtime):
    with pytest.raises(AttributeError, match="shape"):
        runtime.TQXResult([None])


def test_failing_shape_leaves_what_was_set_before(runtime):
    instance = runtime.TQXResult.__new__(runtime.TQXResult)
    with pytest.raises(AttributeError):
        instance.__init__([None], "d")
    assert vars(instance) == {"limbs": [None], "device": "d", "n_limbs": 1}


def test_empty_device_text_is_taken(runtime):
    assert runtime.TQXResult([], "").device == ""


def test_constructor_returns_none_and_can_run_again(runtime):
    result = runtime.TQXResult([])
    assert result.__init__(host(1.0), "again") is None
    assert (result.n_limbs, result.device) == (1, "again")


# ---- an ordinary object ----


def test_attributes_are_writable(runtime):
    result = runtime.TQXResult([])
    result.limbs = result.device = result.n_limbs = result.shape = result.dtype = result.other = 1
    assert vars(result) == dict.fromkeys(
        ["limbs", "device", "n_limbs", "shape", "dtype", "other"], 1
    )
    del result.other
    assert not hasattr(result, "other")


def test_subclass_may_add_and_override(runtime):
    class Subclass(runtime.TQXResult):
        def __init__(self, value):
            super().__init__(host(value), "mine")
            self.extra = value

        def collapse(self):
            return torch.tensor([41.0, 42.0])

    result = Subclass(1.0)
    assert isinstance(result, runtime.TQXResult) and result.extra == 1.0
    assert result.item() == 41.0 and float(result) == 41.0
    assert type(result.squeeze()) is runtime.TQXResult


def test_float_goes_through_an_overridden_item(runtime):
    class Subclass(runtime.TQXResult):
        def item(self):
            return 7.5

    assert float(Subclass([])) == 7.5


def test_item_that_is_no_float_fails_in_float_as_usual(runtime):
    class Subclass(runtime.TQXResult):
        def item(self):
            return "no float"

    assert Subclass([]).__float__() == "no float"
    with pytest.raises(TypeError, match="__float__ returned non-float"):
        float(Subclass([]))


def test_no_operators_and_no_container_protocol(runtime):
    result = runtime.TQXResult(host(1.0))
    for operation in (
        lambda: result + result,
        lambda: result * 2,
        lambda: -result,
        lambda: len(result),
        lambda: result[0],
        lambda: iter(result),
        lambda: int(result),
        lambda: result < result,
    ):
        with pytest.raises(TypeError):
            operation()
    assert bool(runtime.TQXResult([])) is True


def test_equality_and_hash_go_by_identity(runtime):
    limbs = host(1.0)
    first, second = runtime.TQXResult(limbs), runtime.TQXResult(limbs)
    assert first == first and first != second
    assert len({first, second}) == 2


def test_copy_shares_the_list(runtime):
    result = runtime.TQXResult(host(1.0, 2.0), "d")
    twin = copy.copy(result)
    assert type(twin) is runtime.TQXResult and twin is not result
    assert vars(twin) == vars(result) and twin.limbs is result.limbs


def test_deepcopy_copies_the_tensors(runtime):
    result = runtime.TQXResult(host(1.0, 2.0), "d")
    twin = copy.deepcopy(result)
    assert (twin.n_limbs, twin.device, twin.shape) == (2, "d", torch.Size([]))
    assert twin.limbs[0] is not result.limbs[0] and torch.equal(twin.limbs[0], result.limbs[0])


def test_result_is_pickled(module):
    result = module.TQXResult(host([1.0, 2.0], [3.0, 4.0]), "d")
    for protocol in range(2, pickle.HIGHEST_PROTOCOL + 1):
        twin = pickle.loads(pickle.dumps(result, protocol))
        assert type(twin) is module.TQXResult and twin.device == "d"
        assert all(map(torch.equal, twin.limbs, result.limbs))


# ---- collapse, item, float ----


def test_collapse_of_nothing_is_a_zero_on_the_host(runtime):
    for result in (runtime.TQXResult([]), runtime.TQXResult([], "cuda:3")):
        collapsed = result.collapse()
        assert collapsed.device.type == "cpu" and collapsed.dim() == 0
        assert collapsed.dtype is torch.float64 and collapsed.item() == 0.0
        assert result.item() == 0.0 and float(result) == 0.0


def test_collapse_of_one_limb_shares_its_storage(runtime):
    limb = torch.tensor([1.0, 2.0], dtype=torch.float64)
    collapsed = runtime.TQXResult([limb]).collapse()
    assert collapsed.data_ptr() == limb.data_ptr() and torch.equal(collapsed, limb)


def test_collapse_of_one_limb_widens_it(runtime):
    collapsed = runtime.TQXResult([torch.tensor([1, 2])]).collapse()
    assert collapsed.dtype is torch.float64 and collapsed.tolist() == [1.0, 2.0]


def test_collapse_gathers_small_limbs_in_the_carry(runtime):
    result = runtime.TQXResult(host(1.0, 2.0**-60, 2.0**-60))
    assert result.collapse().item() == 1.0
    # Two errors of a quarter ulp reach one half only together; a third of them tips the scale.
    result = runtime.TQXResult(host(1.0, 2.0**-54, 2.0**-54, 2.0**-54))
    assert result.collapse().item() == 1.0 + 2.0**-52


def test_collapse_widens_each_limb_before_adding(runtime):
    third = torch.tensor(1 / 3, dtype=torch.float32)
    collapsed = runtime.TQXResult([third, torch.tensor(1)]).collapse()
    assert collapsed.dtype is torch.float64 and collapsed.item() == third.double().item() + 1.0


def test_collapse_of_scalar_limbs_is_a_scalar(runtime):
    assert runtime.TQXResult(host(1.0, 2.0, 3.0, 4.0)).collapse().shape == ()


def test_collapse_works_element_by_element(runtime):
    collapsed = runtime.TQXResult(host([1.0, 1e16], [2.0, 1.0], [3.0, 1.0])).collapse()
    assert collapsed.tolist() == [6.0, 1e16 + 2.0]


def test_collapse_broadcasts_limbs(runtime):
    collapsed = runtime.TQXResult(host([1.0, 2.0], 0.5)).collapse()
    assert collapsed.tolist() == [1.5, 2.5]


def test_collapse_of_an_infinite_first_limb_is_nan(runtime):
    assert runtime.TQXResult(host(float("inf"), 0.0)).collapse().isnan()
    assert runtime.TQXResult(host(float("inf"))).collapse().isinf()


def test_collapse_goes_by_n_limbs(runtime):
    result = runtime.TQXResult(host(1.0, 2.0))
    result.limbs.append(torch.tensor(4.0))
    assert result.n_limbs == 2 and result.collapse().item() == 3.0
    result.n_limbs = 3
    assert result.collapse().item() == 7.0
    result.n_limbs = 1
    assert result.collapse().item() == 1.0


def test_collapse_changes_no_limb(runtime):
    limbs = host([1.0], [2.0**-60], [3.0])
    before = [limb.clone() for limb in limbs]
    runtime.TQXResult(limbs).collapse()
    assert all(map(torch.equal, limbs, before))


def test_collapse_of_limbs_that_do_not_broadcast(runtime):
    with pytest.raises(RuntimeError, match="must match the size"):
        runtime.TQXResult(host([1.0, 2.0], [1.0, 2.0, 3.0])).collapse()


def test_collapse_of_limbs_on_different_devices(runtime):
    limbs = [device.tensor([1.0, 2.0]), torch.tensor([1.0, 2.0], dtype=torch.float64)]
    with pytest.raises(RuntimeError, match="same device"):
        runtime.TQXResult(limbs).collapse()


def test_item_of_several_elements_is_the_first(runtime):
    result = runtime.TQXResult(host([1.0, 2.0, 3.0], [0.5, 9.0, 9.0]))
    assert result.item() == 1.5 and float(result) == 1.5
    assert type(result.item()) is float


def test_item_of_an_empty_tensor(runtime):
    with pytest.raises(IndexError):
        runtime.TQXResult([torch.zeros(0)]).item()


def test_float_of_a_result_on_the_device(runtime):
    result = runtime.TQXResult([device.tensor(1.5), device.tensor(0.25)], "cuda:0")
    assert float(result) == 1.75


# ---- shape operations ----


def test_squeeze_takes_all_or_one_dimension(runtime):
    result = runtime.TQXResult([torch.zeros(1, 2, 1), torch.zeros(1, 2, 1)], "d")
    assert result.squeeze().shape == torch.Size([2])
    assert result.squeeze(None).shape == torch.Size([2])
    assert result.squeeze(0).shape == torch.Size([2, 1])
    assert result.squeeze(-1).shape == torch.Size([1, 2])
    assert result.squeeze(1).shape == torch.Size([1, 2, 1])


def test_squeeze_of_dimension_zero_is_not_that_of_none(runtime):
    assert runtime.TQXResult([torch.zeros(1, 1)]).squeeze(0).shape == torch.Size([1])
    assert runtime.TQXResult([torch.zeros(1, 1)]).squeeze(False).shape == torch.Size([1])


def test_unsqueeze_view_and_reshape(runtime):
    result = runtime.TQXResult([torch.arange(6.0), torch.ones(6)], "d")
    for derived, shape in [
        (result.unsqueeze(1), (6, 1)),
        (result.view(2, 3), (2, 3)),
        (result.view((3, 2)), (3, 2)),
        (result.view(-1, 2), (3, 2)),
        (result.reshape(6, 1), (6, 1)),
        (result.reshape([2, 3]), (2, 3)),
    ]:
        assert type(derived) is runtime.TQXResult
        assert derived.shape == torch.Size(shape) and derived.n_limbs == 2
        assert [limb.shape for limb in derived.limbs] == [torch.Size(shape)] * 2
        assert derived.limbs[0].flatten().tolist() == [0.0, 1.0, 2.0, 3.0, 4.0, 5.0]


def test_view_takes_a_dtype_as_torch_does(runtime):
    derived = runtime.TQXResult([torch.zeros(2, dtype=torch.float64)]).view(torch.int64)
    assert derived.limbs[0].dtype is torch.int64


def test_derived_result_keeps_the_device_text(runtime):
    text = "".join(["no", "where"])
    result = runtime.TQXResult(host([1.0]), text)
    for derived in (result.squeeze(), result.unsqueeze(0), result.view(1), result.reshape(1)):
        assert derived.device is text


def test_derived_result_shares_memory_as_torch_decides(runtime):
    limb = torch.zeros(2, 2, dtype=torch.float64)
    result = runtime.TQXResult([limb])
    assert result.view(4).limbs[0].data_ptr() == limb.data_ptr()
    assert runtime.TQXResult([limb.t()]).reshape(4).limbs[0].data_ptr() != limb.data_ptr()


def test_receiver_is_not_changed(runtime):
    limbs = host([1.0, 2.0])
    result = runtime.TQXResult(limbs, "d")
    derived = result.view(2, 1)
    assert result.limbs is limbs and result.shape == torch.Size([2])
    assert derived.limbs is not limbs


def test_shape_operations_on_an_empty_result(runtime):
    result = runtime.TQXResult([], "d")
    for derived in (
        result.squeeze(),
        result.squeeze(4),
        result.unsqueeze(9),
        result.view(2, 3),
        result.view(),
        result.reshape("anything"),
    ):
        assert derived is not result and derived.limbs is not result.limbs
        assert (derived.n_limbs, derived.shape, derived.device) == (0, (), "d")


def test_view_without_arguments_fails_as_torch_fails(runtime):
    limb = torch.zeros(2)
    for name in ("view", "reshape"):
        with pytest.raises(TypeError) as expected:
            getattr(limb, name)()
        with pytest.raises(TypeError) as caught:
            getattr(runtime.TQXResult([limb]), name)()
        assert str(caught.value) == str(expected.value)


def test_view_that_does_not_fit_fails_at_the_first_such_limb(runtime):
    class Limb:
        shape = ()

        def __init__(self, error=None):
            self.error, self.calls = error, 0

        def view(self, *shape):
            self.calls += 1
            if self.error:
                raise self.error

    failure = RuntimeError("does not fit")
    limbs = [Limb(), Limb(failure), Limb()]
    with pytest.raises(RuntimeError) as caught:
        runtime.TQXResult(limbs).view(3)
    assert caught.value is failure and [limb.calls for limb in limbs] == [1, 1, 0]


def test_shape_operations_walk_the_list_and_not_n_limbs(runtime):
    result = runtime.TQXResult(host([1.0]))
    result.limbs.append(torch.zeros(1))
    assert result.view(1, 1).n_limbs == 2


@pytest.mark.parametrize("text", [None, torch.device("cpu"), type("Str", (str,), {})("cuda")])
def test_device_set_from_outside_is_refused_when_a_result_is_derived(runtime, text):
    result = runtime.TQXResult(host([1.0]))
    result.device = text
    with pytest.raises(TypeError, match="Argument 'device' has incorrect type"):
        result.squeeze()


# ---- repr ----


def test_repr(runtime):
    assert repr(runtime.TQXResult([])) == "TQXResult(n_limbs=0, shape=())"
    assert (
        repr(runtime.TQXResult(host(1.0, 2.0, 3.0, 4.0)))
        == "TQXResult(n_limbs=4, shape=torch.Size([]))"
    )
    result = runtime.TQXResult([torch.zeros(2, 3)])
    assert str(result) == f"{result}" == "TQXResult(n_limbs=1, shape=torch.Size([2, 3]))"


def test_repr_formats_what_the_attributes_hold(runtime):
    class Formatted:
        def __format__(self, form):
            return f"formatted with {form!r}"

        def __str__(self):
            return "str"

    result = runtime.TQXResult([])
    result.n_limbs, result.shape = Formatted(), "text"
    assert repr(result) == "TQXResult(n_limbs=formatted with '', shape=text)"
