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


@pytest.mark.parametrize("name", CATALOGUE)
def test_catalogue_function_exists(name):
    assert callable(getattr(_ivelmo, name))


def test_no_framework_error_type_leaks_into_the_module():
    # Framework errors arrive as RuntimeError; the module defines no exception class.
    assert not [name for name in dir(_ivelmo)
                if isinstance(getattr(_ivelmo, name), type)
                and issubclass(getattr(_ivelmo, name), BaseException)]
