#!/usr/bin/env python3
"""Proves on machine code what a traced function costs while tracing is off.

usage: trace_cost.py BUILD...     reads the objects of these builds of the library
       trace_cost.py --self-test  shows that broken variants are found, with every compiler there is

For every function that the sources give a trace scope, and at every place where the compiler put it (inlined or not):

  entry   exactly one load of the component's trace word, then one test of it with 0x40001 and one branch, not taken
          while tracing is off, that leads to the call of sqltScopeEntry with the function's identifier
  exit    on every way to the end exactly one test of the same copy of the word with 0x40082

Every way that the code can take with tracing off is followed, with the registers and stack slots that hold the word.
A load of a trace word that is followed by anything else is a fault. x86-64 only."""
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile
from collections import defaultdict, namedtuple

ROOT = pathlib.Path(__file__).resolve().parents[2]
WORDS = "i_compTraceWords"
AT_ENTRY, AT_EXIT = 0x40001, 0x40082
NEVER_RETURN = re.compile(
    r"abort|_?exit|__stack_chk_fail|_ZSt9terminatev|__clang_call_terminate|_Unwind_Resume|__cxa_(re)?throw"
    r"|_ZSt\d+__throw_\w+|_ZSt21__glibcxx_assert_fail\w*|__assert_fail|longjmp"
)

# ---- machine code ---------------------------------------------------------------------------------------------------

Place = namedtuple("Place", "section address")


class Instruction:
    def __init__(self, place, text, function):
        self.place, self.function, self.relocation, self.next = place, function, None, None
        self.name, _, operands = text.partition(" ")
        if self.name in ("notrack", "bnd", "rep", "repz", "lock", "cs", "data16"):
            self.name, _, operands = operands.strip().partition(" ")
        operands = re.sub(r"\s*(#|<).*", "", operands.strip())
        self.operands = re.split(r",(?![^(]*\))", operands) if operands else []


class Code:
    """The instructions of one object file, by place."""

    LABEL = re.compile(r"^[0-9a-f]+ <(.+)>:$")
    LINE = re.compile(r"^\s*([0-9a-f]+):\t(.+)$")
    RELOCATION = re.compile(r"^\s+([0-9a-f]+): (R_X86_64_\w+)\s+([^+\s]+?)([+-]0x[0-9a-f]+)?$")
    SYMBOL = re.compile(r"^([0-9a-f]{16}) .{7} (\S+)\t[0-9a-f]{16} (?:\.\w+ )?(\S+)$")

    def __init__(self, path):
        self.path, self.at, self.symbols = path, {}, {}
        self.read_symbols(run("objdump", "-t", path))
        self.read_instructions(run("objdump", "-dr", "--no-show-raw-insn", path))

    def read_symbols(self, text):
        for match in map(self.SYMBOL.match, text.splitlines()):
            if match and match[2] not in ("*UND*", "*ABS*", "*COM*"):
                self.symbols[match[3]] = Place(match[2], int(match[1], 16))

    def read_instructions(self, text):
        section = function = last = None
        for line in text.splitlines():
            if line.startswith("Disassembly of section "):
                section, last = line[len("Disassembly of section "):-1], None
            elif match := self.LABEL.match(line):
                function = match[1]
            elif match := self.RELOCATION.match(line):
                last.relocation = (match[3], int(match[4] or "0", 16))
            elif match := self.LINE.match(line):
                found = Instruction(Place(section, int(match[1], 16)), match[2].strip(), function)
                if last is not None:
                    last.next = found
                self.at[found.place] = last = found

    def target(self, instruction):
        """The instruction that a direct jump leads to; None when it leaves this object."""
        if instruction.relocation:
            symbol, addend = instruction.relocation
            place = self.symbols.get(symbol) or Place(symbol, 0)
            return self.at.get(Place(place.section, place.address + addend + 4))
        operand = instruction.operands[0]
        return None if operand.startswith("*") else self.at.get(Place(instruction.place.section, int(operand, 16)))

    def loads(self):
        """Every instruction that loads a trace word, with the component it loads."""
        for instruction in self.at.values():
            if instruction.relocation and WORDS in instruction.relocation[0] and instruction.name == "mov":
                yield instruction, (instruction.relocation[1] + 4) // 4


