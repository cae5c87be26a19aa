// What a national language decides about the text of values.
#pragma once

#include <cstdint>

// A national-language object, made by the caller. Functions that take one take null as well: then numbers have a point,
// and dates and times the forms of ISO.
struct SqlvNationalLanguage {
  char decimalPoint = '.';
  // Whose date and time formats the request codes 0 and 5 stand for: numeric country code of ISO 3166-1 (840 the United
  // States, 276 Germany, 392 Japan), or 0 for the forms of ISO.
  std::uint16_t territory = 0;
  // The library's: the territory's entry in the country-code table, kept from one call to the next. Null at first, but
  // nothing depends on that: what is no address of an entry, or of another territory's, is never followed and replaced.
  // Nothing need be done to it when the territory changes, nor when several threads use the object; those that only
  // read the object's territory may do so at once, changing it excludes them.
  const void* countryEntry = nullptr;
};
