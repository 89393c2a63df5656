// together.h - objects that enter the registry together, or leave it together, with its
// mutex taken once: those that one receive makes, and a message with its frames.
//
// Only their maker knows objects that have not entered yet, and it does not ask about them.
// Objects that leave together are taken out of the sets before the first of them is freed.
#ifndef JACTOR_TOGETHER_H
#define JACTOR_TOGETHER_H

#include <algorithm>
#include <cstddef>
#include <type_traits>
#include <utility>

#include "jcxxactorapi.h"

namespace registry {

// Objects of one family that have been made and have not entered, oldest first.
template <class Object>
class Unentered {
 public:
  bool empty() const { return first_ == end_; }
  bool full() const { return end_ == kRoom; }
  void Add(Object* p) { objects_[end_++] = p; }

  // Drops `p`, which its maker does not need; false when it is not among them. Objects are
  // mostly dropped in the order in which they were made, or the last one first.
  bool Drop(const Object* p) {
    Object** const begin = objects_ + first_;
    Object** const end = objects_ + end_;
    Object** const found = !empty() && *(end - 1) == p ? end - 1 : std::find(begin, end, p);
    if (found == end) {
      return false;
    }
    if (found == begin) {
      ++first_;
    } else {
      std::move(found + 1, end, found);
      --end_;
    }
    return true;
  }

  // Calls `enter` with each of them. When that throws, it and those after it stay.
  template <class EnterOne>
  void EnterEach(EnterOne enter) {
    for (; !empty(); ++first_) {
      enter(objects_[first_]);
    }
    first_ = end_ = 0;
  }

 private:
  static constexpr std::size_t kRoom = 16;

  Object* objects_[kRoom];
  std::size_t first_ = 0;
  std::size_t end_ = 0;
};

// What one call makes, until it enters.
struct Making {
  Unentered<JCXXFrame> frames;
  Unentered<JCXXMsg> msgs;
  bool constructing = false;  // until the object exists: a log line may make other objects

  template <class Object>
  Unentered<Object>& Of() {
    if constexpr (std::is_same_v<Object, JCXXFrame>) {
      return frames;
    } else {
      return msgs;
    }
  }

  class Constructing {
   public:
    explicit Constructing(Making* what) : making_(what) { Set(true); }
    Constructing(Constructing const&) = delete;
    Constructing& operator=(Constructing const&) = delete;
    ~Constructing() { Set(false); }

   private:
    void Set(bool now) {
      if (making_ != nullptr) {
        making_->constructing = now;
      }
    }

    Making* making_;
  };
};

// What has left the registry and is destroyed next: this many frames, and the message.
struct Departed {
  std::size_t frames = 0;
  const JCXXMsg* msg = nullptr;

  // Whether the object, which is being destroyed, is one of them.
  bool Meet(const JCXXFrame* /*frame*/) { return frames != 0 && frames-- != 0; }
  bool Meet(const JCXXMsg* p) { return msg == p && std::exchange(msg, nullptr) != nullptr; }
};

}  // namespace registry

#endif