def run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


# ---- where the word is ----------------------------------------------------------------------------------------------

ALIASES = {}
for letter in "abcd":
    ALIASES.update(dict.fromkeys([f"r{letter}x", f"e{letter}x", f"{letter}x", f"{letter}l"], f"r{letter}x"))
for pair in ("si", "di", "bp", "sp"):
    ALIASES.update(dict.fromkeys([f"r{pair}", f"e{pair}", pair, f"{pair}l"], f"r{pair}"))
for number in range(8, 16):
    ALIASES.update(dict.fromkeys([f"r{number}{suffix}" for suffix in ("", "d", "w", "b")], f"r{number}"))
LOST_IN_CALLS = {"rax", "rcx", "rdx", "rsi", "rdi"} | {f"r{number}" for number in range(8, 12)}
ALSO_CHANGED = {"rdtsc": {"rax", "rdx"}, "mul": {"rax", "rdx"}, "div": {"rax", "rdx"}, "idiv": {"rax", "rdx"},
                "cpuid": {"rax", "rbx", "rcx", "rdx"}, "cltq": {"rax"}, "cltd": {"rdx"}, "cqto": {"rdx"},
                "cmpxchg": {"rax"}, "stos": {"rdi", "rcx"}, "movs": {"rdi", "rsi", "rcx"}}
KEEPS_FLAGS = re.compile(r"mov\w*|lea\w?|push\w?|pop\w?|nop\w?|xchg|endbr64|cmov\w+|set\w+|cwtl|cltq|jmp|not\w?")
PLAIN_MOVE = re.compile(r"mov[lq]?|movabs")

# holders: (location, the bits of the word it holds); constants: (location, function identifier); tested: the bits of the
# word that the processor's flags speak of.
State = namedtuple("State", "place depth holders constants tested phase")
ALL_BITS = 0xFFFFFFFF
LOADED, ENTERED, LEFT = "between its load and its entry test", "after its entry test", "after its exit test"


class Fault(Exception):
    pass


