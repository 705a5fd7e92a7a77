#include "Kiln/Allocator.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

namespace Kiln {
namespace {

// The list of used records. A function-local static, so that a record may
// register from any static initialiser of any shared library.
struct Registry {
  std::mutex mutex;
  std::vector<const AllocationRecord*> records;
};

Registry& registry() {
  static Registry* instance = new Registry;  // never destroyed: records outlive statics
  return *instance;
}

}  // namespace

void SlotPool::Guard::acquire(std::atomic<bool>& lock) noexcept {
  while (lock.exchange(true, std::memory_order_acquire)) {
    while (lock.load(std::memory_order_relaxed)) std::this_thread::yield();
  }
}

void SlotPool::nextChunk(std::size_t size, std::size_t align) {
  if (current_ && current_->next) {
    carveFrom(current_->next);
    return;
  }
  constexpr std::size_t firstSlots = 16;
  constexpr std::size_t largestChunk = 64 * 1024;
  align = std::max(align, alignof(Chunk));
  // The chunk's record sits before the first slot, padded so that the slots
  // keep their alignment.
  const std::size_t header = (sizeof(Chunk) + align - 1) / align * align;
  std::size_t bytes =
      reserved_ ? std::min(2 * reserved_, largestChunk) : header + firstSlots * size;
  bytes = std::max(bytes, header + size);
  Chunk* chunk = static_cast<Chunk*>(::operator new(bytes, std::align_val_t(align)));
  *chunk = Chunk{nullptr, bytes, header};
  // Slots become accessible one by one as take() hands them out.
  memoryNoAccessIs(reinterpret_cast<char*>(chunk) + header, bytes - header);
  slotSize_ = size;
  (last_ ? last_->next : first_) = chunk;
  last_ = chunk;
  reserved_ += bytes;
  carveFrom(chunk);
}

void SlotPool::carveFrom(Chunk* chunk) noexcept {
  current_ = chunk;
  carve_ = reinterpret_cast<char*>(chunk) + chunk->header;
  carveEnd_ = reinterpret_cast<char*>(chunk) + chunk->bytes;
}

void SlotPool::rewind() noexcept {
  free_ = nullptr;
  carveFrom(first_);
}

void AllocationRecord::registerSelf() noexcept {
  if (registered_.load(std::memory_order_acquire)) return;
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  if (registered_.load(std::memory_order_relaxed)) return;
  r.records.push_back(this);
  registered_.store(true, std::memory_order_release);
}

std::vector<const AllocationRecord*> allocationRecords() {
  std::vector<const AllocationRecord*> records;
  {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    records = r.records;
  }
  std::stable_sort(
      records.begin(), records.end(),
      [](const AllocationRecord* a, const AllocationRecord* b) { return a->name() < b->name(); });
  return records;
}

std::string demangledTypeName(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(type.name());
}

}  // namespace Kiln
