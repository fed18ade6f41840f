"""micampls against real programs: a store read while no agent runs, a
running agent asked live, and the README's example run as written."""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import pytest

import micampls

TOOLS = os.environ.get("MICA_TOOLS_DIR", "")
SOURCE = os.environ.get("MICA_SOURCE_DIR", "")


def eventually(check, seconds=120):
    deadline = time.monotonic() + seconds
    while True:
        value = check()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(0.05)


@pytest.fixture()
def root():
    base = "/dev/shm" if os.path.isdir("/dev/shm") else None
    path = tempfile.mkdtemp(prefix="micampls-", dir=base)
    yield path
    shutil.rmtree(path, ignore_errors=True)


def start(root, name, *args):
    return subprocess.Popen([os.path.join(TOOLS, name), "--store", root, *args],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def test_live_agent_then_store_and_the_readme_example(root):
    desired = os.path.join(root, "set.conf")
    with open(desired, "w") as f:
        f.write("lem 1 10 adj=1\nlem 1 11 adj=2\nlem 1 12 adj=3\n"
                "lem 1 20 adj=7\nisem2 1 30 inlif=5\n")
    hw = start(root, "mpls-hw", "--capacity", "2")
    agent = start(root, "mpls-agent", desired, "--stay", "--hold-adj", "7")
    try:
        def held():
            try:
                with micampls.Agent(root=root) as a:
                    w = a.why("lem", 1, 20)
                    # Parked on its resource once the resolver looked at it.
                    return w if w["pending"] and w["pending"]["changes"] and \
                        w["pending"]["changes"][0]["waitsOn"] == "resource" else None
            except micampls.AgentError:
                return None

        why = eventually(held)
        assert why, "the held label never showed as waiting"
        assert why["pending"]["changes"][0]["waitsOn"] == "resource"
        assert why["desired"] == {"l2AdjId": 7}
        with micampls.Agent(root=root) as a:
            assert eventually(lambda: a.top()["resolver"]["parkedOn"]["resource"] == 1)
            # What clients read: the held write too, pending.
            assert eventually(lambda: sorted(
                e["key"]["label"] for e in a.entries("lem", 1)) == [10, 11, 12, 20])
            assert a.object("resolver")["class"] == "Asic::GroupResolver"
            users = list(a.walk("linkage", "entryUsageSm", page=1, table="lem", unit=1))
            assert {u["resource"]["key"]["l2AdjId"] for u in users} >= {1, 2, 3}
            with pytest.raises(micampls.AgentError, match="no table of unit 9"):
                a.why("lem", 9, 1)
            with pytest.raises(ValueError):
                a.why("lem", 1, 1 << 20)
            # The others reach the hardware, or are refused by it.
            assert eventually(lambda: all(
                a.why("lem", 1, l)["verdict"]["state"] in ("inHardware", "refused")
                for l in (10, 11, 12)))
    finally:
        agent.send_signal(signal.SIGTERM)
        agent.wait(timeout=120)
        hw.send_signal(signal.SIGTERM)
        hw.wait(timeout=120)

    with pytest.raises(micampls.AgentError):
        micampls.Agent(root=root)
    store = micampls.Store(root=root)
    assert store.units("lem") == [1]
    assert sorted(e["label"] for e in store.entries("lem", 1)) == [10, 11, 12]
    assert len(store.hw("lem", 1)) == 2  # the hardware table holds two
    states = sorted(store.why("lem", 1, l)["verdict"]["state"] for l in (10, 11, 12))
    assert states == ["inHardware", "inHardware", "refused"]
    assert [r["reason"] for r in store.refused("lem", 1)] == ["hardware table full"]
    lem = store.summary()["tables"][1]
    assert lem["loggedVersion"] == lem["confirmedVersion"] == 3
    # What is not retired yet of the change log: writes of those versions.
    assert all(r["op"] == "write" and r["version"] <= 3 for r in store.log("lem"))
    assert {(s["table"], s["unit"]) for s in store.stats()} == {
        ("MplsIsem2", 1), ("MplsLem", 1)}
    with pytest.raises(micampls.StoreError) as e:
        store.entries("lem", 9)
    assert e.value.args[0] == 4

    # The README's example, as written there, finds the refused label.
    readme = open(os.path.join(SOURCE, "README.md")).read()
    code = re.search(r"<!-- example: fec-not-in-hw -->\s*```python\n(.*?)```",
                     readme, re.S).group(1)
    out = subprocess.run([sys.executable, "-c", code], check=True,
                         capture_output=True, text=True,
                         env=dict(os.environ, MICA_SHM_ROOT=root)).stdout
    refused = [l for l in (10, 11, 12)
               if store.why("lem", 1, l)["verdict"]["state"] == "refused"]
    assert out.split() == ["lem", "unit", "1", "label", str(refused[0]),
                           "fec", out.split()[6], "not", "in", "the", "hardware"]
