// whole_reader.h - messages taken out of a FIFO in one piece.
//
// A process that is killed between two reads leaves the FIFO in the middle of a message.
// So this looks first, at a copy that the system makes inside a second pipe, and then
// takes a whole message with one read.
#ifndef JPIPE_WHOLE_READER_H
#define JPIPE_WHOLE_READER_H

#include <string>

#include "descriptor.h"

namespace jpipe {

class WholeReader {
 public:
  // `fifo` stays the caller's, who reads nothing else from it before Take gives false.
  explicit WholeReader(int fifo);

  // Takes the next message into `bytes`. Result: false when no whole one waits, as far as
  // a pipe's room shows.
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
