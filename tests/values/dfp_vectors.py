#!/usr/bin/env python3
"""Random operations on decimal floating-point numbers with the results that Python's decimal module gives.

usage: dfp_vectors.py SEED COUNT

One line per operation: width, operation, rounding mode, left, right, result, conditions in hex; fields apart by tabs."""
import decimal
import random
import sys

MODES = [
    decimal.ROUND_HALF_EVEN,
    decimal.ROUND_DOWN,
    decimal.ROUND_HALF_UP,
    decimal.ROUND_CEILING,
    decimal.ROUND_FLOOR,
    decimal.ROUND_HALF_DOWN,
    decimal.ROUND_UP,
]
CONDITIONS = {
    decimal.InvalidOperation: 0x01,
    decimal.DivisionByZero: 0x02,
    decimal.Overflow: 0x04,
    decimal.Underflow: 0x08,
    decimal.Inexact: 0x10,
}
INTEGERS = {"int32": (-(2**31), 2**31 - 1), "uint32": (0, 2**32 - 1), "int64": (-(2**63), 2**63 - 1), "uint64": (0, 2**64 - 1)}
EXACT = decimal.Context(prec=7000, Emin=-99999, Emax=99999, traps=[])


def context(width, mode=0):
    digits, largest = {64: (16, 384), 128: (34, 6144)}[width]
    return decimal.Context(prec=digits, Emax=largest, Emin=1 - largest, clamp=1, rounding=MODES[mode], traps=[])


def raised(ctx):
    return sum(bit for signal, bit in CONDITIONS.items() if ctx.flags[signal])


def digits_of(rnd, most):
    count = min(most, rnd.choice([1, 2, rnd.randint(1, most), most]))
    kind = rnd.randrange(8)
    if kind == 0:
        return rnd.choice(["9", "5", "8", "1"]) * count
    if kind == 1:
        return (str(rnd.randrange(1, 1000)) + "0" * count)[:count]
    if kind == 2:  # a tie, or next to one, somewhere
        at = rnd.randrange(count)
        tail = rnd.choice(["5" + "0" * count, "4" + "9" * count, "5" + "0" * (count - at - 2) + "1"])
        return ("".join(rnd.choice("0123456789") for _ in range(at)) + tail)[:count]
    return "".join(rnd.choice("0123456789") for _ in range(count))


def exponent_of(rnd, width):
    least, most = {64: (-398, 369), 128: (-6176, 6111)}[width]
    return rnd.choice(
        [0, rnd.randint(-40, 40), rnd.randint(-5, 5), rnd.randint(least, most), least + rnd.randint(-3, 40), most - rnd.randint(-20, 40)]
    )


def operand(rnd, width, anchor=None):
    """The text of a value that the width holds; near the anchor's exponent, when there is one."""
    sign = rnd.choice(["", "-"])
    kind = rnd.randrange(40)
    if kind == 0:
        return sign + "Infinity"
    if kind == 1:
        return sign + rnd.choice(["NaN", "sNaN"]) + rnd.choice(["", str(rnd.randrange(1, 10 ** {64: 15, 128: 33}[width]))])
    exponent = exponent_of(rnd, width)
    if anchor is not None and rnd.randrange(4) != 0 and anchor.is_finite():
        exponent = anchor.as_tuple().exponent + rnd.randint(-40, 40)
    digits = "0" if kind == 2 else digits_of(rnd, context(width).prec)
    return str(context(width).create_decimal(f"{sign}{digits}E{exponent}"))


def text(rnd, width):
    """Any text: numbers with too many digits, words, and what is none of them."""
    if rnd.randrange(6) == 0:
        base = rnd.choice(["", "Inf", "infinity", "NaN", "snan", "nan12", "NaN" + "9" * rnd.randint(14, 36), "1..2", "1e", "e5", "1E+", "--1", "+.", "1 ", "0x1", "1E5.", "12a"])
        return rnd.choice(["", "-", "+"]) + "".join(rnd.choice([c.upper(), c.lower()]) for c in base)
    digits = digits_of(rnd, rnd.choice([5, 17, 35, 40, 70]))
    at = rnd.randint(0, len(digits))
    mantissa = rnd.choice([digits, digits[:at] + "." + digits[at:], "0" * rnd.randrange(50) + digits, "." + "0" * rnd.randrange(60) + digits])
    exponent = rnd.choice(["", "", f"{rnd.choice('eE')}{rnd.choice(['', '+'])}{rnd.randrange(40)}", f"E{exponent_of(rnd, width) - len(digits) // 2}", "E-99999999999999999999", "E+999999999999"])
    return rnd.choice(["", "", "-", "+"]) + mantissa + exponent


