// Kiln::LinkQueue: the queue attribute of entities, a singly linked list of
// members keyed by a 32-bit index in ascending index (arrival) order.
#pragma once

#include <utility>

#include "Kiln/Allocator.h"
#include "Kiln/Assert.h"
#include "Kiln/CollectionMember.h"
#include "Kiln/Exception.h"
#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Kiln {

// The queue's two index counters, as the generated xMetadata() returns them.
struct LinkQueueMetadata {
  U32 headIndex = 0;
  U32 nextIndex = 0;

  friend bool operator==(const LinkQueueMetadata& a, const LinkQueueMetadata& b) {
    return a.headIndex == b.headIndex && a.nextIndex == b.nextIndex;
  }
  friend bool operator!=(const LinkQueueMetadata& a, const LinkQueueMetadata& b) {
    return !(a == b);
  }
};

template <class M, class V>
class LinkQueue;

// Base of the members of a LinkQueue<M, V>: the index (the key), the value and
// the link to the next member. enq() chooses the index of a new member;
// place() takes the one it was constructed with. Derive as
//   class KilnX final : public Kiln::LinkQueueMember<KilnX, V> {
//     using LinkQueueMember::LinkQueueMember; };
template <class M, class V>
class LinkQueueMember : public CollectionMember<M, U32, V> {
 public:
  using CollectionMember<M, U32, V>::CollectionMember;
  // A member for enq(), which sets its index.
  explicit LinkQueueMember(const V& value) : CollectionMember<M, U32, V>(0, value) {}

 private:
  friend class LinkQueue<M, V>;

  M* next_ = nullptr;
};

// Queue of members M (derived from LinkQueueMember<M, V>).
//
// Indexes live on the 32-bit circle: the queue orders them by their distance
// from the head, so a sequence that wraps from 2^32 - 1 to 0 stays in order.
// The queue keeps two counters:
// - headIndex: the head member's index; when the queue is empty, the index the
//   next enq() will use (an emptied queue resets it to nextIndex);
// - nextIndex: one more than the highest index appended at the tail; it never
//   moves back while members remain, so indexes are not reused until the
//   32-bit space wraps round to the oldest member.
// changeCount counts the changes that take a member's value away from a
// reader: every removal (deq, remove, each member of clear) and every
// replacement by place(). Appending (enq, place beyond the tail) does not
// count: a reader sees those in nextIndex.
//
// The queue holds one reference to each member. Inserting and removing
// invalidate iterators, except the one remove(Iterator) returns. Not
// copyable. find() and remove(U32) walk the list.
template <class M, class V>
class LinkQueue {
 public:
  // Ascending (head to tail) forward iterator.
  class Iterator {
   public:
    Iterator() = default;
    M* operator->() const { return member_; }
    M& operator*() const { return *member_; }
    // The member, or nullptr at the end.
    M* ptr() const { return member_; }
    Iterator& operator++() {
      member_ = member_->next_;
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.member_ == b.member_; }

   private:
    friend class LinkQueue;
    explicit Iterator(M* member) : member_(member) {}

    M* member_ = nullptr;
  };

  LinkQueue() = default;
  LinkQueue(const LinkQueue&) = delete;
  LinkQueue& operator=(const LinkQueue&) = delete;
  ~LinkQueue() { clear(); }

  static bool keyEquals(const U32& a, const U32& b) { return a == b; }
  static bool keyLessThan(const U32& a, const U32& b) { return a < b; }

  M* head() const { return head_; }
  M* tail() const { return tail_; }
  U32 headIndex() const { return headIndex_; }
  U32 nextIndex() const { return nextIndex_; }
  U32 members() const { return members_; }
  bool empty() const { return members_ == 0; }
  U32 changeCount() const { return changeCount_; }
  LinkQueueMetadata metadata() const { return {headIndex_, nextIndex_}; }

  // Store the counters as given (the generated xMetadataIs restores them).
  void headIndexIs(U32 index) { headIndex_ = index; }
  void nextIndexIs(U32 index) { nextIndex_ = index; }

  // Appends member at the tail and returns its index: nextIndex, or the
  // tail's index plus one if that lies further from the head. Throws
  // RangeException("linkqueue index space full"), leaving the queue as it
  // was, when the next index would reach the head index of a non-empty
  // queue.
  U32 enq(const Ptr<M>& member) {
    M* m = member.ptr();
    KILN_ASSERT(m != nullptr);
    U32 index = nextIndex_;
    if (tail_ && offset(tail_->key_ + 1) > offset(index)) index = tail_->key_ + 1;
    // Full when the new index, or the next one after it, is the head's:
    // the indexes have gone once round the circle. A tail placed at the
    // head's index minus one leaves no index after it either.
    if (head_ && (offset(index) == 0 || offset(index + 1) == 0 || offset(tail_->key_ + 1) == 0)) {
      throw RangeException("linkqueue index space full");
    }
    m->key_ = index;
    m->newRef();
    if (!head_) headIndex_ = index;
    linkAfter(tail_, m);
    nextIndex_ = index + 1;
    return index;
  }

