// registry.h - the process-wide instance: entering its sets, leaving them, asking them. The
// data kept beside each set saves most look-ups, and in the steady state every allocation.
// The mutex is taken once for objects that enter or leave together (together.h).
//
// A set is only touched with the registry's mutex held; nothing is logged here. These rules
// keep the answers exact:
// 1. A remembered answer is used only while the count of departures (for a valid handle)
//    or arrivals (for an unknown one) that it was given with has not moved.
// 2. Counts move with the mutex held, before the call that changed the set returns, so
//    that a thread that can know of a change no longer finds the answer from before it.
// 3. An object has entered when a call returns it, and has left before it is freed.
//
// What each measure gains: instructions per message without it and with it, and messages per
// second of processor time:
//
//                        message-32      frames-8       build-3        signal
//   remembered answers   7000 to 5786   37745 to 33710  6576 to 5011   4147 to 3478
//                        +2 %           +5 %            +33 %          +3 %
//   spare nodes          6425 to 5786   37879 to 33710  5637 to 5011   4109 to 3478
//                        +2 %           +4 %            +9 %           +1 %
//   together             5758 to 5951   33156 to 32419  4923 to 5088   3490 to 3481
//     one processor      -2 %           +1 %
//     two processors     +2 %           +47 %
//
// Spare nodes for each thread brought 1 to 4 % more on two processors, and cost 2 % on one;
// spinning longer before sleeping brought nothing.
#ifndef JACTOR_REGISTRY_H
#define JACTOR_REGISTRY_H

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_set>
#include <utility>

#include "jcxxactorapi.h"
#include "process.h"
#include "together.h"

namespace registry {

// A number below `count`, a power of two, spread evenly over addresses.
template <std::size_t count>
std::size_t SpreadAddress(const void* p) {
  static_assert((count & (count - 1)) == 0);
  constexpr std::uint64_t kGoldenRatio = 0x9E3779B97F4A7C15;
  return (reinterpret_cast<std::uintptr_t>(p) * kGoldenRatio >> 32) % count;
}

// How often objects of one family have entered and left, counted separately for groups of
// addresses, each group on its own cache line. While nothing in its group has left, a valid
// handle is still valid; while nothing has entered, an unknown one is still unknown.
class Changes {
 public:
  // The count that an answer of this kind depends on.
  std::uint64_t Since(const void* p, bool valid) const {
    const Group& group = groups_[SpreadAddress<kGroups>(p)];
    return (valid ? group.removed : group.added).load(std::memory_order_acquire);
  }

  // Called with the mutex held, as a handle enters or leaves its set, or all leave.
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

  // The mutex keeps other writers out: no locked instruction is needed.
  static void Increment(std::atomic<std::uint64_t>& count) {
    count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_release);
  }

  std::array<Group, kGroups> groups_;
};

// The handles of one family that a thread last asked about, each with the answer and the
// count that the answer depends on. If any thread has moved the count, the set has to be
// asked again.
template <class Object>
class KnownHandles {
 public:
  // The answer known for `p`, if it still holds.
  std::optional<bool> Recall(const Changes& changes, const Object* p) const {
    const Entry& entry = entries_[SpreadAddress<kEntries>(p)];
    const bool valid = (entry.answer & 1) != 0;
    if (entry.object != p || entry.answer != Answer(changes, p, valid)) {
      return std::nullopt;
    }
    return valid;
  }

  // Called with the mutex held, so that answer and count belong together.
  void Remember(const Changes& changes, const Object* p, bool valid) {
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

  std::array<Entry, kEntries> entries_ = {};
};

// What one thread remembers about all families. Made at its first use of the registry and
// freed when the thread ends: a process that loads the library late has little room left for
// thread-local storage.
struct Memory {
  KnownHandles<JCXXSock> socks;
  KnownHandles<JCXXActor> actors;
  KnownHandles<JCXXFrame> frames;
  KnownHandles<JCXXMsg> msgs;

  Making* making = nullptr;  // of the call that is making objects, if there is one
  Departed departed;

  // This thread's; null before the first use, and when there was no memory for it.
  [[gnu::tls_model("initial-exec")]] static constinit thread_local Memory* own;

  // Makes this thread's memory if it has none and there is room.
  static Memory* Have() { return own != nullptr ? own : Make(); }

 private:
  static Memory* Make();
};

// Set nodes kept for the next objects. Used only with the mutex held.
template <class Object>
class SpareNodes {
 public:
  using Set = std::unordered_set<Object*>;

  // Enters `p`; false when it is already there.
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

// The data kept beside the set of one family.
template <class Object>
struct Beside {
  Changes changes;
  SpareNodes<Object> spares;
};

// The process-wide instance. Threads remember answers only of its registry, and only it
// keeps spare nodes: another object of the class has nothing but its sets. It is never
// destroyed, so that a handle stays valid until its object has gone, whichever static
// object or exit handler holds it.
struct Instance final : JCXXActorAPI {
  Instance();

