#!/usr/bin/env python3
"""The generator refuses a wrong row, names its file and line, and writes nothing.

usage: refusals.py VEKGEN SOURCE_DIRECTORY"""
import pathlib
import subprocess
import sys
import tempfile

VEKGEN, SOURCE = sys.argv[1], pathlib.Path(sys.argv[2])
ROW = '0x8B0F0000\tSQLO_NOMEM\t'
# kind, its tables, the table to spoil, what is replaced by what, what the complaint must tell
ZRC = ("zrc-map", ["diag/tables/zrc.tsv", "diag/tables/sqlmap.tsv", "diag/tables/sqlmsg.tsv"])
LATCH_TYPES = ("latch-types", ["sync/tables/latch_types.tsv"])
TERRITORIES = ("territories", ["platform/tables/territories.tsv", "platform/tables/territory_formats.tsv"])
CASES = [
    (ZRC, 0, ROW, "0x8B0F0000\tSQLO_ACCD\t", "SQLO_ACCD"),
    (ZRC, 0, ROW, "0x840F0001\tSQLO_NOMEM\t", "0x840F0001"),
    (ZRC, 0, ROW, "0x8B0F000\tSQLO_NOMEM\t", "0x8B0F000"),
    (ZRC, 0, ROW, "0xFF0F0000\tSQLO_NOMEM\t", "type 127"),
    (ZRC, 0, ROW, "0x8B0F0000\tSqlo_nomem\t", "Sqlo_nomem"),
    (ZRC, 0, ROW + "-", ROW + "x", "column"),
    (ZRC, 0, "#count 7495", "#count 7494", "749"),
    (ZRC, 0, '"No Memory Available"', "No Memory Available", "column 6"),
    (ZRC, 1, "\n2\t616\t", "\n1\t616\t", "type"),
    (ZRC, 2, "\n-911\t", "\n-31999\t", "no message"),
    (LATCH_TYPES, 0, "\n466\t", "\n467\t", "id 467 where 466 is due"),
    (LATCH_TYPES, 0, "SMemSet\tMemLatchType", "SQLO_UNTYPED\tuntyped", "latch type SQLO_LT_SQLO_UNTYPED__untyped__latch"),
    (LATCH_TYPES, 0, "#count 1184", "#count 1185", "1184 rows"),
    (TERRITORIES, 0, "\n276\tDE\t", "\n840\tDE\t", "840"),
    (TERRITORIES, 0, '"DD/MM/BBBB"', '"DD/MM/BB"', "DD/MM/BB"),
    (TERRITORIES, 0, "\n276\tDE\t", "\n276\tDEU\t", "DEU"),
    (TERRITORIES, 1, '"DD/MM/BBBB"\t9', '"DD/MM/BBBB"\t12', "12"),
    (TERRITORIES, 1, "time\t4", "day\t4", "day"),
]


def run(kind, tables, output):
    return subprocess.run([VEKGEN, kind, *map(str, tables), str(output)], capture_output=True, text=True, check=False)


def main():
    wrong = []
    with tempfile.TemporaryDirectory() as directory:
        output, spoilt = pathlib.Path(directory, "out"), pathlib.Path(directory, "spoilt.tsv")
        for (kind, names), index, before, after, told in CASES:
            tables = [SOURCE / name for name in names]
            text = tables[index].read_text(encoding="utf-8")
            if text.count(before) < 1:
                wrong.append(f"{names[index]} no longer holds {before!r}")
                continue
            spoilt.write_text(text.replace(before, after, 1), encoding="utf-8")
            tables[index] = spoilt
            result = run(kind, tables, output)
            if result.returncode != 1 or ".tsv:" not in result.stderr or told not in result.stderr or output.exists():
                wrong.append(f"{before!r} -> {after!r}: status {result.returncode}\n{result.stderr}")
        if run("zrc-map", [SOURCE / name for name in ZRC[1]], output).returncode != 0 or not output.exists():
            wrong.append("the tables as they are were refused")
    print("\n".join(wrong) or f"{len(CASES)} wrong rows refused")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
