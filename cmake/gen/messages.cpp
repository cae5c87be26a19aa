// Kinds `mo` and `sqlstates`: texts, SQL states and precedence of SQL codes.
#include <algorithm>
#include <cstdlib>

#include "gen.h"

namespace gen {
namespace {

struct Message {
  std::int32_t sqlcode;
  std::string state;
  std::int32_t rank;
  std::string text;

  std::string key() const { return format("SQL%04d%c", std::abs(sqlcode), sqlcode < 0 ? 'N' : 'W'); }
};

std::string stateCell(const Row& row, std::size_t column) {
  const std::string& cell = row.cells[column];
  const bool right = cell.size() == 5 && std::all_of(cell.begin(), cell.end(), [](char c) {
                       return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z');
                     });
  if (!right) complain(row, format("'%s' is no SQL state", cell.c_str()), "write five digits or upper-case letters");
  return cell;
}

std::vector<Message> readMessages(const std::string& path) {
  std::vector<Message> messages;
  Unique codes("SQL code");
  for (const Row& row : readTable(path, 4)) {
    Message message{static_cast<std::int32_t>(decimalCell(row, 0, -99999, 99999)), stateCell(row, 1),
                    static_cast<std::int32_t>(decimalCell(row, 2, 0, 999)), textCell(row, 3, 300)};
    codes.add(row, std::to_string(message.sqlcode));
    if ((message.sqlcode > 0) != (message.rank > 0))
      complain(row, format("rank %d for SQL code %d", message.rank, message.sqlcode),
               "give warnings a rank of 1 or more and errors the rank 0");
    messages.push_back(message);
  }
  return messages;
}

void append32(std::string& out, std::size_t value) {
  for (unsigned shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>(value >> shift & 0xFF));
}

}  // namespace

// A message object: seven words of header, the table of keys, the table of texts (length and offset each), then the
// terminated strings. Keys ascend, so that a reader can search by halving; there is no hash table.
std::string messageObject(const Inputs& inputs) {
  constexpr std::size_t kHeaderBytes = 28;
  std::vector<std::pair<std::string, std::string>> pairs = {
      {"",
       "Language: en_US\nMIME-Version: 1.0\nContent-Type: text/plain; charset=US-ASCII\nContent-Transfer-Encoding: "
       "8bit\n"}};
  for (const Message& message : readMessages(inputs.at(0)))
    pairs.emplace_back(message.key(), message.key() + "  " + message.text);
  std::sort(pairs.begin(), pairs.end());

  const std::size_t tableBytes = pairs.size() * 8;
  std::string strings;
  std::string keyTable;
  std::string textTable;
  const auto place = [&](std::string& table, const std::string& string) {
    append32(table, string.size());
    append32(table, kHeaderBytes + 2 * tableBytes + strings.size());
    strings += string + '\0';
  };
  for (const auto& [key, text] : pairs) place(keyTable, key);
  for (const auto& [key, text] : pairs) place(textTable, text);

  std::string out;
  for (const std::size_t word : {std::size_t{0x950412DE}, std::size_t{0}, pairs.size(), kHeaderBytes,
                                 kHeaderBytes + tableBytes, std::size_t{0}, kHeaderBytes + 2 * tableBytes})
    append32(out, word);
  return out + keyTable + textTable + strings;
}

std::string sqlStates(const Inputs& inputs) {
  std::vector<Message> messages = readMessages(inputs.at(0));
  std::sort(messages.begin(), messages.end(), [](const Message& a, const Message& b) { return a.sqlcode < b.sqlcode; });
  std::string out = banner(inputs) +
                    "\n// Ascending by SQL code: its SQL state and, for a warning, its precedence.\n"
                    "constexpr SqlStateRow kSqlStates[] = {\n";
  for (const Message& message : messages)
    out += format("    {%d, \"%s\", %d},\n", message.sqlcode, message.state.c_str(), message.rank);
  return out + "};\n";
}

}  // namespace gen
