"""Arbitration of a robot's resources between behaviours: resources, owners,
and an in-process broker whose modules are told "__onResource__".

Names (of resources, owners, modules, labels) are str; bytes are refused with
TypeError where a name goes in, and every name comes back as the same str in
attributes, errors and events.

In the main thread, a signal that Python handles (Ctrl-C) stops a blocking
wait_for, the entry of a `with ... acquired(...)` block or wait_idle within
about one polling period: what the wait took is given back and the handler's
exception (KeyboardInterrupt) is raised; a handler that does not raise lets
the wait go on."""

from types import TracebackType
from typing import Any, Callable, Dict, List, Optional, Protocol, Sequence, Type, Union

PLACEHOLDER: str
"""The holder's name of a free resource ("emptyOwner")."""
WAIT_ERROR_MODULE: str
WAIT_ERROR_METHOD: str
"""The module and method of the errors that end a wait."""
STOP_WHILE_WAITING: str
"""The description of a wait ended because its owner was released meanwhile."""
WAIT_TIMED_OUT_PREFIX: str
"""The description of a wait past its time limit: this, then the resource's name."""

class Error(Exception):
    """An error of the library or the host layer. str() is the library's own
    text; `module`, `method` and `description` are its parts."""

    module: str
    method: str
    description: str

class NotObtained(Error):
    """Raised by `with resource.acquired(...)` when some resources were not
    obtained (they were on the no-wait list); `names` lists them."""

    names: List[str]

class _OnResource(Protocol):
    def on_resource(self, resource: str) -> None: ...

_Handler = Union[Callable[[str], None], _OnResource, None]

class Module:
    """A module on a broker; made by Broker.add_module."""

    @property
    def name(self) -> str: ...
    @property
    def started_tasks(self) -> int:
        """Number of calls started so far."""
    def wait_idle(self) -> None:
        """Blocks until no call is queued or running. Raises RuntimeError when
        called from the module's own handler, which would wait for itself."""

class Broker:
    """An in-process broker: the modules by name."""

    def __init__(self) -> None: ...
    def add_module(self, name: str, handler: _Handler) -> Module:
        """Registers a module named `name` (replacing one of that name) and
        returns it. `handler(resource_name)`, or
        `handler.on_resource(resource_name)`, runs in the module's own thread
        each time an owner of the module is asked for a resource it holds.
        None makes a module without that method. The broker keeps the module
        until it is removed or the broker goes."""
    def remove_module(self, name: str) -> None:
        """Unregisters the module of that name (nothing when there is none).
        Once no one holds it, it stops: queued calls are dropped, a running
        one is waited for."""
    def module(self, name: str) -> Optional[Module]:
        """The module registered under `name`, or None."""

class Owner:
    """A party that holds and requests resources: a behaviour, named
    hierarchically (an owner whose name extends another's is its descendant
    and is handed the resource at once), and the module that stands for it."""

    def __init__(self, name: str, module: str, broker: Optional[Broker] = None) -> None:
        """A strong owner from the library's factory, linked to `broker` (its
        module is told "__onResource__" there). The owner holds the broker
        weakly: once the broker is gone, nobody is told."""
    @property
    def name(self) -> str: ...
    @property
    def module(self) -> str: ...
    @property
    def owner_type(self) -> str: ...
    @property
    def waiters(self) -> Optional[List[str]]:
        """The modules of the owners waiting on this owner, oldest first (or None)."""
    @property
    def stopped(self) -> bool:
        """The release flag: set when the owner let go of a resource to nobody
        (not when it handed one back to an ancestor), or was stopped; while
        set, a wait of this owner on a busy resource fails at its first poll."""
    def free_resource(self) -> None:
        """Stops the owner: waits on it end, and its own wait fails, at the next poll."""
    def is_parent(self, other: Optional[Owner]) -> bool:
        """Whether `other` is an ancestor."""

_Status = Union[str, List["_Status"], None]
_Explanation = Dict[str, Any]
_Wait = Dict[str, Any]

class _ContextManager:
    def __exit__(
        self,
        exc_type: Optional[Type[BaseException]],
        exc: Optional[BaseException],
        tb: Optional[TracebackType],
    ) -> bool: ...

class Acquisition(_ContextManager):
    """The context manager of Resource.acquired: acquires on entering (and
    returns the resource); on leaving gives back what entering took, and only
    that."""

    def __enter__(self) -> Resource: ...

