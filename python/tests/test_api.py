"""The module's surface: one row per call, on a fresh tree each time."""
import contextlib
import types

import pytest
import zuresource as zr


@pytest.fixture
def w():
    broker = zr.Broker()
    w = types.SimpleNamespace(head=zr.Resource("Head"), arm=zr.Resource("Arm"), stand=zr.StateResource("Stand"),
                              broker=broker)  # owners hold their broker weakly
    w.body = zr.Group("Body", [w.head, w.stand])
    w.a, w.b = zr.Owner("a", "A", broker), zr.Owner("b", "B", broker)
    broker.add_module("A", None)
    return w


def held(w, resource, *then):
    resource.wait_for(w.a)
    return [step() for step in then]


def acquired_then_raise(w):
    with pytest.raises(KeyError), w.head.acquired(w.a, timeout=0) as got:
        assert got is w.head and w.head.holder == "a"
        raise KeyError
    return w.head.holder


ROWS = [
    ("free", lambda w: (w.head.wait_for(w.a), w.head.holder, w.head.is_resource_owned("A")), ([], "a", True)),
    ("no-wait", lambda w: held(w, w.head, lambda: w.body.wait_for(w.b, no_wait=["Head", "Stand"])), [["Head", "Stand"]]),
    ("switch_owner, release", lambda w: held(w, w.head, lambda: w.head.switch_owner(w.b), lambda: w.head.release(w.b),
                                            w.head.is_resource_free, lambda: w.b.stopped), [None, None, True, True]),
    ("reports", lambda w: held(w, w.head, lambda: w.body.http_get(1), w.body.owners_get, lambda: w.b.waiters),
     ["------Body<br />---------Head -> A eStrong null 0<br />---------Stand Waiter: null<br />",
      [["Body"], [["Head", "A", None], ["Stand"]]], None]),
    ("explain", lambda w: held(w, w.head, lambda: {k: v for k, v in w.body.explain(w.b).items()
                                                   if k in ("answer", "first_wait", "would_wait")},
                                 lambda: [(m["answer"], m["holder"], m["notifies"]) for m in w.body.explain(w.b)["members"]]),
     [{"answer": "group", "first_wait": 0, "would_wait": True}, [("waits", "a", True), ("awaitsActivation", "Stand", False)]]),
    ("state", lambda w: (w.stand.set_state(True), w.stand.wait_for(w.a), w.stand.wait_for(w.b), w.stand.holders,
                         w.stand.release(w.a), w.stand.holders, w.stand.activated), (None, [], [], ["a", "b"], None, ["b"], True)),
    ("snapshot", lambda w: held(w, w.head, lambda: [(r["name"], r["kind"], r["holders"]) for r in zr.snapshot([w.body])["resources"]],
                                lambda: zr.snapshot([w.head])["owners"]),
     [[("Body", "group", []), ("Head", "plain", ["a"]), ("Stand", "state", [])],
      [{"name": "a", "module": "A", "parent_owners": {}, "release_flag": False}]]),
    ("members keep their class", lambda w: [type(m) for m in w.body.members], [zr.Resource, zr.StateResource]),
    ("context manager releases on an exception", acquired_then_raise, zr.PLACEHOLDER),
]


@pytest.mark.parametrize("call,expected", [r[1:] for r in ROWS], ids=[r[0] for r in ROWS])
def test_call(w, call, expected):
    assert call(w) == expected


ERRORS = [
    ("empty owner", lambda w: w.head.wait_for(None), ("ZUResource", "waitFor", "empty owner handle")),
    ("time limit", lambda w: held(w, w.head, lambda: w.head.wait_for(w.b, timeout=0)),
     (zr.WAIT_ERROR_MODULE, zr.WAIT_ERROR_METHOD, zr.WAIT_TIMED_OUT_PREFIX + "Head")),
    ("stopped requester", lambda w: held(w, w.head, w.b.free_resource, lambda: w.head.wait_for(w.b, timeout=5)),
     (zr.WAIT_ERROR_MODULE, zr.WAIT_ERROR_METHOD, zr.STOP_WHILE_WAITING)),
    ("unknown member", lambda w: w.body.delete_resource("Leg"), ("ZUResourceList", "deleteResource", "Resource not found Leg")),
]


