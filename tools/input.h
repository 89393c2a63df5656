// input.h - reading a file or standard input so that a signal can end it.
#ifndef JPIPE_INPUT_H
#define JPIPE_INPUT_H

#include <string>

#include "descriptor.h"
#include "waiting.h"

namespace jpipe {

class InputReader {
 public:
  // Opens the file `name`; "-" is standard input. Fails when it cannot be opened.
  explicit InputReader(const std::string& name);

  // Waits with `patience` from now on. Call it before the first read.
  void WaitWith(Patience& patience) { patience_ = &patience; }

  // Reads the next line into `line`, without its newline; the last one may lack it.
  // Result: kReady, where `at_end` says that there was no further line; or what
  // ended the wait. Fails when the line has more than `most` bytes.
  Outcome Next(std::string& line, std::size_t most, bool& at_end);

  // Reads what is left of the input into `bytes`. Result and failures as Next.
  Outcome Rest(std::string& bytes, std::size_t most);

  // Reads `size` bytes into `bytes`. Result: how many there were; fewer at the end
  // of the input, or when the wait was ended.
  std::size_t Read(char* bytes, std::size_t size);

 private:
  Outcome Fill();
  std::size_t Left() const { return ahead_.size() - start_; }

  std::string name_;
  Descriptor file_;  // none for standard input
  int fd_;
  Patience* patience_ = nullptr;
  std::string ahead_;  // read, and used up to `start_`
  std::size_t start_ = 0;
  std::size_t searched_ = 0;  // there is no newline between `start_` and here
  bool ended_ = false;
  unsigned long long number_ = 0;  // of the line
};

}  // namespace jpipe

#endif
