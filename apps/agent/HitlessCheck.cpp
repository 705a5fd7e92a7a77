#include "HitlessCheck.h"

#include <algorithm>
#include <cstdio>

namespace Agent {
namespace {

constexpr U16 noOwner = 65535;
constexpr U32 tableEntries = 65536;
// Problems described in full; beyond them only the count grows.
constexpr size_t listedProblems = 10;

std::string hex(U64 word) {
  char text[24];
  std::snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(word));
  return text;
}

std::string named(U16 id, const HitlessCheck::Group& g) {
  return "group " + std::to_string(id) + (g.label.empty() ? "" : " (" + g.label + ")") + " at " +
         std::to_string(g.base);
}

}  // namespace

U64 HitlessCheck::Group::word(U32 index) const {
  const U32 offset = index - base;
  if (!wide) return data[offset];
  return offset % 2 ? wideData[offset / 2] : data[offset / 2];
}

HitlessCheck::HitlessCheck(std::function<U64(U32)> chipWord)
    : chipWord_(std::move(chipWord)), owner_(tableEntries, noOwner) {}

void HitlessCheck::groupIs(U16 id, Group group) {
  if (group.wide) group.wideData.resize(group.data.size());
  groupDel(id);
  const Group& g = groups_.emplace(id, std::move(group)).first->second;
  own(id, g, true);
  checkProgrammed(id, g, "after its create");
}

void HitlessCheck::groupDel(U16 id) {
  const auto found = groups_.find(id);
  if (found == groups_.end()) return;
  own(id, found->second, false);
  moved_.erase(std::remove(moved_.begin(), moved_.end(), id), moved_.end());
  groups_.erase(found);
}

const HitlessCheck::Group* HitlessCheck::group(U16 id) const {
  const auto found = groups_.find(id);
  return found == groups_.end() ? nullptr : &found->second;
}

void HitlessCheck::wordsIs(U16 id, U16 position, U64 data, U64 wideData) {
  const auto found = groups_.find(id);
  if (found == groups_.end() || position >= found->second.size()) return;
  found->second.data[position] = data;
  if (found->second.wide) found->second.wideData[position] = wideData;
}

void HitlessCheck::movedTo(U16 id, U16 base) {
  const auto found = groups_.find(id);
  if (found == groups_.end()) {
    violation("owners told that group " + std::to_string(id) + ", which nobody created, moved to " +
              std::to_string(base));
    return;
  }
  Group& g = found->second;
  if (g.base == base) return;
  own(id, g, false);
  g.base = base;
  own(id, g, true);
  // An owner may be told the final base before the last leg of a move
  // through the swap area has written it: the check waits for the next write.
  if (std::find(moved_.begin(), moved_.end(), id) == moved_.end()) moved_.push_back(id);
}

void HitlessCheck::written(U32 first, U32 count, const U64* data) {
  ++writesChecked_;
  for (U32 k = 0; k < count; ++k) {
    const U32 index = first + k;
    if (index >= tableEntries || owner_[index] == noOwner) continue;
    const U16 id = owner_[index];
    const Group& g = groups_.at(id);
    const U64 expected = g.word(index);
    if (data[k] != expected) {
      violation("write of " + hex(data[k]) + " at " + std::to_string(index) + " inside " + named(id, g) +
                ", whose owners expect " + hex(expected));
    }
  }
  settle();
}

void HitlessCheck::settle() {
  for (U16 id : moved_) checkProgrammed(id, groups_.at(id), "when its owners were told it moved");
  moved_.clear();
}

void HitlessCheck::checkAll(const char* when) {
  for (const auto& [id, g] : groups_) checkProgrammed(id, g, when);
}

void HitlessCheck::own(U16 id, const Group& group, bool owned) {
  const U32 end = std::min<U32>(U32(group.base) + group.entries(), tableEntries);
  for (U32 i = group.base; i < end; ++i) {
    if (owned && owner_[i] != noOwner && owner_[i] != id) {
      violation("group " + std::to_string(id) + " placed at " + std::to_string(group.base) +
                " over entry " + std::to_string(i) + " of group " + std::to_string(owner_[i]));
    }
    if (owned || owner_[i] == id) owner_[i] = owned ? id : noOwner;
  }
}

void HitlessCheck::checkProgrammed(U16 id, const Group& g, const std::string& when) {
  for (U32 i = g.base; i < g.base + g.entries(); ++i) {
    const U64 chip = chipWord_(i);
    if (chip != g.word(i)) {
      violation(named(id, g) + ": entry " + std::to_string(i) + " holds " + hex(chip) + ", not " +
                hex(g.word(i)) + ", " + when);
      return;
    }
  }
}

void HitlessCheck::violation(const std::string& problem) {
  ++violations_;
  if (problems_.size() < listedProblems) problems_.push_back(problem);
}

}  // namespace Agent
