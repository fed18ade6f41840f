"""micampls: look inside an MPLS agent from Python, read-only.

Two ways in:

- ``Store`` reads an agent's store (and its hardware writer's) the way
  ``mpls-show`` does: tables, change logs, hardware tables, counters, and
  where a label stands. It works whether or not the agent runs.
- ``Agent`` asks a running agent through its inspection endpoint
  (``<store>/<agent>.0/.inspect``): the same questions as ``mpls-show why``
  and ``mpls-show top``, and any object's attributes and collections.

Everything comes back as plain Python objects (dicts, lists, numbers,
strings)::

    import micampls
    store = micampls.Store("mpls-agent")
    for e in store.entries("lem", 1):
        print(e["label"], e["fecId"])
    with micampls.Agent("mpls-agent") as agent:
        print(agent.why("lem", 1, 1234)["verdict"])
"""

import json
import os
import socket

from . import _micampls

__all__ = ["Store", "Agent", "StoreError", "AgentError", "DEFAULT_ROOT"]

StoreError = _micampls.StoreError
DEFAULT_ROOT = "/dev/shm/mica-mpls"


class AgentError(RuntimeError):
    """The agent refused a request, or is not running."""


def _root(root):
    return root or os.environ.get("MICA_SHM_ROOT") or DEFAULT_ROOT


def _check_key(unit, label, qualifier):
    if not 0 <= unit <= 65535:
        raise ValueError(f"unit {unit}: want 0 to 65535")
    if not 0 <= label <= 0xFFFFF:
        raise ValueError(f"label {label}: want 0 to 1048575")
    if not 0 <= qualifier <= 255:
        raise ValueError(f"qualifier {qualifier}: want 0 to 255")


class Store:
    """An agent's store, read-only (no lock taken, nothing written).

    ``root`` is the store's root directory (default: $MICA_SHM_ROOT, else
    /dev/shm/mica-mpls); it applies to the whole process. Missing stores,
    instances or tables raise StoreError (``.args[0]`` is mpls-show's exit
    code, 4 for "not there").
    """

    def __init__(self, agent="mpls-agent", root=None):
        self.agent = agent
        self.root = _root(root)
        _micampls.set_root(self.root)

    def summary(self):
        """Versions logged and confirmed per table type, entries per unit."""
        return json.loads(_micampls.summary(self.agent))

    def units(self, table):
        """The units a table type has in the agent's or the hardware's store."""
        for t in self.summary()["tables"]:
            if t["table"].lower() in (table.lower(), "mpls" + table.lower()):
                return [u["unit"] for u in t["units"]]
        raise ValueError(f"unknown table {table!r}: use isem2 or lem")

    def entries(self, table, unit, label=None):
        """A unit's committed entries (dicts), by label."""
        return json.loads(_micampls.entries(self.agent, table, unit, label))["entries"]

    def log(self, table, first=0, limit=0):
        """Change-log records from version ``first`` on (``limit`` 0: all)."""
        return json.loads(_micampls.log(self.agent, table, first, limit))["records"]

    def hw(self, table, unit):
        """A unit's hardware table (the hardware writer's), by label."""
        return json.loads(_micampls.hw(self.agent, table, unit))["entries"]

    def refused(self, table, unit):
        """The changes of a unit the hardware refused (the hardware writer's
        records): label, qualifier, version, reason."""
        return json.loads(_micampls.hw(self.agent, table, unit))["refused"]

    def stats(self):
        """The table counters the agent publishes."""
        return json.loads(_micampls.stats(self.agent))["stats"]

    def why(self, table, unit, label, qualifier=0):
        """Where a label stands, as the stores tell it."""
        _check_key(unit, label, qualifier)
        return json.loads(_micampls.why(self.agent, table, unit, label, qualifier))


class Agent:
    """A connection to a running agent's inspection endpoint.

    Raises AgentError when no agent listens, or when it refuses a request
    (the message says why). Use as a context manager, or call close().
    """

    def __init__(self, agent="mpls-agent", root=None, timeout=10.0):
        self.path = os.path.join(_root(root), f"{agent}.0", ".inspect")
        self._sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._sock.settimeout(timeout)
        try:
            self._sock.connect(self.path)
        except OSError as e:
            self._sock.close()
            raise AgentError(f"no agent listens at {self.path}: {e.strerror}") from None
        self._buf = b""

    def close(self):
        self._sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def ask(self, op, **fields):
        """Sends one request and returns the reply (without "ok")."""
        self._sock.sendall((json.dumps(dict(op=op, **fields)) + "\n").encode())
        while b"\n" not in self._buf:
            chunk = self._sock.recv(65536)
            if not chunk:
                raise AgentError("the agent closed the connection")
            self._buf += chunk
        line, self._buf = self._buf.split(b"\n", 1)
        reply = json.loads(line)
        if not reply.pop("ok", False):
            raise AgentError(reply.get("error", "refused"))
        return reply

    def tables(self):
        """Every table and unit with its counts, and the resource tables."""
        return self.ask("tables")

    def why(self, table, unit, label, qualifier=0):
        """Where a label stands in the running agent, and why."""
        _check_key(unit, label, qualifier)
        return self.ask("why", table=table, unit=unit, label=label, qualifier=qualifier)

    def top(self):
        """Counters, queue depths, waits by cause, the oldest waiting change."""
        return self.ask("top")

    def object(self, name, **where):
        """Every attribute of an object: "table" or "linkage" (table=, unit=),
        "entryLog" (table=), "resolver", "inLifs", "adjacencies"."""
        return self.ask("object", object=name, **where)["object"]

    def walk(self, name, collection, page=500, **where):
        """Yields every element of an object's collection, a page at a time."""
        after = None
        while True:
            r = self.ask("walk", object=name, collection=collection,
                         limit=page, after=after, **where)
            yield from r["elements"]
            after = r["next"]
            if after is None:
                return

    def entries(self, table, unit):
        """What the table's clients read: pending writes, then committed entries."""
        return list(self.walk("table", "entries", table=table, unit=unit))
