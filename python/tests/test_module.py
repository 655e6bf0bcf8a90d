"""The extension `_ivelmo` and its shadow module `ivelmo` as Python sees them."""
import os
import subprocess

import pytest

import _ivelmo
import ivelmo

CATALOGUE = [
    "_KXSystem",
    "new_StringVector", "delete_StringVector", "StringVector_swigregister",
    "StringVector_iterator", "StringVector___nonzero__", "StringVector___bool__",
    "StringVector___len__", "StringVector_pop", "StringVector___getslice__",
    "StringVector___setslice__", "StringVector___delslice__", "StringVector___delitem__",
    "StringVector___getitem__", "StringVector___setitem__", "StringVector_append",
    "StringVector_empty", "StringVector_size", "StringVector_clear", "StringVector_swap",
    "StringVector_get_allocator", "StringVector_begin", "StringVector_end",
    "StringVector_rbegin", "StringVector_rend", "StringVector_pop_back",
    "StringVector_erase", "StringVector_push_back", "StringVector_front",
    "StringVector_back", "StringVector_assign", "StringVector_resize",
    "StringVector_insert", "StringVector_reserve", "StringVector_capacity",
    "delete_SwigPyIterator", "SwigPyIterator_swigregister", "SwigPyIterator_value",
    "SwigPyIterator_incr", "SwigPyIterator_decr", "SwigPyIterator_distance",
    "SwigPyIterator_equal", "SwigPyIterator_copy", "SwigPyIterator_next",
    "SwigPyIterator___next__", "SwigPyIterator_previous", "SwigPyIterator_advance",
    "SwigPyIterator___eq__", "SwigPyIterator___ne__", "SwigPyIterator___iadd__",
    "SwigPyIterator___isub__", "SwigPyIterator___add__", "SwigPyIterator___sub__",
    "setInstance", "getMemoryProxy",
    "new_broker", "delete_broker", "broker_shutdown", "broker_isModulePresent",
    "broker_getGlobalModuleList", "broker_swigregister",
    "new_proxy", "delete_proxy", "proxy_pythonCall", "proxy_pythonPCall", "proxy_wait",
    "proxy_stop", "proxy_isRunning", "proxy_swigregister",
    "new_baseModule", "delete_baseModule", "baseModule_BIND_PYTHON", "baseModule__bindWithParam",
    "baseModule_autoBind", "baseModule_functionName", "baseModule_addParam",
    "baseModule_setModuleDescription", "baseModule_exit", "baseModule_getName",
    "baseModule_getBrokerName", "baseModule_version", "baseModule__methodMissing",
    "baseModule_swigregister",
] + [f"baseModule__methodMissing{n}" for n in range(7)] + [
    "new_module", "delete_module", "module_BIND_PYTHON", "module_exit", "module_getName",
    "module_getBrokerName", "module__methodMissing", "module_version", "module_swigregister",
    "new_behavior", "delete_behavior", "behavior_swigregister",
] + [f"behavior_{name}" for name in """
    setEnabled isEnabled setResources waitFor waitResourcesCallback isResourceFree
    waitResourceFree waitResources releaseResource addInput addOutput addParameter getParameter
    getParametersList setParameter stimulateIO BIND_PYTHON setModuleDescription addParam exit
    getName getBrokerName _methodMissing version hasTimeline hasParentTimeline getTimeline
    getParentTimeline
""".split()] + [
    "new_timeline", "delete_timeline", "timeline_swigregister", "timeline_play",
    "timeline_pause", "timeline_stop", "timeline_goTo", "timeline_getSize", "timeline_getFPS",
    "timeline_setFPS",
    "new_KXMemoryProxy", "delete_KXMemoryProxy", "KXMemoryProxy_swigregister",
] + [f"KXMemoryProxy_{name}" for name in """
    post_set post_get getGenericProxy declareEvent exit getBrokerName getData getDataList
    getDataListName getDataOnChange getDataPtr getDescriptionList getEventHistory getEventList
    getExtractorEvent getListData getMethodHelp getMethodList getMicroEventList getModuleHelp
    getSubscribers getTimestamp getType getUsage insertData insertListData isRunning ping
    raiseEvent raiseMicroEvent removeData removeMicroEvent setDescription stop subscribeToEvent
    subscribeToMicroEvent unregisterModuleReference unsubscribeToEvent unsubscribeToMicroEvent
    version wait
""".split()]


