// content.h - what a message is to jpipe.
#ifndef JPIPE_CONTENT_H
#define JPIPE_CONTENT_H

#include <cstddef>
#include <string_view>
#include <vector>

namespace jpipe {

// A message taken apart, or about to be sent. The views point into what the
// message came from.
struct Content {
  int signal = -1;  // 0 to 255 for a signal, which has no frames
  std::vector<std::string_view> frames;

  std::size_t Bytes() const {
    std::size_t bytes = 0;
    for (const std::string_view frame : frames) {
      bytes += frame.size();
    }
    return bytes;
  }
};

}  // namespace jpipe

#endif
