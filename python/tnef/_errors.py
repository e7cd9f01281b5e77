"""The exception the codec raises for input it cannot take."""


class TnefError(ValueError):
    """A TNEF file (or property text) the codec cannot read or write.

    ``group`` and ``reason`` are the codec's escape numbers: group 102 reason 1531 for a file
    that is not TNEF, 102/1546 for data longer than the buffer it goes into, 103 for the
    message store. I/O failures (group 100) are raised as :class:`OSError` instead, with the
    reason as ``errno``.
    """

    def __init__(self, message: str, group: int, reason: int) -> None:
        super().__init__(message)
        self.group = group
        self.reason = reason
