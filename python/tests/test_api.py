"""The module's surface: one row per call, on a fresh tree each time."""
import types

import pytest
import zuresource as zr


@pytest.fixture
def w():
    broker = zr.Broker()
    w = types.SimpleNamespace(broker=broker, head=zr.Resource("Head"), arm=zr.Resource("Arm"),
                              stand=zr.StateResource("Stand"))
    w.body = zr.Group("Body", [w.head, w.arm])
    w.a, w.b = zr.Owner("a", "A", broker), zr.Owner("b", "B", broker)
    w.calls = []
    broker.add_module("A", w.calls.append)
    return w


def held(w, resource, *then):
    resource.wait_for(w.a)
    return [step() for step in then]


def acquired_then_raise(w):
    with pytest.raises(KeyError):
        with w.body.acquired(w.a, timeout=0) as got:
            assert got is w.body and w.head.holder == "a"
            raise KeyError
    return w.head.holder, w.arm.holder


ROWS = [
    ("free plain", lambda w: (w.head.wait_for(w.a), w.head.holder, w.head.is_resource_owned("A")),
     ([], "a", True)),
    ("busy, on the no-wait list", lambda w: held(w, w.head, lambda: w.head.wait_for(w.b, no_wait=["Head"])),
     [["Head"]]),
    ("group, one busy member on the no-wait list",
     lambda w: held(w, w.arm, lambda: w.body.wait_for(w.b, no_wait=["Arm"]), lambda: w.head.holder),
     [["Arm"], "b"]),
    ("descendant handed down at once",
     lambda w: held(w, w.head, lambda: w.head.wait_for(zr.Owner("a/look", "A")), lambda: w.head.holder),
     [[], "a/look"]),
    ("switch_owner", lambda w: held(w, w.head, lambda: w.head.switch_owner(w.b), lambda: w.head.holder),
     [None, "b"]),
    ("release", lambda w: held(w, w.head, lambda: w.head.release(w.a), w.head.is_resource_free, lambda: w.a.stopped),
     [None, True, True]),
    ("reports", lambda w: held(w, w.body, lambda: w.body.http_get(), w.body.owners_get),
     ["---Body<br />------Head -> A eStrong null 0<br />------Arm -> A eStrong null 0<br />",
      [["Body"], [["Head", "A", None], ["Arm", "A", None]]]]),
    ("explain, busy", lambda w: held(w, w.head, lambda: {k: v for k, v in w.head.explain(w.b).items()
                                                      if k in ("answer", "holder", "notifies", "would_wait")}),
     [{"answer": "waits", "holder": "a", "notifies": True, "would_wait": True}]),
    ("explain, group", lambda w: [(m["resource"], m["answer"]) for m in w.body.explain(w.a)["members"]],
     [("Head", "takes"), ("Arm", "takes")]),
    ("state resource, activated",
     lambda w: (w.stand.set_state(True), w.stand.wait_for(w.a), w.stand.wait_for(w.b), w.stand.holders,
                w.stand.release(w.a), w.stand.holders, w.stand.activated),
     (None, [], [], ["a", "b"], None, ["b"], True)),
    ("state resource, not activated, no-wait", lambda w: w.stand.wait_for(w.a, no_wait=["Stand"]), ["Stand"]),
    ("group membership", lambda w: (w.body.is_in_group("Arm"), [m.name for m in w.body.members],
                                    w.body.delete_resource("Arm"), [m.name for m in w.body.members]),
     (True, ["Head", "Arm"], None, ["Head"])),
    ("context manager releases on an exception", acquired_then_raise, ("emptyOwner", "emptyOwner")),
]


@pytest.mark.parametrize("call,expected", [r[1:] for r in ROWS], ids=[r[0] for r in ROWS])
def test_call(w, call, expected):
    assert call(w) == expected


ERRORS = [
    ("empty owner", lambda w: w.head.wait_for(None),
     ("ZUResource", "waitFor", "empty owner handle")),
    ("time limit", lambda w: held(w, w.head, lambda: w.head.wait_for(w.b, timeout=0)),
     ("ResourceManager", "waitResource", "resource wait has timeouted on Head")),
    ("stopped requester", lambda w: held(w, w.head, w.b.free_resource, lambda: w.head.wait_for(w.b, timeout=5)),
     ("ResourceManager", "waitResource", "box stop while waiting")),
    ("unknown member", lambda w: w.body.delete_resource("Leg"),
     ("ZUResourceList", "deleteResource", "Resource not found Leg")),
    ("group in itself", lambda w: w.body.add_resource(w.body),
     ("ZUResourceList", "addResource", "a group cannot be a member of itself: Body")),
]


@pytest.mark.parametrize("call,expected", [r[1:] for r in ERRORS], ids=[r[0] for r in ERRORS])
def test_error(w, call, expected):
    with pytest.raises(zr.Error) as raised:
        call(w)
    e = raised.value
    assert (e.module, e.method, e.description) == expected
    assert str(e).startswith(f"ZUError: {e.module}::{e.method}: {e.description} (behavior/lib/")


def test_not_obtained_gives_everything_back(w):
    w.arm.wait_for(w.b)
    with pytest.raises(zr.NotObtained) as raised:
        with w.body.acquired(w.a, no_wait=["Arm"]):
            pytest.fail("the body ran without the arm")
    assert raised.value.names == ["Arm"] and isinstance(raised.value, zr.Error)
    assert (w.head.holder, w.arm.holder) == ("emptyOwner", "b")
