// What ends the command early: one sentence for the person at the terminal, and the exit status that goes with it.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace veksys {

inline constexpr int EXIT_DONE = 0;
inline constexpr int EXIT_NO = 1;         // the answer is no, or a problem was found
inline constexpr int EXIT_WRONG_USE = 2;  // the command was not understood

class Failure : public std::exception {
 public:
  Failure(int status, std::string sentence) : status_(status), sentence_(std::move(sentence)) {}
  int status() const noexcept { return status_; }
  const char* what() const noexcept override { return sentence_.c_str(); }

 private:
  int status_;
  std::string sentence_;
};

[[noreturn]] inline void wrongUse(std::string sentence) { throw Failure(EXIT_WRONG_USE, std::move(sentence)); }
[[noreturn]] inline void sayNo(std::string sentence) { throw Failure(EXIT_NO, std::move(sentence)); }

// The reader of standard output has gone away (`| head`): nothing is left to do and nothing went wrong.
struct OutputClosed {};

}  // namespace veksys
