"""pymqlink: the messaging binding of quorvex.

`SolClient` is a session on the message bus: blocking and non-blocking request/reply,
subscriptions with wildcards, point-to-point messages and session events. `Responder` stands
up services on the same bus (tests, tools, simulators). `packb` and `unpackb` are the wire
codec every payload goes through.

Hosts are URLs whose scheme picks the transport: ``inproc://NAME`` is the in-process bus NAME,
created on first use; other schemes are registered by the packages that provide them.

Threads: blocking calls release the interpreter lock while they wait. Callbacks run on the
session's own callback thread, one at a time and in arrival order. A callback that raises is
logged with its traceback through loguru (``logger.error``; the traceback is formatted without
local variables) and delivery goes on. Replies to blocking requests go straight to the waiting
caller, so a callback may itself make a blocking request. At interpreter exit every session is
disconnected and every responder closed.
"""

import atexit

from ._core import BusError, EchoService, RequestInfo, Responder, SolClient, _close_all, packb, unpackb

# Exit hooks run last-registered first: hooks of code that imports pymqlink (a logout, say) still
# find their sessions open; this one then stops every bus thread before the interpreter goes away.
atexit.register(_close_all)

__all__ = ["BusError", "EchoService", "RequestInfo", "Responder", "SolClient", "packb", "unpackb"]
