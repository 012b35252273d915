# SPDX-License-Identifier: Apache-2.0
"""What is said where an input is of no use, in one line each."""

from __future__ import annotations

from collections.abc import Iterator
from contextlib import contextmanager


class InputError(Exception):
    """One line for the user: what is wrong with which file."""


class MissingPackage(InputError):
    """A package that the format needs is not installed."""

    def __init__(self, package: str, purpose: str) -> None:
        super().__init__(
            f"{purpose} needs {package}, which is not installed: pip install 'korvex-tqx[cli]'"
        )


_EARLY_END = (
    "truncated",
    "unexpected end",
    "but got",
    "bytes got",
    "tried reading",
    "smaller than the minimum",
)


@contextmanager
def as_input_errors(path: str, what: str) -> Iterator[None]:
    """Whatever the libraries raise on reading `path` becomes one line; `what` names the format."""
    try:
        yield
    except InputError:
        raise
    except MemoryError as error:
        raise InputError(f"{path}: not enough memory for one piece of {what}") from error
    except EOFError as error:
        raise InputError(f"{path}: the file ends too early") from error
    except OSError as error:  # pyarrow raises it without a number for damaged data
        if error.errno is not None:
            raise InputError(f"{path}: {error.strerror or error}") from error
        raise _damaged(path, what, error) from error
    except Exception as error:  # no library says beforehand what it raises for damaged data
        raise _damaged(path, what, error) from error


def _damaged(path: str, what: str, error: Exception) -> InputError:
    reason = first_line(error)
    if any(words in reason.lower() for words in _EARLY_END):
        return InputError(f"{path}: the file ends too early: {reason}")
    return InputError(f"{path}: not {what}, or damaged: {reason}")


def first_line(error: Exception) -> str:
    """What an exception says, without what other libraries add in further lines."""
    return (str(error).strip() or type(error).__name__).partition("\n")[0]
