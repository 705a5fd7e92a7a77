// The runtime's counting allocator. Every entity and every collection member
// is allocated through Allocated<T>, which keeps one AllocationRecord per type:
// how many objects were allocated and released. The counts serve diagnostics
// (leak checks in tests, the live-object listing of a running agent); they
// cost one increment per allocation and one per release.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <new>
#include <string>
#include <typeinfo>
#include <vector>

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

// The name under which T's allocations are listed.
template <class T>
std::string allocationTypeName() {
  if constexpr (requires { { T::allocationName() } -> std::convertible_to<std::string>; }) {
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
// objects. Derive as `class T : ..., public Kiln::Allocated<T>`.
template <class T>
class Allocated {
 public:
  static void* operator new(std::size_t size) {
    void* memory = ::operator new(size);
    allocationRecordOf<T>.allocationInc();
    return memory;
  }
  static void operator delete(void* memory) noexcept {
    allocationRecordOf<T>.releaseInc();
    ::operator delete(memory);
  }
  // Placement forms, which a class-specific operator new would otherwise hide.
  static void* operator new(std::size_t, void* place) noexcept { return place; }
  static void operator delete(void*, void*) noexcept {}
};

}  // namespace Kiln
