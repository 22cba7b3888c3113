"""Rule tables and procedures; ``reduce`` is the native extension module.

The tables are built once when the module loads, and the driver runs the
native rows, not these Python views of them: editing a view would change
nothing the driver does. So the views are read-only, and so are the
module's table and procedure names. To leave rows out of a run, pass
``skip=[...]`` or ``only=[...]`` to ``run_reduce`` or ``tolm.reduce``.
"""

from __future__ import annotations

import types
from collections import OrderedDict
from typing import Any, NoReturn

from . import reduce

_HOW = "pass skip=[...] or only=[...] to run_reduce or tolm.reduce to choose rules"


def _refuse(what: str) -> NoReturn:
    raise TypeError(f"{what} is read-only: the driver runs the tables built at load; {_HOW}")


class ReadOnlyList(list):
    """A row's ``ops`` or ``n_pre_nodes``: a list that cannot change."""

    def _no(self, *args: Any, **kw: Any) -> NoReturn:
        _refuse("a rule row")

    __setitem__ = __delitem__ = __iadd__ = __imul__ = _no
    append = extend = insert = pop = remove = clear = sort = reverse = _no

    def __reduce__(self):
        return (list, (list(self),))


class ReadOnlyRow(dict):
    """One table row: ``ops``, ``proc`` and the optional fields."""

    def _no(self, *args: Any, **kw: Any) -> NoReturn:
        _refuse("a rule row")

    __setitem__ = __delitem__ = __ior__ = _no
    pop = popitem = clear = update = setdefault = _no

    def __reduce__(self):
        return (dict, (dict(self),))


class ReadOnlyTable(OrderedDict):
    """A rule table: rule key -> row, in the order the driver tries them."""

    def _no(self, *args: Any, **kw: Any) -> NoReturn:
        _refuse("the rule table")

    __setitem__ = __delitem__ = __ior__ = _no
    pop = popitem = clear = update = setdefault = move_to_end = _no

    def __reduce__(self):
        # Copies and pickles are plain ordered dicts: those may be edited.
        return (OrderedDict, (list(self.items()),))


def _freeze_row(row: dict) -> ReadOnlyRow:
    out = ReadOnlyRow()
    for k, v in row.items():
        dict.__setitem__(out, k, ReadOnlyList(v) if isinstance(v, list) else v)
    return out


def _freeze_table(table: OrderedDict) -> ReadOnlyTable:
    out = ReadOnlyTable()
    for key, row in table.items():
        OrderedDict.__setitem__(out, key, _freeze_row(row))
    return out


class _RulesModule(types.ModuleType):
    """The module object of ``reduce``: its tables and procedures cannot be
    replaced or deleted, since the driver would not see the change."""

    def __setattr__(self, name: str, value: Any) -> None:
        if name in ("fuse_reduce", "cvt_reduce") or name.startswith("_p_"):
            _refuse(f"reduce.{name}")
        super().__setattr__(name, value)

    def __delattr__(self, name: str) -> None:
        if name in ("fuse_reduce", "cvt_reduce") or name.startswith("_p_"):
            _refuse(f"reduce.{name}")
        super().__delattr__(name)


if not isinstance(reduce, _RulesModule):
    types.ModuleType.__setattr__(reduce, "fuse_reduce", _freeze_table(reduce.fuse_reduce))
    types.ModuleType.__setattr__(reduce, "cvt_reduce", _freeze_table(reduce.cvt_reduce))
    reduce.__class__ = _RulesModule

__all__ = ["reduce"]