class Walk:
    """Follows every way from one load of a trace word, with tracing off."""

    def __init__(self, code, load):
        self.code, self.load = code, load
        self.identifier, self.exit_tests = None, set()

    def run(self):
        holder = self.location(self.load.operands[-1], 0)
        self.pending = [State(self.load.next.place, 0, frozenset([(holder, ALL_BITS)]), frozenset(), None, LOADED)]
        seen = set()
        while self.pending:
            state = self.pending.pop()
            if state not in seen:
                seen.add(state)
                self.step(self.code.at[state.place], state)
        if self.identifier is None:
            raise Fault("the word is loaded and never tested for entry")

    def step(self, at, state):
        if at is self.load:
            self.ends(at, state)
        elif at.name.startswith("j"):
            self.jump(at, state)
        elif at.name.startswith("call"):
            self.call(at, state)
        elif at.name.startswith("ret"):
            self.ends(at, state)
        elif at.name.startswith(("test", "cmp")):
            self.test(at, state)
        elif not at.name.startswith("ud2"):
            self.go(at, self.moved(at, state))

    def go(self, at, state):
        if at.next is not None and same_function(at.next.function, at.function):
            self.pending.append(state._replace(place=at.next.place))

    def ends(self, at, state):
        if state.phase is not LEFT:
            raise Fault(f"a way ends at {where(at)} {state.phase}, without an exit test")

    def jump(self, at, state):
        if at.operands[0].startswith("*"):
            if at.relocation is None and state.phase is not LEFT:
                raise Fault(f"a jump through a register at {where(at)} cannot be followed")
            return
        target = self.code.target(at)
        if at.name == "jmp":
            self.jump_to(at, target, state)
        elif state.tested and at.name in ("je", "jne"):
            self.branch(at, target, state)
        else:
            self.go(at, state)
            self.jump_to(at, target, state)

    def jump_to(self, at, target, state):
        if target is None or not same_function(target.function, at.function):
            self.ends(at, state)
        else:
            self.pending.append(state._replace(place=target.place))

    def branch(self, at, target, state):
        """A branch on bits of the word, all of which are 0."""
        aside, taken = (target, False) if at.name == "jne" else (at.next, True)
        if state.tested == AT_ENTRY:
            if taken:
                raise Fault(f"the branch at {where(at)} is taken while tracing is off")
            if state.phase is not LOADED:
                raise Fault(f"a second entry test at {where(at)}")
            self.leads_to("sqltScopeEntry", aside, at, state)
            state = state._replace(phase=ENTERED)
        elif state.tested == AT_EXIT:
            if state.phase is not ENTERED:
                raise Fault(f"an exit test at {where(at)} comes {state.phase}")
            self.leads_to("sqltScopeExit", aside, at, state)
            self.exit_tests.add(at.place)
            state = state._replace(phase=LEFT)
        state = state._replace(tested=None)
        if taken:
            self.jump_to(at, target, state)
        else:
            self.go(at, state)

    def leads_to(self, wanted, here, branch, state):
        """Checks that the way of a set bit leads to the call that the test is for, with the function's identifier."""
        for _ in range(100):
            if here is None:
                break
            if here.name in ("call", "jmp") and here.relocation and self.code.target(here) is None:
                if here.relocation[0] == wanted:
                    return self.meet(dict(state.constants).get("rdi"), branch)
                break
            if here.name == "jmp":
                here = self.code.target(here)
            else:
                state, here = self.moved(here, state), here.next
        raise Fault(f"the branch at {where(branch)} does not lead to {wanted}")

    def meet(self, identifier, at):
        if identifier is None or (self.identifier is not None and identifier != self.identifier):
            raise Fault(f"the branch at {where(at)} carries no identifier of its function")
        self.identifier = identifier

    def call(self, at, state):
        if state.phase is LOADED:
            raise Fault(f"a call at {where(at)} comes {state.phase}")
        if at.relocation and NEVER_RETURN.fullmatch(at.relocation[0]):
            return
        self.go(at, self.without(state, LOST_IN_CALLS)._replace(tested=None))

    def test(self, at, state):
        subject, mask = self.location(at.operands[-1], state.depth), at.operands[0]
        bits = dict(state.holders).get(subject)
        if bits is None or at.name.startswith("cmp"):
            tested = None
        elif mask.startswith("$"):
            tested = bits & int(mask[1:], 16)
        else:
            tested = bits if self.location(mask, state.depth) == subject else None
        self.go(at, state._replace(tested=tested))

    def moved(self, at, state):
        """The state behind an instruction that only moves or changes data."""
        tested = state.tested if KEEPS_FLAGS.fullmatch(at.name) else None
        if at.name.startswith(("push", "pop")):
            depth = state.depth + (-8 if at.name.startswith("push") else 8)
            changed = {self.location(at.operands[0], state.depth)} if at.name.startswith("pop") else set()
            return self.without(state, changed)._replace(depth=depth, tested=tested)
        if not at.operands:
            return self.without(state, ALSO_CHANGED.get(at.name, set()))._replace(tested=tested)
        source, target = at.operands[0], self.location(at.operands[-1], state.depth)
        if target == "rsp" and at.name in ("sub", "add") and source.startswith("$"):
            bytes_ = int(source[1:], 16)
            if bytes_ >= 1 << 63:
                bytes_ -= 1 << 64
            return state._replace(depth=state.depth + (bytes_ if at.name == "add" else -bytes_), tested=tested)
        bits = self.bits_moved(at, source, target, state)
        constant = self.constant(at, source, state)
        state = self.without(state, {target} | ALSO_CHANGED.get(at.name.rstrip("bwlq"), set()))
        if bits is not None:
            state = state._replace(holders=state.holders | {(target, bits)})
            tested = bits if at.name.startswith("and") else tested
        if constant is not None:
            state = state._replace(constants=state.constants | {(target, constant)})
        return state._replace(tested=tested)

    def bits_moved(self, at, source, target, state):
        """The bits of the word that a move or a mask leaves in its target, or None."""
        holders = dict(state.holders)
        if PLAIN_MOVE.fullmatch(at.name):
            return holders.get(self.location(source, state.depth))
        if at.name.startswith("and") and source.startswith("$") and target in holders:
            return holders[target] & int(source[1:], 16)
        return None

    @staticmethod
    def constant(at, source, state):
        """The function identifier that a move puts into its target, or None."""
        if not PLAIN_MOVE.fullmatch(at.name):
            return None
        if source.startswith("$0x"):
            value = int(source[1:], 16)
            return value if value >> 27 == 3 else None
        return dict(state.constants).get(ALIASES.get(source.lstrip("%")))

    @staticmethod
    def without(state, changed):
        return state._replace(holders=frozenset(h for h in state.holders if h[0] not in changed),
                              constants=frozenset(c for c in state.constants if c[0] not in changed))

    @staticmethod
    def location(operand, depth):
        """One name for a register in all its widths, and for a stack slot wherever the stack pointer stands."""
        if operand.startswith("%"):
            return ALIASES.get(operand[1:], operand)
        slot = re.fullmatch(r"(-?0x[0-9a-f]+)?\(%rsp\)", operand)
        return ("slot", depth + int(slot[1] or "0", 16)) if slot else operand