  Beside<JCXXSock> beside_socks;
  Beside<JCXXActor> beside_actors;
  Beside<JCXXFrame> beside_frames;
  Beside<JCXXMsg> beside_msgs;

  // The ends of actors whose function has not sent its first signal, under the mutex.
  std::unordered_set<const JCXXSock*> silent;
};

// Null until the first use.
inline constinit std::atomic<Instance*> the_instance{nullptr};

// Makes the instance once, however many threads ask. Throws std::bad_alloc; the next call
// tries again.
[[gnu::noinline, gnu::cold]] JCXXActorAPI* MakeInstance();

// The instance, made if need be.
inline JCXXActorAPI& Api() {
  JCXXActorAPI* made = the_instance.load(std::memory_order_acquire);
  return made != nullptr ? *made : *MakeInstance();
}

// An actor's end is silent until its function sends the first signal on it. A signal on
// any other sock costs one load.
inline constinit std::atomic<std::size_t> silent_socks{0};
void BecomeSilent(const JCXXSock* actors_end);
bool IsSilent(const JCXXSock* actors_end);
void EndSilence(const JCXXSock* actors_end);
inline void Signalling(const JCXXSock* sock) {
  if (silent_socks.load(std::memory_order_relaxed) != 0) {
    EndSilence(sock);
  }
}

// Where to find the parts of a family.
template <class Object>
struct Family;
#define JACTOR_FAMILY(Class, name)                            \
  template <>                                                 \
  struct Family<Class> {                                      \
    static constexpr auto kSet = &JCXXActorAPI::name;         \
    static constexpr auto kBeside = &Instance::beside_##name; \
    static constexpr auto kKnown = &Memory::name;             \
  };
JACTOR_FAMILY(JCXXSock, socks)
JACTOR_FAMILY(JCXXActor, actors)
JACTOR_FAMILY(JCXXFrame, frames)
JACTOR_FAMILY(JCXXMsg, msgs)
#undef JACTOR_FAMILY

// The data beside the set in `api`; null unless `api` is the instance.
template <class Object>
Beside<Object>* BesideIn(JCXXActorAPI& api) {
  Instance* instance = the_instance.load(std::memory_order_relaxed);
  return &api == instance ? &(instance->*Family<Object>::kBeside) : nullptr;
}

// Not inlined, so that a known handle costs no more than looking it up.
template <class Object>
[[gnu::noinline]] bool AskSet(JCXXActorAPI& api, Object* p) {
  if (process::Gone()) {
    return false;
  }
  const Beside<Object>* beside = BesideIn<Object>(api);
  Memory* memory = beside != nullptr ? Memory::Have() : nullptr;
  const process::CriticalSection section(api.mutex);
  const bool valid = (api.*Family<Object>::kSet).count(p) != 0;
  if (memory != nullptr) {
    (memory->*Family<Object>::kKnown).Remember(beside->changes, p, valid);
  }
  return valid;
}

// Whether `p` is in its set.
template <class Object>
[[gnu::always_inline]] inline bool Ask(JCXXActorAPI& api, Object* p) {
  const Beside<Object>* beside = BesideIn<Object>(api);
  if (beside != nullptr && Memory::own != nullptr) {
    if (const auto known = (Memory::own->*Family<Object>::kKnown).Recall(beside->changes, p)) {
      return *known;
    }
  }
  return AskSet(api, p);
}

// Enters `p` into its set; false when it is already there. `memory` is this thread's,
// or null.
template <class Object>
[[gnu::always_inline]] inline bool EnterSet(JCXXActorAPI& api, Object* p, Memory* memory) {
  auto& set = api.*Family<Object>::kSet;
  Beside<Object>* beside = BesideIn<Object>(api);
  if (beside == nullptr) {
    return set.insert(p).second;
  }
  if (!beside->spares.Insert(set, p)) {
    return false;
  }
  beside->changes.CountAdded(p);
  if (memory != nullptr) {
    (memory->*Family<Object>::kKnown).Remember(beside->changes, p, true);
  }
  return true;
}

// Takes `p` out of its set; false when it is not there.
template <class Object>
[[gnu::always_inline]] inline bool LeaveSet(JCXXActorAPI& api, Object* p) {
  auto& set = api.*Family<Object>::kSet;
  Beside<Object>* beside = BesideIn<Object>(api);
  if (beside == nullptr) {
    return set.erase(p) != 0;
  }
  if (!beside->spares.Erase(set, p)) {
    return false;
  }
  beside->changes.CountRemoved(p);
  return true;
}

template <class Object>
constexpr bool kTogether = std::is_same_v<Object, JCXXFrame> || std::is_same_v<Object, JCXXMsg>;

// Enters what has been made. Throws std::bad_alloc; then the rest has not entered.
[[gnu::noinline]] inline void EnterTogether(JCXXActorAPI& api, Making& making) {
  if (process::Gone()) {
    return;
  }
  Memory* memory = Memory::own;
  const process::CriticalSection section(api.mutex);
  making.frames.EnterEach([&](JCXXFrame* p) { EnterSet(api, p, memory); });
  making.msgs.EnterEach([&](JCXXMsg* p) { EnterSet(api, p, memory); });
}

// Whether `p` will enter together with others.
template <class Object>
[[gnu::always_inline]] inline bool EntersLater(JCXXActorAPI& api, Object* p, Making& making) {
  if (!making.constructing) {
    return false;
  }
  if (making.Of<Object>().full()) {
    EnterTogether(api, making);
  }
  making.Of<Object>().Add(p);
  making.constructing = false;
  return true;
}

// Whether it is right that `p` is not in its set: it has not entered yet, or has left.
template <class Object>
[[gnu::always_inline]] inline bool IsOut(Memory& memory, const Object* p) {
  return (memory.making != nullptr && memory.making->Of<Object>().Drop(p)) ||
         memory.departed.Meet(p);
}

// Enters `p` into its set, or takes it out. When it is already there, or not there, calls
// `refused` with the mutex still held, and lent.
template <class Object, class Refused>
void Enter(JCXXActorAPI& api, Object* p, Refused refused) {
  if (process::Gone()) {
    return;
  }
  Memory* memory = Memory::Have();
  if constexpr (kTogether<Object>) {
    if (memory != nullptr && memory->making != nullptr && EntersLater(api, p, *memory->making)) {
      return;
    }
  }
  const process::CriticalSection section(api.mutex);
  if (!EnterSet(api, p, memory)) {
    const process::Lending refusing(api.mutex);
    refused();
  }
}
template <class Object, class Refused>
void Leave(JCXXActorAPI& api, Object* p, Refused refused) {
  if (process::Gone()) {
    return;
  }
  if constexpr (kTogether<Object>) {
    if (Memory* memory = Memory::own; memory != nullptr && IsOut(*memory, p)) {
      return;
    }
  }
  const process::CriticalSection section(api.mutex);
  if (!LeaveSet(api, p)) {
    const process::Lending refusing(api.mutex);
    refused();
  }
}

// While it lives, objects that this thread makes with New() do not enter the registry, and
// never will if they are destroyed before Enter().
class MakingTogether {
 public:
  MakingTogether() : memory_(Memory::Have()) {
    if (memory_ != nullptr) {
      outer_ = std::exchange(memory_->making, &made_);
    }
  }
  MakingTogether(MakingTogether const&) = delete;
  MakingTogether& operator=(MakingTogether const&) = delete;
  ~MakingTogether() {
    if (memory_ != nullptr) {
      memory_->making = outer_;
    }
  }

