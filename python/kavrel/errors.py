"""One exception class per result code of the C library."""


class KavrelError(Exception):
    """A KavrelDirect operation failed. `code` is the C result code (negative),
    `symbol` its C name, `function` the C function that returned it (or None
    when this package refused the call before making it)."""

    code = None
    symbol = "KAVREL_DIRECT_ERR"
    description = "the operation failed"

    def __init__(self, detail=None, *, function=None, code=None):
        if code is not None:
            self.code = code
        self.function = function
        self.detail = detail
        self.message = detail or self.description
        where = f"{function}: " if function else ""
        super().__init__(f"{where}{self.message} ({self.symbol}, {self.code})")


class GenericError(KavrelError):
    code, symbol = -1, "KAVREL_DIRECT_ERR_GENERIC"
    description = "no wavelength range is selected, or the packet was refused"


class NoDeviceError(KavrelError):
    code, symbol = -2, "KAVREL_DIRECT_ERR_NO_DEVICE"
    description = "no such instrument: the bridge list is empty or has no entry with that index or chip serial"


class NotOpenError(KavrelError):
    code, symbol = -3, "KAVREL_DIRECT_ERR_NOT_OPEN"
    description = "the instrument is not open"


class InstrumentIOError(KavrelError):
    code, symbol = -4, "KAVREL_DIRECT_ERR_IO"
    description = (
        "the exchange with the instrument failed: a read or write on its USB bridge failed "
        "or the reply was unusable (unplugged?)"
    )


class InvalidArgumentError(KavrelError, ValueError):
    code, symbol = -5, "KAVREL_DIRECT_ERR_INVALID_ARG"
    description = "an argument is out of range; nothing was sent"


class OpenFailedError(KavrelError):
    code, symbol = -6, "KAVREL_DIRECT_ERR_OPEN_FAILED"
    description = "the USB bridge could not be opened (in use elsewhere?), or four instruments are open already"


class CrcError(KavrelError):
    code, symbol = -7, "KAVREL_DIRECT_ERR_CRC"
    description = "a reply failed its CRC check, or the instrument says the request failed its own"


class ParseError(KavrelError):
    code, symbol = -8, "KAVREL_DIRECT_ERR_PARSE"
    description = "a reply did not parse (wrong preamble)"


class InstrumentTimeoutError(KavrelError):
    code, symbol = -9, "KAVREL_DIRECT_ERR_TIMEOUT"
    description = "no reply arrived in time, or the instrument reported a timeout"


class WriteProtectError(KavrelError):
    code, symbol = -10, "KAVREL_DIRECT_ERR_WRITE_PROTECT"
    description = "the instrument's flash write protection is not open"


class UnsupportedError(KavrelError):
    code, symbol = -11, "KAVREL_DIRECT_ERR_UNSUPPORTED"
    description = "this instrument's protocol has no form of this operation; nothing was sent"


BY_CODE = {cls.code: cls for cls in KavrelError.__subclasses__()}


def error_for(code, function=None):
    """The exception for a negative result code."""
    cls = BY_CODE.get(code)
    if cls is None:
        return KavrelError(f"unknown result code {code}", function=function, code=code)
    return cls(function=function)
