"""The shared base of the library's records."""

from typing import Any, Dict, List

import pydantic
from pydantic import ConfigDict

from quorvex.constant import FetchStatus

__all__ = ["BaseModel", "PositionalModel"]


class BaseModel(pydantic.BaseModel):
    """A record: keyword-constructed, validated, with ``dict()`` and ``lazy_setter``.

    Replies may carry fields this version does not know; they are kept (``extra="allow"``)
    so nothing the service sent is lost. Assignments are validated like construction.
    """

    model_config = ConfigDict(
        extra="allow",
        validate_assignment=True,
        coerce_numbers_to_str=True,
        protected_namespaces=(),
        # A record's validator is built when the record is first used, not at import.
        defer_build=True,
    )

    def dict(self, **kwargs: Any) -> Dict[str, Any]:  # type: ignore[override]
        """The fields as a dict: nested records as dicts, enumerations as members."""
        return self.model_dump(**kwargs)

    def lazy_setter(self, **fields: Any) -> None:
        """Update fields in place; a fetch placeholder becomes ``Fetched`` unless told otherwise.

        The merged fields are validated once, as a construction would (replies fill many
        fields at a time, and one validation costs a fraction of one per assignment); nothing
        changes when a value is refused. A name that is a property of the record goes through
        its setter, assignment by assignment."""
        cls = type(self)
        if any(
            name not in cls.model_fields and isinstance(getattr(cls, name, None), property) for name in fields
        ):
            for name, value in fields.items():
                setattr(self, name, value)
        elif fields:
            merged = dict(self.__dict__)
            if self.__pydantic_extra__:
                merged.update(self.__pydantic_extra__)
            merged.update(fields)
            fresh = cls.model_validate(merged)
            self.__dict__.update(fresh.__dict__)
            if fresh.__pydantic_extra__ is not None:
                object.__setattr__(self, "__pydantic_extra__", fresh.__pydantic_extra__)
            self.__pydantic_fields_set__.update(fields)
        if "status" not in fields and isinstance(self.__dict__.get("status"), FetchStatus):
            self.__dict__["status"] = FetchStatus.Fetched

    def __getitem__(self, key: str) -> Any:
        if key in type(self).model_fields:
            return self.__dict__[key]
        extra = self.__pydantic_extra__
        if extra and key in extra:
            return extra[key]
        raise KeyError("{} has no field {!r}".format(type(self).__name__, key))

    def keys(self) -> List[str]:
        """Field names, so that ``{**record}`` and ``dict(record)`` give the fields."""
        names = list(type(self).model_fields)
        if self.__pydantic_extra__:
            names.extend(self.__pydantic_extra__)
        return names


class PositionalModel(BaseModel):
    """A small record that may also be built with its fields in declaration order."""

    def __init__(self, *args: Any, **data: Any) -> None:
        if args:
            names = list(type(self).model_fields)
            if len(args) > len(names):
                raise TypeError(
                    "{}() takes at most {} positional fields ({}), got {}".format(
                        type(self).__name__, len(names), ", ".join(names), len(args)
                    )
                )
            for name, value in zip(names, args):
                if name in data:
                    raise TypeError(
                        "{}() got field {!r} both by position and by keyword".format(
                            type(self).__name__, name
                        )
                    )
                data[name] = value
        super().__init__(**data)
