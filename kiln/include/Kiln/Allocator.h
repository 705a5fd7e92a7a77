// The runtime's counting allocator. Every entity and every collection member
// is allocated through Allocated<T>, which keeps one AllocationRecord per type:
// how many objects were allocated and released. The counts serve diagnostics
// (leak checks in tests, the live-object listing of a running agent); they
// cost one increment per allocation and one per release.
//
// Objects of exactly sizeof(T) bytes come from a per-type SlotPool: members
// are small and short-lived (a queue allocates one per enq), and a pool packs
// them densely and recycles them without the general heap's work.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <new>
#include <string>
#include <typeinfo>
#include <vector>

#include "Kiln/MemoryCheck.h"
#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Kiln {

// Live-object counts of one type. Records are constant-initialised, so they
// may be used from any static initialiser, and join the process-wide list
// (allocationRecords()) when first used.
class AllocationRecord {
 public:
  using NameFunction = std::string (*)();

  constexpr explicit AllocationRecord(NameFunction nameFunction) noexcept
      : nameFunction_(nameFunction) {}
  AllocationRecord(const AllocationRecord&) = delete;
  AllocationRecord& operator=(const AllocationRecord&) = delete;

  // The type's name: the one the class provides through a static
  // allocationName(), otherwise its demangled C++ name.
  std::string name() const { return nameFunction_(); }
  // Objects allocated and not yet released.
  U64 live() const { return allocations() - releases(); }
  // Objects allocated since the process started.
  U64 allocations() const { return load(allocations_); }
  // Objects released since the process started.
  U64 releases() const { return load(releases_); }

  // Counts one allocation (called by Allocated<T>::operator new).
  void allocationInc() noexcept {
    if (!registered_.load(std::memory_order_acquire)) registerSelf();
    increment(allocations_);
  }
  // Counts one release (called by Allocated<T>::operator delete).
  void releaseInc() noexcept { increment(releases_); }

  // Puts the record on the process-wide list if it is not there yet.
  void registerSelf() noexcept;

 private:
  // Counts follow the reference counts' rule: atomic only while
  // enableThreadSafePointers is set.
  static void increment(U64& count) noexcept {
    if (enableThreadSafePointers.load(std::memory_order_relaxed)) {
      std::atomic_ref<U64>(count).fetch_add(1, std::memory_order_relaxed);
    } else {
      ++count;
    }
  }
  static U64 load(U64& count) noexcept {
    return std::atomic_ref<U64>(count).load(std::memory_order_relaxed);
  }

  NameFunction nameFunction_;
  mutable U64 allocations_ = 0;
  mutable U64 releases_ = 0;
  std::atomic<bool> registered_{false};
};

// Every record that has been used so far, sorted by name.
std::vector<const AllocationRecord*> allocationRecords();

// The demangled C++ name of a type ("Brevant::ECMPGroup").
std::string demangledTypeName(const std::type_info& type);

// Fixed-size slots of one type, carved from chunks that grow geometrically
// (16 slots, then doubling up to 64 KiB) and recycled through a free list.
// When the last slot in use comes back, the pool forgets its free list and
// carves again from its first chunk: a collection refilled after clear() is
// laid out in allocation order again instead of in the scattered order its
// members were released in. Chunks are never handed back to the system: the
// pool stays as large as the most objects of the type ever alive at once.
// Constant-initialised and never destroyed, so objects may be released
// during static destruction. Taking and giving lock the pool only while
// enableThreadSafePointers is set. Every byte of a chunk that is not a slot
// in use is marked inaccessible for memory checkers (Kiln/MemoryCheck.h), so
// a use after release of a pooled object is reported.
class SlotPool {
 public:
  constexpr SlotPool() noexcept = default;
  SlotPool(const SlotPool&) = delete;
  SlotPool& operator=(const SlotPool&) = delete;

  // A slot of size bytes aligned to align; size and align must be the same
  // at every call. Throws std::bad_alloc when the system has no memory.
  void* take(std::size_t size, std::size_t align) {
    // The common case takes a few instructions, inlined where members are
    // built: one thread, a released slot to reuse, no memory checker.
    // Anything else goes the whole way, out of line.
    if (!unguarded() || !free_) return takeGuarded(size, align);
    FreeSlot* slot = free_;
    popFree();
    ++inUse_;
    return slot;
  }

  // Returns a slot that take() handed out.
  void give(void* memory) noexcept {
    // As in take(): the common case here, the last slot and the guarded
    // cases out of line.
    if (!unguarded() || inUse_ <= 1) {
      giveGuarded(memory);
      return;
    }
    pushFree(memory);
    --inUse_;
  }

  // Bytes obtained from the system so far.
  std::size_t reservedBytes() const { return reserved_; }
  // Slots handed out and not yet returned.
  std::size_t slotsInUse() const { return inUse_; }

 private:
  struct FreeSlot {
    FreeSlot* next;
  };

  // The start of every chunk, before its first slot.
  struct Chunk {
    Chunk* next;  // the chunk obtained after this one
    std::size_t bytes;
    std::size_t header;  // offset of the first slot
  };