def _extension_path():
    return os.path.realpath(_ivelmo.__file__)


def test_shadow_module_sits_beside_the_extension():
    assert os.path.basename(_extension_path()) == "_ivelmo.so"
    assert os.path.dirname(os.path.realpath(ivelmo.__file__)) == os.path.dirname(_extension_path())
    assert ivelmo.StringVector is not None
    assert ivelmo._KXSystem("true") is True


def test_only_the_initialiser_is_exported():
    out = subprocess.run(["nm", "-D", "--defined-only", _extension_path()],
                         check=True, capture_output=True, text=True).stdout
    symbols = [line.split()[-1] for line in out.splitlines() if line.strip()]
    assert symbols == ["PyInit__ivelmo"]


def test_extension_uses_the_shared_framework_library_and_not_libpython():
    out = subprocess.run(["readelf", "-d", _extension_path()],
                         check=True, capture_output=True, text=True).stdout
    needed = [line.split("[")[1].rstrip("]") for line in out.splitlines() if "(NEEDED)" in line]
    assert "libvelmo.so" in needed
    assert not [name for name in needed if name.startswith("libpython")]


def test_every_catalogue_function_exists():
    assert [name for name in CATALOGUE if not callable(getattr(_ivelmo, name, None))] == []


VECTOR = "std::vector< std::string,std::allocator< std::string > > const &"
BOX, TIMELINE = object(), object()  # stand for a box and a timeline of the test's own
# (function, its arguments, the argument refused, its declared type)
DECLARED_TYPES = [
    ("new_behavior", [1], 1, "char *"),
    ("behavior_isEnabled", [None], 1, "KX::behavior *"),  # None is no object
    ("KXMemoryProxy_ping", [None], 1, "KX::KXMemoryProxy *"),
    ("behavior_addInput", [BOX, 5], 2, "char *"),
    ("behavior_setResources", [BOX, 5, 1], 2, VECTOR),
    ("behavior_setResources", [BOX, ["a"], "1"], 3, "int"),
    ("behavior_waitFor", [BOX, ["a"], 5, 1, 1], 3, "char const *"),
    ("behavior_waitResourcesCallback", [BOX, 1], 2, "char const *"),
    ("new_timeline", [BOX], 1, "std::shared_ptr< KX::KXTimeline >"),
    ("timeline_play", [BOX], 1, "KX::timeline *"),
    ("timeline_setFPS", [TIMELINE, "25"], 2, "int"),
]


@pytest.mark.parametrize("function, arguments, refused, declared", DECLARED_TYPES)
def test_arguments_of_other_types_are_refused_with_their_declared_type(
        root_broker, function, arguments, refused, declared):
    box = ivelmo.behavior("Typed")
    stand_ins = {id(BOX): box, id(TIMELINE): box.getTimeline()}
    arguments = [stand_ins.get(id(argument), argument) for argument in arguments]
    with pytest.raises(TypeError) as raised:
        getattr(_ivelmo, function)(*arguments)
    assert str(raised.value) == f"in method '{function}', argument {refused} of type '{declared}'"


def test_no_framework_error_type_leaks_into_the_module():
    # Framework errors arrive as RuntimeError; the module defines no exception class.
    assert not [name for name in dir(_ivelmo)
                if isinstance(getattr(_ivelmo, name), type)
                and issubclass(getattr(_ivelmo, name), BaseException)]
