#!/usr/bin/env python3
"""Random operations on decimal floating-point numbers and packed decimals with the results that Python's decimal module
gives.

usage: vectors.py SEED COUNT

One line per operation: width, operation, rounding mode, left, right, result, conditions in hex; fields apart by tabs.
Of packed decimals, whose width is 0, there are these operations. Values are hexadecimal, "-" is an overflow, and a blank
follows each of several results. The default rounding mode, the first one, cuts.

  integers    VALUE p,s        cut to 16, unsigned 16, 32, unsigned 32, 64, unsigned 64 bits; the six rounded
  rescale     VALUE p,s,tp,ts  cut, then in each rounding mode
  todouble    VALUE p,s        the bits of the double
  fromdouble  BITS p,s         cut, then in each rounding mode
  text        VALUE p,s        the text
"""
import decimal
import random
import struct
import sys

MODES = [getattr(decimal, "ROUND_" + name) for name in "HALF_EVEN DOWN HALF_UP CEILING FLOOR HALF_DOWN UP".split()]
DOWN, HALF_UP = 1, 2
# The bits of conditions, from the lowest one.
CONDITIONS = [decimal.InvalidOperation, decimal.DivisionByZero, decimal.Overflow, decimal.Underflow, decimal.Inexact]
INTEGERS = {"int32": (-(2**31), 2**31 - 1), "uint32": (0, 2**32 - 1), "int64": (-(2**63), 2**63 - 1), "uint64": (0, 2**64 - 1)}
RANGES = [(-(2**15), 2**15 - 1), (0, 2**16 - 1), *INTEGERS.values()]
EXACT = decimal.Context(prec=7000, Emin=-99999, Emax=99999, traps=[])


def context(width, mode=0):
    digits, largest = {64: (16, 384), 128: (34, 6144)}[width]
    return decimal.Context(prec=digits, Emax=largest, Emin=1 - largest, clamp=1, rounding=MODES[mode], traps=[])


def raised(ctx):
    return sum(1 << bit for bit, signal in enumerate(CONDITIONS) if ctx.flags[signal])


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
        [0, rnd.randint(-40, 40), rnd.randint(-5, 5), rnd.randint(least, most), least + rnd.randint(-3, 40), most - rnd.randint(-20, 40), most + rnd.randint(-1, 1)]
    )


def operand(rnd, width, anchor=None):
    """The text of a value that the width holds; near the anchor's exponent, when there is one, or of equal magnitude."""
    if anchor is not None and rnd.randrange(20) == 0:
        return str(rnd.choice([anchor, anchor.copy_negate()]))
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
    exponent = rnd.choice(["", "", f"{rnd.choice('eE')}{rnd.choice(['', '+'])}{rnd.randrange(40)}", f"E{exponent_of(rnd, width)}", f"E{exponent_of(rnd, width) - len(digits) // 2}", "E-99999999999999999999", "E+999999999999"])
    return rnd.choice(["", "", "-", "+"]) + mantissa + exponent


def converted(ctx, value):
    # Adding zero would lose the sign of a zero; creating would not quieten a NaN.
    return ctx.plus(value) if value.is_nan() else ctx.create_decimal(value)


def packed(integer, precision, sign=None):
    """The half bytes of an integer of so many digits."""
    return str(abs(integer)).rjust(precision | 1, "0") + (sign or ("D" if integer < 0 else "C"))


def scaled(value, mode, scale=0):
    """A value in units of 10^-scale, rounded to an integer; one beyond every target when it is none."""
    if value.is_zero():
        return 0
    if not value.is_finite() or value.adjusted() > 40:
        return 10**40
    return int(EXACT.scaleb(value, scale).to_integral_value(rounding=MODES[mode], context=EXACT))


BINARY = ["add", "subtract", "multiply", "divide", "quantize", "compare", "compare_signal"]  # methods of a context
UNARY = ["to_integral_value", "to_integral_exact"]
SPECIAL = ["string", "narrow", "widen", "tointeger", "topacked", "frompacked"]


def special(rnd, name, width, mode):
    ctx = context(width, mode)
    left = operand(rnd, width)
    value = EXACT.create_decimal(left)
    if name == "string":
        left = text(rnd, width)
        return left, "", str(ctx.create_decimal(left)), raised(ctx)
    if name in ("narrow", "widen"):
        left = operand(rnd, 128 if name == "narrow" else 64)
        ctx = context(64 if name == "narrow" else 128, mode)
        return left, "", str(converted(ctx, EXACT.create_decimal(left))), raised(ctx)
    if name == "tointeger":
        kind = rnd.choice(list(INTEGERS))
        if rnd.randrange(2):  # near a limit
            near = decimal.Decimal(rnd.choice(INTEGERS[kind])) + decimal.Decimal(rnd.randint(-30, 30)) / 10
            value = context(width).create_decimal(near)
            left = str(value)
        number = scaled(value, mode)
        fits = INTEGERS[kind][0] <= number <= INTEGERS[kind][1]
        return left, kind, str(number if fits else 0), int(not fits)
    precision = rnd.randint(1, 31)
    scale = rnd.randint(0, precision)
    if name == "topacked":
        number = scaled(value, mode, scale)
        fits = abs(number) < 10**precision
        return left, f"{precision},{scale}", packed(number, precision) if fits else "none", int(not fits)
    digits = int(digits_of(rnd, precision))
    sign = rnd.choice("ABCDEF")
    result = ctx.create_decimal(f"{'-' if sign in 'BD' and digits else ''}{digits}E{-scale}")
    return packed(digits, precision, sign), f"{precision},{scale}", str(result), raised(ctx)