  class Guard {
   public:
    explicit Guard(SlotPool& pool) noexcept
        : lock_(enableThreadSafePointers.load(std::memory_order_relaxed) ? &pool.locked_
                                                                         : nullptr) {
      if (lock_) acquire(*lock_);
    }
    ~Guard() {
      if (lock_) lock_->store(false, std::memory_order_release);
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    static void acquire(std::atomic<bool>& lock) noexcept;
    std::atomic<bool>* lock_;
  };

  // Whether take() and give() may skip the lock and the memory marks.
  static bool unguarded() noexcept {
    return !enableThreadSafePointers.load(std::memory_order_relaxed) && !memoryChecked();
  }

  // Takes the first released slot off the list.
  void popFree() noexcept {
    free_ = free_->next;
    // The list runs through slots released long ago, scattered in memory:
    // loading the next one starts now, so that the next take() (a group's
    // members are taken one after another) need not wait for it.
    if (free_) __builtin_prefetch(free_, 1);
  }
  // Puts a released slot at the front of the list.
  void pushFree(void* memory) noexcept {
    FreeSlot* slot = static_cast<FreeSlot*>(memory);
    slot->next = free_;
    free_ = slot;
  }

  [[gnu::noinline]] void* takeGuarded(std::size_t size, std::size_t align) {
    Guard guard(*this);
    void* slot;
    if (free_) {
      slot = free_;
      memoryDefinedIs(free_, sizeof(FreeSlot));
      popFree();
    } else {
      if (std::size_t(carveEnd_ - carve_) < size) nextChunk(size, align);
      slot = carve_;
      carve_ += size;
    }
    memoryUndefinedIs(slot, size);
    ++inUse_;
    return slot;
  }

  [[gnu::noinline]] void giveGuarded(void* memory) noexcept {
    Guard guard(*this);
    if (--inUse_ == 0) {
      memoryNoAccessIs(memory, slotSize_);
      rewind();
      return;
    }
    pushFree(memory);
    memoryNoAccessIs(memory, slotSize_);
  }

  // Carves on from the next chunk, obtaining one when there is none.
  void nextChunk(std::size_t size, std::size_t align);
  // Carves from chunk from its first slot on.
  void carveFrom(Chunk* chunk) noexcept;
  // Forgets every free slot and carves again from the first chunk.
  void rewind() noexcept;

  FreeSlot* free_ = nullptr;
  char* carve_ = nullptr;  // the unused rest of the current chunk
  char* carveEnd_ = nullptr;
  Chunk* first_ = nullptr;
  Chunk* current_ = nullptr;  // the chunk being carved
  Chunk* last_ = nullptr;
  std::size_t reserved_ = 0;
  std::size_t inUse_ = 0;
  std::size_t slotSize_ = 0;  // the size of every take(), known from the first chunk on
  std::atomic<bool> locked_{false};
};

// The slot pool of T (one per type, shared by every shared library of the
// process).
template <class T>
inline constinit SlotPool slotPoolOf{};

// The name under which T's allocations are listed.
template <class T>
std::string allocationTypeName() {
  if constexpr (requires {
                  { T::allocationName() } -> std::convertible_to<std::string>;
                }) {
    return T::allocationName();
  } else {
    return demangledTypeName(typeid(T));
  }
}

// The record of T (one per type, shared by every shared library of the
// process).
template <class T>
inline constinit AllocationRecord allocationRecordOf{&allocationTypeName<T>};

// Returns T's record, listed in allocationRecords() from now on. It counts
// the objects allocated through Allocated<T> (a class derived from such a T
// is counted in T's record).
template <class T>
const AllocationRecord& allocationRecord() {
  allocationRecordOf<T>.registerSelf();
  return allocationRecordOf<T>;
}

// Base giving T class-specific operator new and delete that count T's live
// objects and take objects of exactly sizeof(T) bytes from T's slot pool
// (a larger derived class goes to the general heap). Derive as
// `class T : ..., public Kiln::Allocated<T>`.
template <class T>
class Allocated {
 public:
  static void* operator new(std::size_t size) {
    void* memory = pooled(size) ? slotPoolOf<T>.take(sizeof(T), alignof(T)) : heapNew(size);
    allocationRecordOf<T>.allocationInc();
    return memory;
  }
  // The size is the one given to operator new: a class with a virtual
  // destructor passes its most derived type's size.
  static void operator delete(void* memory, std::size_t size) noexcept {
    allocationRecordOf<T>.releaseInc();
    if (pooled(size)) {
      slotPoolOf<T>.give(memory);
    } else {
      heapDelete(memory);
    }
  }
  // Placement forms, which a class-specific operator new would otherwise hide.
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void operator delete(void*, void*) noexcept {}

 private:
  static bool pooled(std::size_t size) { return size == sizeof(T) && sizeof(T) >= sizeof(void*); }
  static void* heapNew(std::size_t size) {
    if constexpr (alignof(T) > __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
      return ::operator new(size, std::align_val_t(alignof(T)));
    } else {
      return ::operator new(size);
    }
  }
  static void heapDelete(void* memory) noexcept {
    if constexpr (alignof(T) > __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
      ::operator delete(memory, std::align_val_t(alignof(T)));
    } else {
      ::operator delete(memory);
    }
  }
};

}  // namespace Kiln