def same_function(one, other):
    return one.removesuffix(".cold") == other.removesuffix(".cold")


def where(instruction):
    return f"{instruction.place.address:#x} of {instruction.function}"


# ---- the proof ------------------------------------------------------------------------------------------------------


def prove(objects, expected):
    """Walks from every load. Returns {identifier: [(places, exit tests)]} as counts, and the faults."""
    found, faults = defaultdict(lambda: [0, 0]), []
    for path in objects:
        code = Code(path)
        for load, component in code.loads():
            walk = Walk(code, load)
            try:
                walk.run()
                if walk.identifier >> 19 & 0xFF != component:
                    raise Fault(f"loads the word of component {component:#x} for another component's function")
                found[walk.identifier][0] += 1
                found[walk.identifier][1] += len(walk.exit_tests)
            except Fault as fault:
                faults.append(f"{path.name}: load at {where(load)}: {fault}")
    faults += [f"{name} has a trace scope in the sources but not in the machine code"
               for identifier, name in expected.items() if identifier not in found]
    faults += [f"0x{identifier:08X} is traced in the machine code, but no source has its scope"
               for identifier in found if identifier not in expected]
    return found, faults


def traced_functions():
    """{identifier: name} of every function that the library's sources give a trace scope."""
    numbers = {}
    for line in (ROOT / "platform/tables/functions.tsv").read_text().splitlines():
        if line and not line.startswith("#"):
            component, number, name = line.split("\t")[:3]
            numbers[name.replace("::", "_")] = 3 << 27 | int(component, 16) << 19 | int(number)
    sources = [f for folder in ROOT.iterdir() if folder.name not in ("build", "tests", "bench", "fuzz", "include")
               if folder.is_dir() for f in folder.rglob("*.cpp")]
    names = {name for f in sources for name in re.findall(r"\bVekTrace<\s*(?:vek::)?FID_(\w+)\s*>", f.read_text())}
    return {numbers[name]: name for name in sorted(names)}


def compiler_of(build):
    cache = (build / "CMakeCache.txt").read_text()
    return pathlib.Path(re.search(r"^CMAKE_CXX_COMPILER:\w+=(.+)$", cache, re.MULTILINE)[1]).name


