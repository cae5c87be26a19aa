// The std::error_category of return codes. It lives in the library: categories are compared by their address.
#include "veksys/diag/error_category.h"

#include <string>

namespace {

class ZrcCategory final : public std::error_category {
 public:
  const char* name() const noexcept override { return "veksys"; }

  std::string message(int value) const override {
    if (const SqlzZrcEntry* entry = sqlzFindZrc(value); entry != nullptr) return entry->description;
    char text[512];
    const std::string description(text, pdZRCGetDescription(value, text, sizeof text));
    return description.substr(0, description.find('\r'));
  }

  std::error_condition default_error_condition(int value) const noexcept override {
    const int error = sqloErrnoOfZrc(value);
    return error == 0 ? std::error_condition(value, *this) : std::generic_category().default_error_condition(error);
  }

  bool equivalent(int value, const std::error_condition& condition) const noexcept override {
    return std::error_category::equivalent(value, condition) ||
           (condition.category() == std::generic_category() && sqloZrcStandsForErrno(value, condition.value()));
  }
};

}  // namespace

const std::error_category& sqlzErrorCategory() noexcept {
  static const ZrcCategory category;
  return category;
}