# ---- packed decimals ----------------------------------------------------------------------------------------------


def digits_near(rnd, precision, scale):
    """An integer of random length, near the ends of the binary integers, or with a fraction of halves."""
    kind = rnd.randrange(6)
    half = 5 * 10 ** max(scale - 1, 0)
    if kind == 0:
        number = (rnd.choice(rnd.choice(RANGES)) + rnd.randint(-2, 2)) * 10**scale + rnd.choice([0, half, -half])
    elif kind == 1:
        number = rnd.randrange(10**precision) // 10**scale * 10**scale + half + rnd.randint(-1, 1)
    elif kind == 2:
        number = 10 ** rnd.randint(0, precision) - rnd.randint(0, 1)
    else:
        number = rnd.randrange(10 ** rnd.randint(1, precision))
    return abs(number) % 10**precision


def cut_and_rounded(exact, precision, scale):
    """The target cut, then in each mode."""
    integers = [scaled(exact, mode, scale) for mode in [DOWN, DOWN, *range(1, len(MODES))]]
    return "".join(packed(each, precision) + " " if abs(each) < 10**precision else "- " for each in integers)


def to_integers(exact, negative):
    rounded = [scaled(exact, mode) for mode in (DOWN, HALF_UP)]
    fits = lambda number, least, most: least <= number <= most and not (least == 0 and negative)
    return "".join(f"{each} " if fits(each, *limits) else "- " for each in rounded for limits in RANGES)


def any_double(rnd, precision, scale):
    kind = rnd.randrange(4)
    if kind == 0:
        return struct.unpack("=d", rnd.randbytes(8))[0]
    magnitude = rnd.randrange(10 ** rnd.randint(1, precision)) / 10**scale
    if kind == 1:
        magnitude = round(magnitude * 8) / 8  # halves that are exact
    return rnd.choice([-magnitude, magnitude])


def packed_vector(rnd):
    precision = rnd.randint(1, 31)
    scale = rnd.choice([0, precision, rnd.randint(0, precision)])
    number = digits_near(rnd, precision, scale)
    sign = rnd.choice("BDDDDCCCCCFAE0123456789")  # readers know all of them
    negative = sign in "BD"
    exact = EXACT.scaleb(decimal.Decimal(-number if negative else number), -scale)
    name = rnd.choice(["integers", "rescale", "todouble", "fromdouble", "text"])
    left, right = packed(number, precision, sign), f"{precision},{scale}"
    if name == "integers":
        result = to_integers(exact, negative)
    elif name == "rescale":
        to_precision = rnd.choice([rnd.randint(1, 31), min(31, precision + rnd.randint(0, 3))])
        to_scale = rnd.randint(0, to_precision)
        right += f",{to_precision},{to_scale}"
        result = cut_and_rounded(exact, to_precision, to_scale)
    elif name == "todouble":
        result = struct.pack("=d", float(exact) + 0.0).hex().upper()
    elif name == "fromdouble":
        double = any_double(rnd, precision, scale)
        left = struct.pack("=d", double).hex()
        result = cut_and_rounded(decimal.Decimal(double), precision, scale)
    else:
        digits = str(number).rjust(precision, "0")
        minus = "-" if negative and number else " "
        result = minus + digits[: precision - scale] + "." + digits[precision - scale :]
    return 0, name, 0, left, right, result, 0


def vector(rnd):
    width = rnd.choice([64, 128])
    mode = rnd.randrange(len(MODES))
    name = rnd.choice([*BINARY, *UNARY, *SPECIAL, "string", "narrow", "divide", "add", "multiply"])
    if name in SPECIAL:
        return width, name, mode, *special(rnd, name, width, mode)
    ctx = context(width, mode)
    left = operand(rnd, width)
    value = EXACT.create_decimal(left)
    if name in UNARY:
        result, right = getattr(ctx, name)(value), ""
    else:
        right = operand(rnd, width, value)
        result = getattr(ctx, name)(value, EXACT.create_decimal(right))
    if name.startswith("compare") and result.is_nan():
        result = "NaN"  # without sign and payload
    return width, name, mode, left, right, str(result), raised(ctx)


def main():
    seed, count = (int(argument) for argument in sys.argv[1:3])
    rnd = random.Random(seed)
    for _ in range(count):
        *fields, conditions = rnd.choice([vector, packed_vector])(rnd)
        print(*fields, f"{conditions:x}", sep="\t")


main()
