// From the file to blocks: runs of whole stanzas, the unit of a request.
//
// Anything that can be read from front to end will do: a file, a pipe, a device. A block ends behind a blank line; a
// stanza that fills a block is cut and the rest of it passed over.
#pragma once

#include <veksys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace demo {

inline constexpr std::size_t kBlockBytes = 262'144;  // at most
inline constexpr std::size_t kBlockTarget = 16'384;  // a block ends with the stanza that passes this

struct Block {
  std::string_view text;    // valid until the next block is read
  std::uint64_t firstLine;  // number of its first line in the file, from 1
  bool cut;                 // its last stanza goes on behind it
};

class BlockReader {
 public:
  explicit BlockReader(int descriptor) noexcept : descriptor_(descriptor), buffer_(kBlockBytes) {}

  // Reads the next block; at the end of the file one without text. 0, or the code of an error of the operating system.
  SqlzZrc readBlock(Block* out);

  [[nodiscard]] std::uint64_t linesRead() const noexcept { return line_ - 1; }  // a last one without a line end too
  [[nodiscard]] std::uint64_t bytesRead() const noexcept { return bytesRead_; }

 private:
  [[nodiscard]] std::string_view unread() const noexcept { return {buffer_.data() + begin_, end_ - begin_}; }
  SqlzZrc refill();
  SqlzZrc passOverStanza();
  std::size_t blockLength() noexcept;
  void take(std::size_t length, bool cut, Block* out) noexcept;

  int descriptor_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;  // of what has been read and not given out
  std::size_t end_ = 0;
  std::size_t scanned_ = 0;  // how much of that was searched for the end of a block, whole lines only
  std::uint64_t line_ = 1;
  std::uint64_t bytesRead_ = 0;
  bool atEnd_ = false;
  bool passOver_ = false;     // the rest of a stanza that was cut comes next
  bool lineHasText_ = false;  // in what has been given out or passed over of the line that comes next
};

}  // namespace demo