class Resource:
    """A plain resource, held by one owner at a time; also the base of
    StateResource and Group, whose operations are these."""

    def __init__(self, name: str, parent: Optional[Resource] = None) -> None: ...
    @property
    def name(self) -> str: ...
    @property
    def holder(self) -> str:
        """The name of the holder; "emptyOwner" when free."""
    def wait_for(
        self, owner: Optional[Owner], timeout: int = -1, no_wait: Sequence[str] = ..., label: str = ""
    ) -> List[str]:
        """Acquires the resource for `owner`, waiting up to `timeout` seconds
        (negative: no limit) while the holder's module is told
        "__onResource__". Returns the names not obtained: empty when the owner
        holds everything it asked for; a busy resource named in `no_wait` is
        given up at once. Raises Error when the time limit passes or the owner
        is stopped (a group then gives the owner back from every member).
        Other threads run meanwhile."""
    def release(self, owner: Optional[Owner]) -> None:
        """Gives the resource back from `owner`: to the owner that handed it
        down to `owner`, if that one still exists (no release flag is set
        then), otherwise to nobody, setting the release flag of the holder (so
        waits on it end). When `owner` does not hold it, only sets `owner`'s
        release flag (its own pending wait ends)."""
    def switch_owner(self, owner: Optional[Owner], label: str = "", timeout: int = -1) -> None:
        """Makes `owner` the holder at once, telling nobody."""
    def is_resource_free(self) -> bool: ...
    def is_resource_owned(self, module: str) -> bool:
        """Whether the holder's module (every member's, for a group) is `module`."""
    def http_get(self, depth: int = 0) -> str:
        """The status line(s), each ending in "<br />"."""
    def owners_get(self) -> _Status:
        """The status value as nested lists of str: [name] when free, [name,
        module, waiters] when held; a group adds a list of its members' values."""
    def explain(self, owner: Optional[Owner], no_wait: Sequence[str] = ...) -> _Explanation:
        """What wait_for(owner, no_wait=...) would do now, without doing it, as a
        dict: resource, answer, owner, holder, holder_module, waiters, notifies,
        owner_stopped, holders, members (dicts), first_wait, would_wait, text."""
    def acquired(
        self, owner: Optional[Owner], timeout: int = -1, no_wait: Sequence[str] = ..., label: str = ""
    ) -> Acquisition:
        """A context manager: `with head.acquired(owner, timeout=5):` acquires
        as wait_for does, and on leaving (also on an exception) gives back
        what it took, and only that: a resource (a group's member) the owner
        held before the block stays held. Raises NotObtained, after giving
        back what it took, when some were not obtained. A wait that fails
        raises Error as wait_for does."""

class StateResource(Resource):
    """A condition: while activated any number of owners hold it; while not,
    requests wait for activation."""

    @property
    def activated(self) -> bool: ...
    @property
    def holders(self) -> List[str]:
        """The holders' names, in the order they were granted."""
    def set_state(self, activated: bool) -> None:
        """Activates (waiting requests go through within one polling period) or
        deactivates (each holder is asked to let go)."""
    def release_state(self) -> None:
        """Deactivates and asks each holder to let go; raises Error when a
        holder did not within one polling period."""

class Group(Resource):
    """An ordered list of member resources, acquired member by member."""

    def __init__(
        self, name: str, members: Sequence[Resource] = ..., parent: Optional[Resource] = None
    ) -> None: ...
    @property
    def members(self) -> List[Resource]: ...
    def add_resource(self, resource: Optional[Resource]) -> None:
        """Appends a member; raises Error for one that would make a cycle."""
    def delete_resource(self, name: str) -> None:
        """Removes the first direct member of that name; raises Error when none."""
    def is_in_group(self, name: str) -> bool: ...
    def set_abort_requested(self, requested: bool) -> None:
        """While set, waits on the group stop before their next member and give
        the owner back from the whole group."""

def waits() -> List[_Wait]:
    """The waits running now in the process, oldest first, as dicts: waiter,
    waiter_module, holder, holder_module, resource, age_ms, text."""

def deadlocks() -> List[List[_Wait]]:
    """The cycles among the waits running now, each a list of waits (dicts)."""

def snapshot(roots: Sequence[Resource]) -> Dict[str, Any]:
    """A picture of the arbitration now, as a dict: taken (seconds on
    time.monotonic()'s clock); the resources of the trees `roots` (name,
    kind, holders, activated, members); the owners that hold or wait (name,
    module, parent_owners as {resource: owner}, release_flag); the running
    waits, their cycles and the stale waits (with stale_ms). Each resource is
    read whole; two may be read a moment apart."""

_Event = Dict[str, Any]

