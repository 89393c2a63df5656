// lines.h - reading a descriptor by lines or to its end, within limits.
#ifndef JPIPE_LINES_H
#define JPIPE_LINES_H

#include <string>

#include "waiting.h"

namespace jpipe {

class LineReader {
 public:
  // Reads `fd`, which stays the caller's. `name` is for error messages.
  LineReader(int fd, std::string name, Patience& patience);

  // Reads the next line into `line`, without its newline; the last one may lack it.
  // Result: kReady, with `at_end` telling that there was no further line; or what
  // ended the wait. Fails when the line has more than `most` bytes.
  Outcome Next(std::string& line, std::size_t most, bool& at_end);

  // Reads what is left of the input into `bytes`. Result and failures as Next.
  Outcome Rest(std::string& bytes, std::size_t most);

 private:
  Outcome Fill();
  std::size_t Left() const { return ahead_.size() - start_; }

  int fd_;
  std::string name_;
  Patience& patience_;
  std::string ahead_;  // read, handed out up to `start_`
  std::size_t start_ = 0;
  std::size_t searched_ = 0;  // there is no newline between `start_` and here
  bool ended_ = false;
  unsigned long long number_ = 0;  // of the line
};

}  // namespace jpipe

#endif
