// Values: conversions between the internal forms of column values, binary numbers and text.
#pragma once

#include "veksys/values/datetime.h"
#include "veksys/values/datetime_chrono.h"
#include "veksys/values/decimal_float.h"
#include "veksys/values/dfpal.h"
#include "veksys/values/national_language.h"
#include "veksys/values/packed_decimal.h"
