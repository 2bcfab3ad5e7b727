# SPDX-License-Identifier: BSD-2-Clause
"""gdb shows the library's strings, buffers, arrays, fault identifiers and hierarchic numbers as what they stand for.

Loaded by gdb together with the shared library. For a program that is linked to the static one:

    (gdb) source /usr/share/zeloo/gdb/zeloo.py

What is damaged, or not constructed yet, is shown as far as it can be read. `print/r` shows the members instead.
"""

import gdb
import gdb.printing


def text_of(string):
    """The text of a CString, or why there is none."""
    try:
        rep = string["cp"].dereference()
        text = rep["rep"]
        if int(text) == 0:
            return "<no text>"
        text.dereference().fetch_lazy()
        return text.lazy_string(length=int(rep["len"]))
    except gdb.error as error:
        return "<damaged: %s>" % error


class CStringPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return text_of(self.value)

    def display_hint(self):
        return "string" if not isinstance(self.to_string(), str) else None


class BufferPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return "Buffer of %d bytes" % int(self.value["AllocSize"])

    def children(self):
        start, size = self.value["ptr"], int(self.value["AllocSize"])
        if int(start) == 0 or size == 0:
            return
        byte = gdb.lookup_type("unsigned char")
        yield "data", start.cast(byte.pointer()).dereference().cast(byte.array(size - 1))


class FaultIdPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return "FaultId"

    def children(self):
        yield "id", self.value["myId"]
        yield "node", self.value["myNodename"]
        yield "text", text_of(self.value)


class HierarchicNumPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        text = text_of(self.value["text_rep"])
        if not isinstance(text, str):
            text = text.value().string(errors="replace") if text.length > 0 else ""
        return text + ("" if int(self.value["valid"]) else " (not valid)")


class CellsPrinter:
    """A ulongArray."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return "ulongArray of %d" % int(self.value["numCells"])

    def children(self):
        cells = self.value["theCells"]
        for i in range(int(self.value["numCells"]) if int(cells) else 0):
            yield "[%d]" % i, cells[i]

    def display_hint(self):
        return "array"


class ArrayPrinter:
    """A SafeArray: its elements instead of their addresses."""

    def __init__(self, value, element):
        self.value = value
        self.element = element  # the type, or None in an untyped array

    def to_string(self):
        quantity, capacity = int(self.value["myQuantity"]), int(self.value["myCapacity"])
        name = self.value.type.unqualified().strip_typedefs().name
        text = "%s of %d" % (name, quantity)
        if quantity > capacity:
            text += " <damaged: there is room for %d>" % capacity
        return text + (" (not owned)" if int(self.value["isPurgeable"]) else "")

    def children(self):
        slots = self.value["list"]
        quantity = min(int(self.value["myQuantity"]), int(self.value["myCapacity"]))
        for i in range(quantity if int(slots) else 0):
            yield "[%d]" % i, self.element_at(slots[i])

    def element_at(self, pointer):
        if self.element is None or int(pointer) == 0:
            return pointer
        typed = pointer.cast(self.element.pointer())
        try:
            return typed.cast(typed.dynamic_type).dereference()
        except gdb.error:
            return typed.dereference()

    def display_hint(self):
        return "array"


def element_of(kind):
    """The element type of SafeArray<X>; None for SafeArrayBase; False for what is no array, or has members of its own."""
    if kind.name == "SafeArrayBase":
        return None
    fields = [field for field in kind.fields() if not field.artificial and hasattr(field, "bitpos")]
    if len(fields) != 1 or not fields[0].is_base_class:
        return False
    if kind.name and kind.name.startswith("SafeArray<") and fields[0].type.name == "SafeArrayBase":
        return kind.template_argument(0)
    base = fields[0].type.strip_typedefs()
    return element_of(base) if base.code == gdb.TYPE_CODE_STRUCT and base.name != "SafeArrayBase" else False


class Printers(gdb.printing.PrettyPrinter):
    named = {
        "CString": CStringPrinter,
        "Buffer": BufferPrinter,
        "FaultId": FaultIdPrinter,
        "HierarchicNum": HierarchicNumPrinter,
        "ulongArray": CellsPrinter,
    }

    def __init__(self):
        super().__init__("zeloo")

    def __call__(self, value):
        kind = value.type.unqualified().strip_typedefs()
        if kind.code != gdb.TYPE_CODE_STRUCT:
            return None
        if kind.name in self.named:
            return self.named[kind.name](value)
        element = element_of(kind)
        return ArrayPrinter(value, element) if element is not False else None


gdb.printing.register_pretty_printer(gdb.current_objfile(), Printers(), replace=True)
