"""The layer's error type, and the translation of the flat API's errors into it."""
import contextlib
import re

# "\t<module>::<method>\n\t<description>", the description possibly over several lines.
_FRAMEWORK_TEXT = re.compile(r"\t(?P<module>.*?)::(?P<method>[^\n]*)\n\t(?P<description>.*)",
                             re.DOTALL)


class Error(RuntimeError):
    """A framework error: which module's method failed, and why.

    ``str(error)`` is the framework's own text; ``module``, ``method`` and
    ``description`` are its parts (``module`` and ``method`` are empty when the text
    does not name them, and ``description`` is then the whole text).
    """

    def __init__(self, text):
        super().__init__(text)
        match = _FRAMEWORK_TEXT.fullmatch(text)
        if match:
            self.module, self.method, self.description = match.group(
                "module", "method", "description")
        else:
            self.module, self.method, self.description = "", "", text


@contextlib.contextmanager
def translated():
    """Raises the flat API's RuntimeError as an Error, with the same text."""
    try:
        yield
    except Error:
        raise
    except RuntimeError as error:
        # The flat error adds nothing that the new one does not carry.
        raise Error(str(error)) from None