def check_builds(builds):
    expected, results, faulty = traced_functions(), [], False
    for build in builds:
        objects = sorted(build.glob("CMakeFiles/veksys_*.dir/**/*.o"))
        found, faults = prove(objects, expected)
        results.append((compiler_of(build), found))
        faults += [] if objects else ["no objects; run ./dev build first"]
        faulty |= bool(faults)
        for fault in faults:
            print(f"{compiler_of(build)}: {fault}")
    print(f"{'traced function':<44}{'identifier':<12}" + "".join(f"{name:<26}" for name, _ in results))
    for identifier, name in expected.items():
        counts = [f"{found[identifier][0]} load, {found[identifier][1]} exit tests" for _, found in results]
        print(f"{name:<44}0x{identifier:08X}  " + "".join(f"{count:<26}" for count in counts))
    print(f"{len(expected)} traced functions: one load, one test and one untaken branch at entry, one test on every way "
          f"out" if not faulty else "Not proved.")
    return 1 if faulty else 0


# ---- self-test ------------------------------------------------------------------------------------------------------

SAMPLE = """
using Word = unsigned;
namespace vek { extern Word i_compTraceWords[1024] __attribute__((visibility("hidden"))); }
extern "C" Word sqltScopeEntry(Word, Word) noexcept;
extern "C" void sqltScopeExit(Word, Word, long) noexcept;
extern "C" int work(int) noexcept;
inline Word load() { return __atomic_load_n(&vek::i_compTraceWords[0x86], __ATOMIC_RELAXED); }
#define LIKELY(x, y) __builtin_expect(x, y)
#define FORGET __asm__ volatile("" : "+r"(word));
int traced(int a) noexcept {
  Word word = load();
  BEFORE
  if (LIKELY((word & 0x40001) != 0, ENTRY_LIKELY)) word = sqltScopeEntry(ENTRY_ID, word);
  int result = work(a);
  if (result < 0) LEAVE
  for (int i = 0; i < a; ++i) result += work(i);
  AGAIN
  if (LIKELY((word & 0x40082) != 0, 0)) sqltScopeExit(0x1C300001, word, result);
  return result;
}
"""
SOUND = {"BEFORE": "", "ENTRY_LIKELY": "0", "ENTRY_ID": "0x1C300001", "AGAIN": "",
         "LEAVE": "{ if (LIKELY((word & 0x40082) != 0, 0)) sqltScopeExit(0x1C300001, word, result); return result; }"}
BROKEN = {
    "reads the word again at exit": {"AGAIN": "word = load();"},
    "leaves once without an exit test": {"LEAVE": "return result;"},
    "tests twice for exit": {"AGAIN": "if ((word & 0x40082) != 0) sqltScopeExit(0x1C300001, word, 0); FORGET"},
    "works before the entry test": {"BEFORE": "a += work(7);"},
    "keeps the slow path in the straight line": {"ENTRY_LIKELY": "1"},
    "tells another function's identifier": {"ENTRY_ID": "0x1C300002"},
    "tests twice for entry": {
        "BEFORE": "if (LIKELY((word & 0x40001) != 0, 0)) word = sqltScopeEntry(0x1C300001, word); FORGET"},
}


def faults_in(compiler, changes, folder):
    source, output = folder / "sample.cpp", folder / "sample.o"
    source.write_text(SAMPLE)
    defines = [f"-D{name}={value}" for name, value in (SOUND | changes).items()]
    subprocess.run([compiler, "-std=c++20", "-O3", "-fPIC", *defines, "-c", source, "-o", output], check=True)
    return prove([output], {0x1C300001: "traced"})[1]


def self_test():
    failed = False
    with tempfile.TemporaryDirectory() as folder:
        for compiler in filter(shutil.which, ("g++", "clang++-14")):
            for name, changes in ({"is sound": {}} | BROKEN).items():
                faults = faults_in(compiler, changes, pathlib.Path(folder))
                right = bool(faults) == bool(changes)
                failed |= not right
                print(f"{'ok  ' if right else 'WRONG'} {compiler}: a function that {name}: {'; '.join(faults) or 'passes'}")
    return 1 if failed else 0


def main(arguments):
    if platform.machine() != "x86_64":
        print("This check reads x86-64 machine code; nothing was checked.")
        return 0
    if arguments == ["--self-test"]:
        return self_test()
    return check_builds([pathlib.Path(argument) for argument in arguments])


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
