// registry.h - what the registry keeps beside its sets, so that a set is asked
// less often and an entry costs no allocation in the steady state.
//
// A set is only touched with the registry's mutex held. The counts of changes may
// be read without it; they are the reason that a thread may trust its memory.
#ifndef JACTOR_REGISTRY_H
#define JACTOR_REGISTRY_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_set>
#include <utility>

// A number below `count`, a power of two, spread evenly over addresses.
template <std::size_t count>
std::size_t SpreadAddress(const void* p) {
  static_assert((count & (count - 1)) == 0);
  constexpr std::uint64_t kGoldenRatio = 0x9E3779B97F4A7C15;
  return (reinterpret_cast<std::uintptr_t>(p) * kGoldenRatio >> 32) % count;
}

// How often objects of one family have come and gone, counted apart for groups of
// addresses, each on a cache line of its own. While nothing of its group has gone,
// a valid handle is still valid; while nothing has come, an unknown one is still
// unknown.
class Changes {
 public:
  // The count that an answer of this kind depends on.
  std::uint64_t Since(const void* p, bool valid) const {
    const Group& group = groups_[SpreadAddress<kGroups>(p)];
    return (valid ? group.removed : group.added).load(std::memory_order_acquire);
  }

  // With the mutex held, as a handle enters or leaves its set, or all leave.
  void CountAdded(const void* p) { Increment(groups_[SpreadAddress<kGroups>(p)].added); }
  void CountRemoved(const void* p) { Increment(groups_[SpreadAddress<kGroups>(p)].removed); }
  void CountAllRemoved() {
    for (Group& group : groups_) {
      Increment(group.removed);
    }
  }

 private:
  static constexpr std::size_t kGroups = 64;
  struct alignas(64) Group {
    std::atomic<std::uint64_t> added{0};
    std::atomic<std::uint64_t> removed{0};
  };

  // The mutex keeps other writers away: no locked instruction is needed.
  static void Increment(std::atomic<std::uint64_t>& count) {
    count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }

  std::array<Group, kGroups> groups_;
};

// The handles of one family that this thread last asked for, each with the answer
// and the count that the answer depends on. A handle whose count has moved, by
// whichever thread, has to be asked for again.
template <class Object>
class KnownHandles {
 public:
  // Tells the answer known for `p`, if it still holds.
  static std::optional<bool> Recall(const Changes& changes, const Object* p) {
    const Entry& entry = entries_[SpreadAddress<kEntries>(p)];
    const bool valid = (entry.answer & 1) != 0;
    if (entry.object != p || entry.answer != Answer(changes, p, valid)) {
      return std::nullopt;
    }
    return valid;
  }

  // With the mutex held, so that answer and count belong together.
  static void Remember(const Changes& changes, const Object* p, bool valid) {
    entries_[SpreadAddress<kEntries>(p)] = {p, Answer(changes, p, valid)};
  }

 private:
  static constexpr std::size_t kEntries = 8;
  struct Entry {
    const Object* object;
    std::uint64_t answer;  // the count, and in the lowest bit whether the handle is valid
  };

  static std::uint64_t Answer(const Changes& changes, const Object* p, bool valid) {
    return changes.Since(p, valid) << 1 | static_cast<std::uint64_t>(valid);
  }

  // Found without a call. A few hundred bytes of this kind do no harm even where
  // the library is loaded late, by dlopen.
  [[gnu::tls_model("initial-exec")]] static inline thread_local std::array<Entry, kEntries>
      entries_ = {};
};

// Set nodes kept for the next objects. Only with the mutex held.
template <class Object>
class SpareNodes {
 public:
  using Set = std::unordered_set<Object*>;

  // Enters `p`; false when it is there already.
  bool Insert(Set& set, Object* p) {
    if (count_ == 0) {
      return set.insert(p).second;
    }
    nodes_[count_ - 1].value() = p;
    auto result = set.insert(std::move(nodes_[count_ - 1]));
    if (!result.inserted) {
      nodes_[count_ - 1] = std::move(result.node);
      return false;
    }
    --count_;
    return true;
  }

  // Takes `p` out; false when it is not there.
  bool Erase(Set& set, Object* p) {
    if (count_ == nodes_.size()) {
      return set.erase(p) != 0;
    }
    auto node = set.extract(p);
    if (node.empty()) {
      return false;
    }
    nodes_[count_++] = std::move(node);
    return true;
  }

 private:
  std::array<typename Set::node_type, 64> nodes_;
  std::size_t count_ = 0;
};

#endif
