"""The message-bus backend: SolaceAPI and its sibling modules."""