  // Throws std::bad_alloc.
  void Enter() { EnterTogether(Api(), made_); }

 private:
  Making made_;
  Making* outer_ = nullptr;
  Memory* memory_;
};

// Makes an object, for the MakingTogether around it if there is one.
template <class Object, class... Arguments>
std::unique_ptr<Object> New(Arguments... arguments) {
  const Making::Constructing constructing(Memory::own != nullptr ? Memory::own->making : nullptr);
  return std::make_unique<Object>(arguments...);
}

// An object that a call uses only internally, and that never enters.
template <class Object>
class Private {
 public:
  template <class... Arguments>
  explicit Private(Arguments... arguments) {
    const Making::Constructing constructing(Memory::own != nullptr ? Memory::own->making : nullptr);
    object_.emplace(arguments...);
  }

  Object& operator*() { return *object_; }
  Object* operator->() { return &*object_; }

 private:
  MakingTogether scope_;
  std::optional<Object> object_;
};

// Takes a message's frames, and then the message, out of their sets together; they are
// destroyed next, in this order. If one is not there, it and the rest leave one by one, and
// so do a message without frames and one that is still being made.
inline void LeaveTogether(JCXXMsg* msg, const std::list<JCXXFrame*>& frames) {
  Memory* memory = Memory::own;
  if (frames.empty() || memory == nullptr || memory->making != nullptr || process::Gone()) {
    return;
  }
  JCXXActorAPI& api = Api();
  const process::CriticalSection section(api.mutex);
  for (JCXXFrame* frame : frames) {
    if (!LeaveSet(api, frame)) {
      return;
    }
    ++memory->departed.frames;
  }
  memory->departed.msg = LeaveSet(api, msg) ? msg : nullptr;
}

}  // namespace registry

#endif
