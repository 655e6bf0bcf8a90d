"""The tree's shared memory, with subscriptions answered by Python callables."""
import uuid

from .module import Module
from .proxy import Proxy


class _Subscriber(Module):
    """Hands the memory's notifications to the callables subscribed in this program."""

    def __init__(self, name, callbacks):
        super().__init__(name)
        self._callbacks = callbacks

    def onValue(self, name, value, message):
        """Called by KXMemory with each new value of a name subscribed to."""
        callback = self._callbacks.get(name)
        if callback is not None:
            callback(name, value)


class Memory(Proxy):
    """``KXMemory``, found through the current broker (or the broker at `ip`:`port`):
    every memory method as on a Proxy, plus ``get``, ``set``/``insert``, and
    subscriptions with Python callables.

    ``subscribe(name, fn)`` calls ``fn(name, value)`` for every new value of `name`, in
    order, on a framework thread. The notifications reach a hidden module of the
    current broker, created at the first subscription and left on ``close()`` (or at
    the end of a ``with`` block).
    """

    def __init__(self, ip=None, port=None):
        super().__init__("KXMemory", ip, port)
        self._callbacks = {}
        self._subscriber = None

    def get(self, name):
        """The value stored under `name`."""
        return self._call("getData", (name,))

    def set(self, name, value):
        """Stores `value` under `name` (its subscribers are called)."""
        self._call("insertData", (name, value))

    insert = set

    def subscribe(self, name, callback):
        """Calls ``callback(name, value)`` for every new value of `name`; replaces this
        object's earlier subscription to `name`."""
        if not callable(callback):
            raise TypeError(f"{callback!r} is not callable")
        if self._subscriber is None:
            self._subscriber = _Subscriber("VelmoSubscriber_" + uuid.uuid4().hex,
                                           self._callbacks)
        self._callbacks[name] = callback
        try:
            self._call("subscribeToEvent",
                       (name, self._subscriber.getName(), "", "onValue"))
        except Exception:
            del self._callbacks[name]
            raise

    def unsubscribe(self, name):
        """Ends the subscription to `name` (KeyError when there is none)."""
        if name not in self._callbacks:
            raise KeyError(name)
        self._call("unsubscribeToEvent", (name, self._subscriber.getName()))
        del self._callbacks[name]

    def close(self):
        """Ends every subscription and removes the hidden module."""
        for name in list(self._callbacks):
            self.unsubscribe(name)
        if self._subscriber is not None:
            subscriber, self._subscriber = self._subscriber, None
            subscriber.exit()

    def __enter__(self):
        return self

    def __exit__(self, *exc_info):
        self.close()

    def __repr__(self):
        return "<velmo.Memory>"
