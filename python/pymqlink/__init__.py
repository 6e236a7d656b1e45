"""pymqlink: the messaging binding (bus sessions, request/reply, subscriptions)."""
