// The parts of the program that uses an installed copy.
#pragma once

#include <veksys/types.h>

inline constexpr EcfFunctionId FID_firstStep = ecfFunctionId(0x09, 1);
inline constexpr EcfFunctionId FID_secondStep = ecfFunctionId(0x0A, 1);

extern "C" {

// Runs everything and tells on standard error what is wrong; 0 when nothing is.
int runProgram();

// A traced function of the second library.
SqlzZrc secondStep(int number);
}