@pytest.mark.parametrize("call,expected", [r[1:] for r in ERRORS], ids=[r[0] for r in ERRORS])
def test_error(w, call, expected):
    with pytest.raises(zr.Error) as raised:
        call(w)
    e = raised.value
    assert (e.module, e.method, e.description) == expected
    assert str(e).startswith(f"ZUError: {e.module}::{e.method}: {e.description} (behavior/lib/")


@pytest.mark.parametrize("arm_busy", [False, True], ids=["block ran", "not obtained"])
def test_the_block_gives_back_only_what_it_took(w, arm_busy):
    leg, ran = zr.Resource("Leg"), []
    w.head.wait_for(w.a)  # held before the block
    if arm_busy:
        w.arm.wait_for(w.b)
    with pytest.raises(zr.NotObtained) if arm_busy else contextlib.nullcontext() as raised, \
            zr.Group("All", [w.head, w.arm, leg]).acquired(w.a, no_wait=["Arm"]):
        ran.append((w.arm.holder, leg.holder))
    assert ran == ([] if arm_busy else [("a", "a")])
    assert not arm_busy or (raised.value.names == ["Arm"] and isinstance(raised.value, zr.Error))
    assert (w.head.holder, w.arm.holder, leg.holder) == ("a", "b" if arm_busy else zr.PLACEHOLDER, zr.PLACEHOLDER)


# Names are str: bytes (or a str that UTF-8 cannot encode) are refused where a name goes in.
NOT_NAMES = [
    ("resource", lambda w: zr.Resource(b"He\xffad")),
    ("state resource", lambda w: zr.StateResource(b"Stand")),
    ("group", lambda w: zr.Group(b"Body")),
    ("owner", lambda w: zr.Owner(b"\xfe", "A")),
    ("owner's module", lambda w: zr.Owner("a", b"A")),
    ("module", lambda w: w.broker.add_module(b"A", None)),
    ("no-wait list", lambda w: w.body.wait_for(w.a, no_wait=["Head", b"Stand"])),
    ("label", lambda w: w.head.acquired(w.a, label=b"x")),
    ("member", lambda w: w.body.delete_resource(b"Head")),
    ("lone surrogate", lambda w: zr.Resource("He\udcffad")),
]


@pytest.mark.parametrize("call", [r[1] for r in NOT_NAMES], ids=[r[0] for r in NOT_NAMES])
def test_a_name_that_is_not_str_is_refused(w, call):
    with pytest.raises(TypeError):
        call(w)
    assert (w.head.holder, w.body.members) == (zr.PLACEHOLDER, [w.head, w.stand])


def test_a_name_comes_back_as_given_in_attributes_errors_and_events(w):
    head, events = zr.Resource("Kopf-ü"), []
    a, b = zr.Owner("ä/1", "Mödul", w.broker), zr.Owner("b", "B")
    w.broker.add_module("Mödul", lambda name: events.append(("told", name)))
    with zr.Observer(lambda e: events.append((e["kind"], e["resource"], e["owner"], e["holder_module"]))):
        head.wait_for(a)
        with pytest.raises(zr.Error) as raised:
            head.wait_for(b, timeout=0)
    w.broker.module("Mödul").wait_idle()
    assert (head.name, head.holder, a.name, a.module) == ("Kopf-ü", "ä/1", "ä/1", "Mödul")
    assert raised.value.description == zr.WAIT_TIMED_OUT_PREFIX + "Kopf-ü"
    assert ("granted", "Kopf-ü", "ä/1", "") in events and ("told", "Kopf-ü") in events
    assert ("timedOut", "Kopf-ü", "b", "Mödul") in events
