"""`StringVector` and `SwigPyIterator`, the Python face of a vector of strings."""
import pytest

import _ivelmo
from ivelmo import StringVector


@pytest.fixture
def abc():
    return StringVector(("a", "b", "c"))


def test_constructors():
    assert list(StringVector()) == []
    assert list(StringVector(["x", "y"])) == ["x", "y"]
    assert list(StringVector(StringVector(["z"]))) == ["z"]
    assert list(StringVector(2)) == ["", ""]
    assert list(StringVector(3, "f")) == ["f", "f", "f"]


NEW_STRINGVECTOR_OVERLOADS = (
    "Wrong number or type of arguments for overloaded function 'new_StringVector'.\n"
    "  Possible C/C++ prototypes are:\n"
    "    std::vector< std::string >::vector()\n"
    "    std::vector< std::string >::vector(std::vector< std::string > const &)\n"
    "    std::vector< std::string >::vector(std::vector< std::string >::size_type)\n"
    "    std::vector< std::string >::vector(std::vector< std::string >::size_type,"
    "std::vector< std::string >::value_type const &)\n")


@pytest.mark.parametrize("args", [(1, 2, 3), (1, 2), (1.5,), (["x", 2],)])
def test_constructor_without_a_fitting_signature(args):
    # Too many arguments and wrong types alike get the overload text alone.
    with pytest.raises(NotImplementedError) as error:
        StringVector(*args)
    assert str(error.value) == NEW_STRINGVECTOR_OVERLOADS


def test_negative_index_counts_from_the_end(abc):
    assert abc[-1] == "c"
    assert abc[-3] == "a"


@pytest.mark.parametrize("index", [3, -4, 100])
def test_index_outside_raises_index_error(abc, index):
    with pytest.raises(IndexError) as error:
        abc[index]
    assert str(error.value) == "index out of range"


def test_slice_is_clipped_to_the_vector(abc):
    tail = abc[1:10]
    assert isinstance(tail, StringVector)
    assert list(tail) == ["b", "c"]
    assert list(abc[-10:2]) == ["a", "b"]
    assert list(abc[::-1]) == ["c", "b", "a"]
    assert list(abc) == ["a", "b", "c"]


def test_iterating_to_the_end_raises_stop_iteration_once(abc):
    iterator = iter(abc)
    seen, stops = [], 0
    for _ in range(10):
        try:
            seen.append(next(iterator))
        except StopIteration:
            stops += 1
            break
    assert seen == ["a", "b", "c"]
    assert stops == 1


def test_flat_iterator_functions(abc):
    iterator = _ivelmo.StringVector_iterator(abc)
    assert _ivelmo.SwigPyIterator_next(iterator) == "a"
    assert _ivelmo.SwigPyIterator___next__(iterator) == "b"
    # previous steps back first, then returns.
    assert _ivelmo.SwigPyIterator_previous(iterator) == "b"
    assert _ivelmo.SwigPyIterator_value(iterator) == "b"
    assert _ivelmo.SwigPyIterator_next(iterator) == "b"
    assert _ivelmo.SwigPyIterator_next(iterator) == "c"
    with pytest.raises(StopIteration):
        _ivelmo.SwigPyIterator_next(iterator)


def test_stepping_before_the_first_element_stops(abc):
    with pytest.raises(StopIteration):
        abc.iterator().previous()


def test_iterator_moves_by_counts(abc):
    iterator = abc.iterator()
    iterator.incr(2)
    assert iterator.value() == "c"
    iterator.decr()
    assert iterator.value() == "b"
    assert (iterator + 1).value() == "c"
    assert iterator.value() == "b"
    iterator.advance(-1)
    assert iterator.value() == "a"
    iterator += 2
    assert iterator.value() == "c"
    start = abc.begin()
    assert start.distance(start + 2) == 2
    assert start.equal(abc.begin())
    assert start == abc.begin() and start != start + 1


def test_iterators_of_different_kinds_do_not_compare(abc):
    with pytest.raises(ValueError) as error:
        abc.begin().distance(abc.rbegin())
    assert str(error.value) == "bad iterator type"
    with pytest.raises(ValueError) as error:
        abc.begin().equal(abc.rbegin())
    assert str(error.value) == "bad iterator type"


def test_pop_on_empty_raises_index_error():
    vector = StringVector(["only"])
    assert vector.pop() == "only"
    with pytest.raises(IndexError) as error:
        vector.pop()
    assert str(error.value) == "pop from empty container"


def test_assignments(abc):
    abc[0] = "A"
    abc[1:3] = ["B", "C", "D"]
    assert list(abc) == ["A", "B", "C", "D"]
    del abc[-1]
    del abc[0:1]
    assert list(abc) == ["B", "C"]
    assert len(abc) == 2 and bool(abc) and not bool(StringVector())


def test_assigning_non_strings_raises_type_error(abc):
    for add in (abc.append, abc.push_back):
        with pytest.raises(TypeError) as error:
            add(1)
        assert str(error.value) == (
            f"in method 'StringVector_{add.__name__}', argument 2 of type "
            "'std::vector< std::string >::value_type const &'")
    with pytest.raises(TypeError) as error:
        abc.assign(2, 1)
    assert str(error.value) == (
        "in method 'StringVector_assign', argument 3 of type "
        "'std::vector< std::string >::value_type const &'")
    assert list(abc) == ["a", "b", "c"]


def test_assigning_through_an_overloaded_setter_gives_the_overload_text(abc):
    for assign in (lambda: abc.__setitem__(0, 1), lambda: abc.__setitem__(slice(0, 2), ["x", 2])):
        with pytest.raises(NotImplementedError) as error:
            assign()
        assert str(error.value).startswith(
            "Wrong number or type of arguments for overloaded function "
            "'StringVector___setitem__'.\n  Possible C/C++ prototypes are:\n    ")
    assert list(abc) == ["a", "b", "c"]


def test_null_reference_is_a_value_error(abc):
    with pytest.raises(ValueError) as error:
        abc.assign(2, None)
    assert str(error.value) == (
        "invalid null reference in method 'StringVector_assign', argument 3 of type "
        "'std::vector< std::string >::value_type const &'")


def test_index_that_is_neither_int_nor_slice(abc):
    with pytest.raises(NotImplementedError) as error:
        abc["0"]
    assert str(error.value) == (
        "Wrong number or type of arguments for overloaded function 'StringVector___getitem__'.\n"
        "  Possible C/C++ prototypes are:\n"
        "    std::vector< std::string >::__getitem__(PySliceObject *)\n"
        "    std::vector< std::string >::__getitem__(std::vector< std::string >::difference_type)"
        " const\n")
