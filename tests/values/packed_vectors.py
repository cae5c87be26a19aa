"""Writes packed decimals and what must become of them, one case per line, in fields that blanks separate.

usage: packed_vectors.py SEED COUNT

A value is its bytes in hexadecimal. "-" stands for an overflow.
  integers VALUE p s   the value cut to 16, unsigned 16, 32, unsigned 32, 64, unsigned 64 bits; the six rounded
  rescale VALUE p s tp ts   the target cut, then in the rounding modes of MODES
  to_double VALUE p s BITS
  from_double BITS p s   the target cut, then in the rounding modes of MODES
  text VALUE p s TEXT    blanks within the text are written as "_"
"""
import decimal
import random
import struct
import sys

MODES = [decimal.ROUND_HALF_EVEN, decimal.ROUND_DOWN, decimal.ROUND_HALF_UP, decimal.ROUND_CEILING,
         decimal.ROUND_FLOOR, decimal.ROUND_HALF_DOWN, decimal.ROUND_UP]
RANGES = [(-2**15, 2**15 - 1), (0, 2**16 - 1), (-2**31, 2**31 - 1), (0, 2**32 - 1), (-2**63, 2**63 - 1), (0, 2**64 - 1)]
EDGES = [edge for pair in RANGES for edge in pair]

decimal.getcontext().prec = 2000
decimal.getcontext().Emin = -5000


def packed(integer, precision, negative=None, nibble=None):
    """The bytes of an integer of so many digits; `nibble` is the sign to write."""
    negative = integer < 0 if negative is None else negative
    digits = str(abs(integer)).rjust(precision | 1, "0")
    return digits + (nibble or ("D" if negative and integer != 0 else "C"))


def fitted(value, precision, scale, mode):
    unit = decimal.Decimal(1).scaleb(-scale)
    integer = int(value.quantize(unit, rounding=mode).scaleb(scale))
    return packed(integer, precision) if abs(integer) < 10**precision else "-"


def value(random, precision, scale):
    """Random digits: of random length, near the edges of the integers, or with a fraction of halves."""
    kind = random.randrange(6)
    if kind == 0:
        integer = (random.choice(EDGES) + random.randint(-2, 2)) * 10**scale + random.choice([0, 5, -5]) * 10**max(scale - 1, 0)
    elif kind == 1:
        integer = random.randrange(10**precision) // 10**scale * 10**scale + 5 * 10**max(scale - 1, 0) + random.randint(-1, 1)
    elif kind == 2:
        integer = 10**random.randint(0, precision) - random.randint(0, 1)
    else:
        integer = random.randrange(10**random.randint(1, precision))
    integer = abs(integer) % 10**precision
    return -integer if random.randrange(2) else integer


def integers(value, negative):
    answers = []
    for mode in (decimal.ROUND_DOWN, decimal.ROUND_HALF_UP):
        integer = int(value.to_integral_value(rounding=mode))
        for least, most in RANGES:
            refused = not least <= integer <= most or (least == 0 and negative)
            answers.append("-" if refused else str(integer))
    return " ".join(answers)


def double_bits(double):
    return struct.pack(">d", double).hex()


def random_double(random, precision, scale):
    kind = random.randrange(4)
    if kind == 0:
        return struct.unpack(">d", random.randbytes(8))[0]
    magnitude = random.randrange(10**random.randint(1, precision)) / 10**scale
    if kind == 1:
        magnitude = round(magnitude * 8) / 8  # halves that are exact
    return -magnitude if random.randrange(2) else magnitude


def from_double(double, precision, scale):
    if double != double or double in (float("inf"), float("-inf")):
        return " ".join(["-"] * (1 + len(MODES)))
    exact = decimal.Decimal(double)
    return " ".join(fitted(exact, precision, scale, mode) for mode in [decimal.ROUND_DOWN] + MODES)


def text(integer, precision, scale, negative):
    digits = str(abs(integer)).rjust(precision, "0")
    sign = "-" if negative and integer != 0 else "_"
    return sign + digits[: precision - scale] + "." + digits[precision - scale :]


def write_case(random):
    precision = random.randint(1, 31)
    scale = random.choice([0, precision, random.randint(0, precision)])
    integer = value(random, precision, scale)
    negative = integer < 0 or (integer == 0 and random.randrange(2) == 0)
    bytes_ = packed(integer, precision, negative, random.choice("DDDB" if negative else "CCCFAE"))
    exact = decimal.Decimal(integer).scaleb(-scale)
    print("integers", bytes_, precision, scale, integers(exact, negative))
    to_precision = random.choice([random.randint(1, 31), min(31, precision + random.randint(0, 3))])
    to_scale = random.randint(0, to_precision)
    print("rescale", bytes_, precision, scale, to_precision, to_scale,
          *(fitted(exact, to_precision, to_scale, mode) for mode in [decimal.ROUND_DOWN] + MODES))
    print("to_double", bytes_, precision, scale, double_bits(integer / 10**scale))
    double = random_double(random, precision, scale)
    print("from_double", double_bits(double), precision, scale, from_double(double, precision, scale))
    print("text", bytes_, precision, scale, text(integer, precision, scale, negative))


def main():
    generator = random.Random(int(sys.argv[1]))
    for _ in range(int(sys.argv[2])):
        write_case(generator)


main()
