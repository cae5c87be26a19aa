#!/usr/bin/env python3
"""Reads a header for Doxygen. The headers carry plain comments; what they mean is a matter of place:

  above "#pragma once"       the file
  above a declaration        that declaration, and those that follow it without an empty line or a comment of their own
  behind a declaration       that declaration
  "// ---- title ----"       nothing: a divider

Indented lines of a comment are a table or an example and are kept as they stand. A list of declarations that a macro
makes (VEK_COUNTS_TO_n of VEK_DECLARE) is written out."""
import re
import sys

COMMENT = re.compile(r"^(\s*)//(.*)$")
TRAILING = re.compile(r"^(.*\S)\s+// (.*)$")


def escaped(text):
    return re.sub(r"([\\@<>#&])", r"\\\1", text)


def documented(indent, text):
    """One line of a comment in Doxygen's form."""
    if text.startswith("   "):
        return f"{indent}///     {text}"
    return f"{indent}///{escaped(text)}"


def written_out(lines):
    """The lines with the declarations of VEK_DECLARE in place of the macro."""
    body, defining = "", False
    for line in lines:
        if line.startswith("#define VEK_DECLARE(n)"):
            body, defining = "", True
            line = line[len("#define VEK_DECLARE(n)"):]
        if defining:
            body, defining = body + line.rstrip("\\"), line.endswith("\\")
            continue
        uses = re.fullmatch(r"VEK_COUNTS_TO_(\d+)\(VEK_DECLARE\)", line)
        counts = range(1, int(uses[1]) + 1) if uses else []
        yield from [re.sub(r"##n|_##n|\bn\b", str(n), body.replace("_##n", f"_{n}")) for n in counts] or [line]


class Filter:
    def __init__(self, lines):
        self.lines, self.out = lines, []
        self.group = None  # the declarations below the comment that ended here share it

    def run(self):
        at = self.file_comment()
        while at < len(self.lines):
            at = self.block(at) if self.is_comment(at) else self.code(at)
        self.close_group()
        return self.out

    def is_comment(self, at):
        match = at < len(self.lines) and COMMENT.match(self.lines[at])
        return bool(match) and not match[2].startswith((" ----", " clang-format"))

    def file_comment(self):
        at = 0
        while self.is_comment(at):
            text = COMMENT.match(self.lines[at])[2]
            self.out.append(documented("", text) if at else f"/// @filebrief{escaped(text)}")
            at += 1
        return at

    def block(self, at):
        self.close_group()
        while self.is_comment(at):
            indent, text = COMMENT.match(self.lines[at]).groups()
            self.out.append(documented(indent, text))
            at += 1
        declarations = self.declarations_below(at)
        if declarations > 1:
            self.out[-1] += "\n///@{"
            self.group = at + declarations
        return at

    def declarations_below(self, at):
        """Lines from here that the comment above speaks for, when there is more than one declaration among them."""
        end, count, depth = at, 0, 0
        while end < len(self.lines) and self.lines[end].strip() and not self.is_comment(end):
            line = self.lines[end].split("//")[0]
            depth += line.count("{") + line.count("(") - line.count("}") - line.count(")")
            if depth < 0:
                break
            count += depth == 0 and not line.startswith("#") and line.rstrip().endswith((";", "}", ","))
            end += 1
        return end - at if count > 1 else 0

    def code(self, at):
        if self.group == at:
            self.close_group()
        line = self.lines[at]
        match = None if COMMENT.match(line) else TRAILING.match(line)
        if match and not match[1].lstrip().startswith(("#", "}")):
            line = f"{match[1]} ///< {escaped(match[2])}"
        elif match or COMMENT.match(line):
            line = match[1] if match else ""
        self.out.append(line)
        return at + 1

    def close_group(self):
        if self.group is not None:
            self.out[-1] += "\n///@}"
            self.group = None


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as header:
        print("\n".join(Filter(list(written_out(header.read().splitlines()))).run()))