def narrowed(ctx, value):
    # Adding zero would lose the sign of a zero; creating would not quieten a NaN.
    return ctx.plus(value) if value.is_nan() else ctx.create_decimal(value)


def to_integer(value, mode, limits):
    if not value.is_finite() or value.adjusted() > 30:
        return "0", 0 if value.is_zero() else 1
    number = int(value.to_integral_value(rounding=MODES[mode], context=EXACT))
    return (str(number), 0) if limits[0] <= number <= limits[1] else ("0", 1)


def to_packed(value, mode, precision, scale):
    """The packed value's half bytes, or "none"."""
    if not value.is_finite() or (not value.is_zero() and value.adjusted() > 40):
        return "none", 1
    scaled = 0 if value.is_zero() else int(EXACT.scaleb(value, scale).to_integral_value(rounding=MODES[mode], context=EXACT))
    if abs(scaled) >= 10**precision:
        return "none", 1
    half_bytes = (precision // 2 + 1) * 2
    return f"{abs(scaled)}{'d' if scaled < 0 else 'c'}".rjust(half_bytes, "0"), 0


BINARY = {
    "add": lambda ctx, a, b: ctx.add(a, b),
    "subtract": lambda ctx, a, b: ctx.subtract(a, b),
    "multiply": lambda ctx, a, b: ctx.multiply(a, b),
    "divide": lambda ctx, a, b: ctx.divide(a, b),
    "quantize": lambda ctx, a, b: ctx.quantize(a, b),
    "compare": lambda ctx, a, b: ctx.compare(a, b),
    "comparesignal": lambda ctx, a, b: ctx.compare_signal(a, b),
}
UNARY = {
    "integral": lambda ctx, a: ctx.to_integral_value(a),
    "integralexact": lambda ctx, a: ctx.to_integral_exact(a),
    "widen": lambda ctx, a: narrowed(context(128), a) if not a.is_snan() else ctx.plus(a),
}
SPECIAL = ["string", "narrow", "tointeger", "topacked", "frompacked"]


def special(rnd, name, width, mode):
    ctx = context(width, mode)
    left = operand(rnd, width)
    value = EXACT.create_decimal(left)
    if name == "string":
        left = text(rnd, width)
        return left, "", str(ctx.create_decimal(left)), raised(ctx)
    if name == "narrow":
        left = operand(rnd, 128)
        ctx = context(64, mode)
        return left, "", str(narrowed(ctx, EXACT.create_decimal(left))), raised(ctx)
    if name == "tointeger":
        kind = rnd.choice(list(INTEGERS))
        if rnd.randrange(2):  # near a limit
            near = decimal.Decimal(rnd.choice(INTEGERS[kind])) + decimal.Decimal(rnd.randint(-30, 30)) / 10
            value = context(width).create_decimal(near)
            left = str(value)
        return (left, kind, *to_integer(value, mode, INTEGERS[kind]))
    precision = rnd.randint(1, 31)
    scale = rnd.randint(0, precision)
    if name == "topacked":
        return (left, f"{precision},{scale}", *to_packed(value, mode, precision, scale))
    digits = digits_of(rnd, precision)
    half_bytes = (precision // 2 + 1) * 2
    sign = rnd.choice("abcdef")
    minus = "-" if sign in "bd" and digits.strip("0") else ""
    result = ctx.create_decimal(f"{minus}{digits}E{-scale}")
    return (digits + sign).rjust(half_bytes, "0"), f"{precision},{scale}", str(result), raised(ctx)


def vector(rnd):
    width = rnd.choice([64, 128])
    mode = rnd.randrange(len(MODES))
    name = rnd.choice([*BINARY, *UNARY, *SPECIAL, "string", "narrow", "divide", "add", "multiply"])
    if name in SPECIAL:
        return width, name, mode, *special(rnd, name, width, mode)
    if name == "widen":
        width = 64
    ctx = context(width, mode)
    left = operand(rnd, width)
    value = EXACT.create_decimal(left)
    if name in UNARY:
        result, right = UNARY[name](ctx, value), ""
    else:
        right = operand(rnd, width, value)
        result = BINARY[name](ctx, value, EXACT.create_decimal(right))
    return width, name, mode, left, right, str(result), raised(ctx)


def main():
    seed, count = (int(argument) for argument in sys.argv[1:3])
    rnd = random.Random(seed)
    for _ in range(count):
        *fields, conditions = vector(rnd)
        print(*fields, f"{conditions:x}", sep="\t")


if __name__ == "__main__":
    main()
