#include "program.h"

int main() { return runProgram() == 0 ? 0 : 1; }