class Observer(_ContextManager):
    """Registers `callback(event)` for the events of the arbitration
    (requested, waiting, notified, granted, released, timedOut,
    deadlockFormed, ...), until closed or dropped. Each event is a dict: kind,
    sequence, time (seconds on time.monotonic()'s clock), resource, owner,
    owner_module, holder, holder_module, parent, label, timeout, no_wait,
    grant, cause, reason, waits (dicts), since (or None). The callback runs in
    the thread that caused the event, which waits for it: keep it quick.
    Usable as a context manager."""

    def __init__(self, callback: Callable[[_Event], None]) -> None: ...
    def close(self) -> None:
        """Unregisters; the deliveries running in other threads have ended on return."""
    def __enter__(self) -> Observer: ...

# --- The client of the robot's resource service (zuresourced). -------------

class ServiceError(Exception):
    """A call the resource service refused or could not answer: `code` is the
    gRPC status code's name ("NOT_FOUND", "UNAVAILABLE", ...), `reason` why."""

    code: str
    reason: str

def default_service() -> str:
    """The service's default address: $ZURESOURCE_SERVICE, else
    unix:$XDG_RUNTIME_DIR/zuresource.sock, or unix:/run/zuresource/zuresource.sock."""

class ServiceClient:
    """The reads of the resource service, with no session."""

    def __init__(self, target: Optional[str] = None) -> None: ...
    @property
    def target(self) -> str: ...
    def status(self) -> str:
        """Every root's status lines."""
    def status_values(self) -> Any:
        """Every root's status value, as lists and strings."""
    def snapshot(self) -> Dict[str, Any]:
        """The snapshot, as the recording's JSON form (a dict)."""
    def explain(self, owner: str, resource: str, no_wait: Sequence[str] = ...) -> str:
        """What an acquire of `owner` for `resource` would do now, in one sentence."""

class ServiceAcquisition(_ContextManager):
    """Resources held through the service, given back by release() or on
    leaving a with block. Dropped, it leaves them held."""

    @property
    def owner(self) -> str: ...
    @property
    def resource(self) -> str: ...
    @property
    def not_obtained(self) -> List[str]: ...
    @property
    def lost(self) -> bool:
        """Whether the resources went while held: the session ended (the
        service stopped or gave this client up) or the manager took one."""
    @property
    def lost_reason(self) -> str: ...
    def release(self) -> None:
        """Gives the resources back; raises ServiceError when they were lost."""
    def __enter__(self) -> ServiceAcquisition: ...

class ServiceAcquired(_ContextManager):
    """The context manager of ServiceSession.acquired."""

    def __enter__(self) -> ServiceAcquisition: ...

class ServiceSession(ServiceClient, _ContextManager):
    """This process's session with the resource service: a module of the
    service whose owners hold and wait. Ending it (close(), leaving a with
    block) releases everything its owners hold. Handlers get one argument, a
    namespace: on_wanted(n) n.resource, n.owner; on_lost(n) n.resource,
    n.owner, n.by, n.reason; on_ended(n) n.code, n.reason. They run in the
    session's own thread."""

    def __init__(
        self,
        module: str,
        target: Optional[str] = None,
        on_wanted: Optional[Callable[[Any], None]] = None,
        on_lost: Optional[Callable[[Any], None]] = None,
        on_ended: Optional[Callable[[Any], None]] = None,
        connect_timeout: float = 5.0,
    ) -> None: ...
    @property
    def id(self) -> str: ...
    @property
    def module(self) -> str: ...
    @property
    def alive(self) -> bool: ...
    def acquire(
        self, owner: str, resource: str, timeout: int = -1, no_wait: Sequence[str] = ...
    ) -> ServiceAcquisition:
        """Acquires `resource` for `owner`, waiting up to `timeout` seconds (-1:
        no limit; 0 is refused). Raises Error when the wait fails (time limit,
        stopped) and ServiceError when the service refuses."""
    def acquired(
        self, owner: str, resource: str, timeout: int = -1, no_wait: Sequence[str] = ...
    ) -> ServiceAcquired:
        """A context manager: `with session.acquired(owner, "Arms", timeout=5):`
        acquires as acquire() does and gives back on leaving. Raises
        NotObtained, after giving back, when some were not obtained; on leaving,
        ServiceError when the resources were lost meanwhile."""
    def release(self, owner: str, resource: str) -> None: ...
    def switch_owner(self, owner: str, resource: str, new_owner: str) -> None: ...
    def set_state(self, resource: str, active: bool) -> None: ...
    def close(self) -> None:
        """Ends the session; the service releases what its owners hold."""
    def __enter__(self) -> ServiceSession: ...
