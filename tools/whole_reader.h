// whole_reader.h - messages taken out of a FIFO in one piece.
//
// If a process is killed between two reads, it leaves the FIFO in the middle of a message.
// So this first looks at a copy that the system makes in a second pipe, and then takes a
// whole message with one read.
#ifndef JPIPE_WHOLE_READER_H
#define JPIPE_WHOLE_READER_H

#include <string>

#include "descriptor.h"

namespace jpipe {

class WholeReader {
 public:
  // `fifo` stays the caller's, who must not read from it until Take returns false.
  explicit WholeReader(int fifo);

  // Takes the next message into `bytes`. Result: false when no whole one waits that fits
  // into the second pipe.
  bool Take(std::string& bytes);

 private:
  std::size_t SizeOfNext() const;
  void Look();

  int fifo_;
  Descriptor in_;
  Descriptor out_;
  std::string seen_;          // a copy of what waits in the FIFO
  std::size_t position_ = 0;  // of it in what was seen
};

}  // namespace jpipe

#endif
