// What tests of the command share: running it as a person does, and a small traced program to look at.
#pragma once

#include <rapidjson/document.h>

#include <functional>
#include <regex>

#include "platform/trace_support.h"
#include "veksys/codes.h"
#include "veksys/diag/trace_scope.h"

namespace vektest {

using Words = std::vector<std::string>;

inline Words joined(Words words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

struct Answer {
  int status = -1;  // exit status; -1: killed by a signal
  std::string out;
  std::string err;
};

inline std::string directoryOfInstance() { return ::getenv("VEK_SHM_DIR"); }

inline std::string streamOf(const char* name) { return directoryOfInstance() + "/run." + name; }

// Starts a program, looked for in the PATH, with these arguments. A stream that is not given is a file of the
// instance's directory. Status 127: there is none.
inline pid_t startProgram(const std::string& program, const Words& arguments, int output = -1, int errors = -1) {
  const pid_t child = ::fork();
  if (child != 0) return child;
  const auto open = [](const char* name) {
    return ::open(streamOf(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  };
  ::dup2(::open(streamOf("in").c_str(), O_RDONLY | O_CLOEXEC), 0);
  ::dup2(output < 0 ? open("out") : output, 1);
  ::dup2(errors < 0 ? open("err") : errors, 2);
  ::alarm(240);
  std::vector<char*> argv = {const_cast<char*>(program.c_str())};
  for (const std::string& each : arguments) argv.push_back(const_cast<char*>(each.c_str()));
  argv.push_back(nullptr);
  ::execvp(program.c_str(), argv.data());
  ::_exit(127);
}

inline Answer answerOf(pid_t program) {
  const int end = finish(program);
  return {end < 0 ? -1 : end, contentOf(streamOf("out")), contentOf(streamOf("err"))};
}

inline Answer runProgram(const std::string& program, const Words& arguments, const std::string& input = "") {
  std::ofstream(streamOf("in"), std::ios::binary) << input;
  return answerOf(startProgram(program, arguments));
}

// Runs the command.
inline Answer veksys(const Words& arguments, const std::string& input = "") {
  return runProgram(VEKSYS_TEST_BIN "/veksys", arguments, input);
}

inline Words linesOf(const std::string& text) {
  Words lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

inline rapidjson::Document json(const std::string& text) {
  rapidjson::Document document;
  document.Parse(text.data(), text.size());
  EXPECT_FALSE(document.HasParseError()) << text.substr(0, 400);
  return document;
}

inline std::vector<rapidjson::Document> jsonLines(const std::string& text) {
  std::vector<rapidjson::Document> documents;
  for (const std::string& line : linesOf(text)) documents.push_back(json(line));
  return documents;
}

// A mistake is one sentence on standard error that begins with the command's name.
inline void expectSentence(const Answer& answer, int status, const std::string& part) {
  EXPECT_EQ(answer.status, status) << answer.out << answer.err;
  EXPECT_EQ(linesOf(answer.err).size(), 1U) << answer.err;
  EXPECT_TRUE(answer.err.starts_with("veksys: ")) << answer.err;
  EXPECT_TRUE(holds(answer.err, part)) << answer.err << "\nshould tell: " << part;
}

// What runs the command on an instance of its own.
class CommandTest : public ::testing::Test {
 protected:
  Instance instance_;
};

// Beside processes that live until the test ends them, or ends.
class LivingProcesses : public CommandTest {
 protected:
  ~LivingProcesses() override {
    for (const pid_t process : processes_) finishKilled(process);
  }

  // A process that has done `body`.
  pid_t live(const std::function<void()>& body) {
    return startLiving(body, [] {});
  }
  // One that ends up waiting in `body`, or busy with it.
  pid_t livingIn(const std::function<void()>& body) {
    return startLiving([] {}, body);
  }
  static void stop(pid_t process) {
    ::kill(process, SIGSTOP);
    EXPECT_TRUE(waitUntilStopped(process));
  }
  void end(pid_t process) {
    finishKilled(process);
    std::erase(processes_, process);
  }

 private:
  pid_t startLiving(const std::function<void()>& first, const std::function<void()>& then) {
    processes_.push_back(start([&] {
      first();
      done_.give();
      then();
      for (;;) ::pause();
    }));
    EXPECT_TRUE(done_.take());
    return processes_.back();
  }

  Baton done_;
  std::vector<pid_t> processes_;
};

// ---- a traced program -------------------------------------------------------------------------------------------

inline constexpr EcfFunctionId kServe = ecfFunctionId(0x05, 900);
inline constexpr EcfFunctionId kRead = ecfFunctionId(0x02, 901);
inline constexpr EcfFunctionId kFind = ecfFunctionId(0x09, 902);  // nobody names it

inline void nameFunctions() {
  static const VekFunctionName names[] = {{kServe, "serve"}, {kRead, "readPage"}};
  installHost([](VekHost& host) {
    host.functionNames = names;
    host.functionNameCount = std::size(names);
  });
}

inline int find(int key) {
  const SqltTraceScope<kFind> trace;
  return key;
}

inline SqlzZrc readPage(int page) {
  SqltTraceScope<kRead> trace;
  find(page);
  if (page % 3 != 0) return trace.exit(0);
  trace.error(20, SQLO_NOMEM, page, std::string_view("no \"room\"\x1b[31m"));
  return trace.exit(SQLO_NOMEM);
}

inline SqlzZrc serve(int request) {
  SqltTraceScope<kServe> trace;
  trace.data(10, request, std::string_view("request"));
  const SqlzZrc result = readPage(request);
  if (result != 0) pdtErrorTrans(kServe, 30, result, SQLO_INV_PARM);
  return trace.exit(result == 0 ? 0 : SQLO_INV_PARM);
}

// Has entries, exits, errors and data of these components traced, or what else the first mask byte asks for.
inline void traceOnly(const std::vector<std::uint32_t>& components, std::uint8_t mask = 0x1E) {
  SqltTraceSettings settings = {};
  settings.options = SQLT_OPTION_COMPONENTS;
  settings.selection = SQLT_SELECT_MASK_BYTES;
  for (const std::uint32_t each : components) settings.components[each / 8] |= static_cast<std::uint8_t>(1 << each % 8);
  settings.mask[0] = mask;
  EXPECT_EQ(sqltSetTraceFlags(&settings), 0);
}

// Serves requests 1 to `count` in a process of its own, with everything traced.
inline void serveInProcess(int count, std::uint64_t ringBytes = SQLT_TRACE_SIZE_DEFAULT) {
  inProcess([&] {
    nameFunctions();
    sqltTraceFacilityCreate(ringBytes);
    traceOnly({ecfComponent(kServe), ecfComponent(kRead), ecfComponent(kFind)});
    for (int request = 1; request <= count; ++request) serve(request);
  });
}

}  // namespace vektest