  // Removes the head and returns it, or null when the queue is empty.
  Ptr<M> deq() { return head_ ? unlink(nullptr) : nullptr; }

  // Links member at the index it was constructed with and returns the member
  // it replaces there (null if none). Members stay in ascending index order:
  // a new index between the head's and the tail's (round the circle, so a
  // queue that enq() wrapped past 2^32 - 1 keeps its order) is linked in
  // that order; any other new index below the head's goes before the head
  // and becomes headIndex, and one above it is appended and moves nextIndex
  // to index + 1 if that is further from the head. Placing into an empty
  // queue sets headIndex to the index and nextIndex to index + 1.
  Ptr<M> place(const Ptr<M>& member) {
    M* m = member.ptr();
    KILN_ASSERT(m != nullptr);
    const U32 index = m->key_;
    m->newRef();
    if (!head_) {
      headIndex_ = index;
      nextIndex_ = index + 1;
      linkAfter(nullptr, m);
      return nullptr;
    }
    const U32 fromHead = index - head_->key_;
    const U32 tailFromHead = tail_->key_ - head_->key_;
    if (fromHead > tailFromHead) {
      // Outside the occupied range: below the head in front, else at the back.
      if (index < head_->key_) {
        linkAfter(nullptr, m);
        headIndex_ = index;
      } else {
        linkAfter(tail_, m);
        if (offset(index + 1) > offset(nextIndex_)) nextIndex_ = index + 1;
      }
      return nullptr;
    }
    M* before = nullptr;
    M* at = head_;
    while (at->key_ - head_->key_ < fromHead) {
      before = at;
      at = at->next_;
    }
    if (at->key_ != index) {
      linkAfter(before, m);
      return nullptr;
    }
    // Replace `at` in place.
    m->next_ = at->next_;
    (before ? before->next_ : head_) = m;
    if (tail_ == at) tail_ = m;
    at->next_ = nullptr;
    ++changeCount_;
    Ptr<M> replaced(at);
    dropReference(at);
    return replaced;
  }

  // The member at index, or nullptr.
  M* find(U32 index) const {
    for (M* m = head_; m; m = m->next_) {
      if (m->key_ == index) return m;
    }
    return nullptr;
  }

  // Unlinks the member at index and returns it (null if absent).
  Ptr<M> remove(U32 index) {
    M* before = nullptr;
    for (M* m = head_; m; before = m, m = m->next_) {
      if (m->key_ == index) return unlink(before);
    }
    return nullptr;
  }

  // Removes the member at position and returns the position of the next one.
  Iterator remove(Iterator position) {
    M* next = position.member_->next_;
    M* before = nullptr;
    if (position.member_ != head_) {
      before = head_;
      while (before->next_ != position.member_) before = before->next_;
    }
    unlink(before);
    return Iterator(next);
  }

  // Removes every member from the head on, as that many deq() calls would.
  void clear() {
    while (head_) unlink(nullptr);
  }

  Iterator begin() const { return Iterator(head_); }
  Iterator end() const { return Iterator(nullptr); }

 private:
  // An index's distance from the head index, round the 32-bit circle.
  U32 offset(U32 index) const { return index - headIndex_; }

  // Links m after `before` (at the front when before is null).
  void linkAfter(M* before, M* m) {
    M*& slot = before ? before->next_ : head_;
    m->next_ = slot;
    slot = m;
    if (tail_ == before) tail_ = m;
    ++members_;
  }

  // Unlinks the member after `before` (the head when before is null) and
  // hands over the queue's reference.
  Ptr<M> unlink(M* before) {
    M*& slot = before ? before->next_ : head_;
    M* m = slot;
    slot = m->next_;
    if (tail_ == m) tail_ = before;
    if (!before) headIndex_ = head_ ? head_->key_ : nextIndex_;
    m->next_ = nullptr;
    --members_;
    ++changeCount_;
    return Ptr<M>::adopt(m);  // the collection's reference passes to the caller
  }

  M* head_ = nullptr;
  M* tail_ = nullptr;
  U32 headIndex_ = 0;
  U32 nextIndex_ = 0;
  U32 members_ = 0;
  U32 changeCount_ = 0;
};

}  // namespace Kiln
