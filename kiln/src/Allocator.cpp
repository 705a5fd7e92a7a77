#include "Kiln/Allocator.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <mutex>

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
  std::stable_sort(records.begin(), records.end(),
                   [](const AllocationRecord* a, const AllocationRecord* b) {
                     return a->name() < b->name();
                   });
  return records;
}

std::string demangledTypeName(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(type.name());
}

}  // namespace Kiln
