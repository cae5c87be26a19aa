// veksys rc: explains return codes and SQL codes, and finds codes by words.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "failure.h"
#include "instance.h"
#include "json.h"
#include "names.h"
#include "rc_explain.h"
#include "rc_scan.h"
#include "rc_search.h"

namespace veksys {
namespace {

constexpr std::size_t kTextMost = 64U << 20;

struct RcOptions {
  std::vector<std::string> words;
  std::size_t limit = 20;
};

std::string readStandardInput() {
  std::string text;
  char chunk[65536];
  for (;;) {
    const ssize_t count = ::read(STDIN_FILENO, chunk, sizeof chunk);
    if (count < 0) sayNo(std::string("Standard input cannot be read: ") + std::strerror(errno) + ".");
    if (count == 0) return text;
    text.append(chunk, static_cast<std::size_t>(count));
    if (text.size() > kTextMost) sayNo("Standard input holds more than 64 MB; pick the part with the codes.");
  }
}

std::string join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

std::vector<std::string> splitWords(const std::string& text) {
  std::vector<std::string> words;
  std::size_t at = 0;
  while ((at = text.find_first_not_of(" \t\r\n,;", at)) != std::string::npos) {
    const std::size_t end = std::min(text.find_first_of(" \t\r\n,;", at), text.size());
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

// ---- output -----------------------------------------------------------------------------------------------------

void explainAsText(Command& command, const std::vector<FoundCode>& codes, std::size_t limit) {
  bool first = true;
  for (const FoundCode& code : codes) {
    if (!std::exchange(first, false)) command.out.put('\n');
    if (code.isSqlCode)
      putSqlCode(command.out, sqlFacts(code.value), codesOfSqlCode(code.value), limit);
    else
      putZrc(command.out, zrcFacts(code.value, code.named));
    if (!code.note.empty()) command.out.put("  Note: " + code.note + "\n");
  }
}

void explainAsJson(Command& command, const std::vector<FoundCode>& codes, std::size_t limit) {
  JsonDocument json;
  json.begin(command.out);
  json.array("codes");
  for (const FoundCode& code : codes) {
    json.StartObject();
    json.member("kind", code.isSqlCode ? "sql_code" : "return_code");
    if (code.isSqlCode)
      putSqlCode(json, sqlFacts(code.value), codesOfSqlCode(code.value), limit);
    else
      putZrc(json, zrcFacts(code.value, code.named));
    if (!code.note.empty()) json.member("note", code.note);
    json.EndObject();
  }
  json.EndArray();
  json.EndObject();
  command.out.put('\n');
}

void listAsText(Command& command, const std::vector<const SqlzZrcEntry*>& codes, std::size_t limit) {
  const std::size_t shown = std::min(codes.size(), limit);
  putCodeLines(command.out, codes, limit, 0);
  command.out.grouped(codes.size());
  command.out.put(codes.size() == 1 ? " code found" : " codes found");
  if (shown < codes.size()) {
    command.out.put(", the best ");
    command.out.grouped(shown);
    command.out.put(" shown (--limit shows more)");
  }
  command.out.put('\n');
}

void listAsJson(Command& command, const std::vector<const SqlzZrcEntry*>& codes, std::size_t limit) {
  JsonDocument json;
  json.begin(command.out);
  json.member("count", codes.size());
  json.array("matches");
  for (std::size_t i = 0; i < std::min(codes.size(), limit); ++i) {
    json.StartObject();
    putCodeMembers(json, *codes[i]);
    json.EndObject();
  }
  json.EndArray();
  json.EndObject();
  command.out.put('\n');
}

// ---- the three ways of asking -----------------------------------------------------------------------------------

// A word written like the name of a code: SQLO_NOMEM.
bool looksLikeName(const std::string& word) {
  constexpr std::string_view kLetters = "abcdefghijklmnopqrstuvwxyz0123456789_";
  return word.find('_') != std::string::npos && lowerCase(word).find_first_not_of(kLetters) == std::string::npos;
}

// The answer to words that no code has: the same wherever they stood.
[[noreturn]] void refuseUnknown(Command& command, const std::vector<std::string>& words) {
  if (command.json) listAsJson(command, {}, 0);
  const bool isName = words.size() == 1 && looksLikeName(words[0]);
  sayNo((isName ? "No return code is called \"" + words[0] + "\""
                : "No return code has \"" + join(words) + "\" in its name or text") +
        "; accepted is " + std::string(CODE_FORMS) + "." +
        (words.size() == 1 ? didYouMean(nearestCodeNames(words[0])) : ""));
}

// Every word a code: these codes. Otherwise the codes that stand in the text as a whole, if any. A misspelt name among
// codes is not passed over.
std::vector<FoundCode> codesOf(Command& command, const std::vector<std::string>& words, const std::string& text) {
  std::vector<FoundCode> codes;
  std::string unknown;
  for (const std::string& word : words) {
    if (auto code = readCode(word))
      codes.push_back(std::move(*code));
    else if (looksLikeName(word))
      unknown = unknown.empty() ? word : unknown;
    else
      return scanCodes(text);
  }
  if (!codes.empty() && !unknown.empty()) refuseUnknown(command, {unknown});
  return codes;
}

int explain(Command& command, const std::vector<FoundCode>& codes, std::size_t limit) {
  command.json ? explainAsJson(command, codes, limit) : explainAsText(command, codes, limit);
  return EXIT_DONE;
}

// A single match of a name is as good as the name itself.
int search(Command& command, const std::vector<std::string>& words, std::size_t limit) {
  const auto codes = searchCodes(words);
  if (codes.size() == 1 && !command.json) return explain(command, {{false, codes[0]->code, "", codes[0]}}, limit);
  if (codes.empty()) refuseUnknown(command, words);
  command.json ? listAsJson(command, codes, limit) : listAsText(command, codes, limit);
  return EXIT_DONE;
}

int explainInput(Command& command, std::size_t limit) {
  const auto codes = scanCodes(readStandardInput());
  if (codes.empty() && command.json) explainAsJson(command, codes, limit);
  if (codes.empty()) sayNo("There is no code in what came from standard input.");
  return explain(command, codes, limit);
}

int runRc(Command& command, const RcOptions& options) {
  stayDetached();
  const std::string text = join(options.words);
  if (text == "-" || (options.words.empty() && !isTerminal(STDIN_FILENO))) return explainInput(command, options.limit);
  const std::vector<std::string> words = splitWords(text);
  if (words.empty()) wrongUse("Nothing to explain: give " + std::string(CODE_FORMS) + ".");
  const auto codes = codesOf(command, words, text);
  return codes.empty() ? search(command, words, options.limit) : explain(command, codes, options.limit);
}

}  // namespace

void addRc(CLI::App& app, Command& command) {
  auto options = std::make_shared<RcOptions>();
  CLI::App* rc = app.add_subcommand("rc", "Explain a return code or an SQL code, or find codes by name or words");
  rc->add_option("CODE|NAME|WORD", options->words,
                 "A code (0x8B0F0000, 8B0F0000, -1961951232, -911, SQL0911N), a name or a part of one (SQLO_NOMEM), "
                 "words from a text, or a pasted log line; '-' reads standard input and explains every code in it")
      ->type_name("");
  rc->add_option("--limit", options->limit, "Show at most N codes of a list")
      ->type_name("N")
      ->capture_default_str()
      ->check(countOption());
  rc->callback([&command, options] { command.run = [&command, options] { return runRc(command, *options); }; });
}

}  // namespace veksys
