// Kiln::RbTreeMap: the ordered collection of entity attributes, a red-black
// tree whose links live in the members themselves (no separate nodes).
#pragma once

#include <utility>

#include "Kiln/Allocator.h"
#include "Kiln/Assert.h"
#include "Kiln/CollectionMember.h"
#include "Kiln/OrderedIterator.h"
#include "Kiln/Ptr.h"
#include "Kiln/Types.h"

namespace Kiln {

template <class M, class K, class V>
class RbTreeMap;

// Test peer: lets a test inspect and damage the links (defined by the test).
struct RbTreeAccess;

// Base of the members of an RbTreeMap<M, K, V>: key, value, colour and the
// tree links. Derive as
//   class KilnX final : public Kiln::RbTreeMember<KilnX, K, V> {
//     using RbTreeMember::RbTreeMember; };
// The key, the value and the colour fill the tail of the reference count's
// word (a U16 key and a bool value make a 40-byte member).
template <class M, class K, class V>
class RbTreeMember : public CollectionMember<M, K, V> {
 public:
  using CollectionMember<M, K, V>::CollectionMember;

 private:
  friend class RbTreeMap<M, K, V>;
  friend struct RbTreeAccess;

  bool red_ = false;
  M* child_[2] = {nullptr, nullptr};  // [0] smaller keys, [1] larger keys
  M* parent_ = nullptr;
};

// Ordered collection of members M (derived from RbTreeMember<M, K, V>),
// ascending by K's <. Every operation is O(log n); first(), last() and
// stepping an iterator never allocate. Inserting a key above every other
// (filling a map in ascending order) and looking one up take constant time:
// the map keeps its last member at hand; inserting next to the member the
// previous lookup or insert reached (freeing a run of indexes) needs no
// descent either. The map holds one reference to each
// member. Inserting and removing invalidate iterators, except the one
// remove(Iterator) returns. Not copyable. find() remembers where it ended,
// so even a const map must not be searched from two threads at once.
template <class M, class K, class V>
class RbTreeMap {
 public:
  using Iterator = OrderedIterator<RbTreeMap, M>;

  RbTreeMap() = default;
  RbTreeMap(const RbTreeMap&) = delete;
  RbTreeMap& operator=(const RbTreeMap&) = delete;
  ~RbTreeMap() { clear(); }

  static bool keyEquals(const K& a, const K& b) { return a == b; }
  static bool keyLessThan(const K& a, const K& b) { return a < b; }

  U32 members() const { return members_; }
  bool empty() const { return members_ == 0; }

  // The member with this key, or nullptr. A lookup next to the previous
  // one (the allocator's scans visit index after index) is answered from
  // the member the previous lookup reached and its neighbour, without a
  // descent from the root.
  M* find(const K& key) const {
    if (!last_ || keyLessThan(last_->key_, key)) return nullptr;
    M* found;
    if (finger_ && findNearFinger(key, found)) return found;
    M* m = lowerBoundMember(key);
    finger_ = m;
    return m && !keyLessThan(key, m->key_) ? m : nullptr;
  }

  // The member with the smallest key, or nullptr when empty.
  M* first() const { return root_ ? extreme(root_, 0) : nullptr; }
  // The member with the largest key, or nullptr when empty.
  M* last() const { return last_; }

  // The first member whose key is not less than key, or end().
  Iterator lowerBound(const K& key) const { return Iterator(this, lowerBoundMember(key)); }

  // Adds member, whose key must not be in the map yet; takes a reference.
  void insert(const Ptr<M>& member) { linkMember(member.ptr()); }

  // Builds a member M(key, value), adds it and returns it; key must not be in
  // the map yet. The map's reference is the member's only one.
  M* insertNew(const K& key, const V& value) {
    M* m = new M(key, value);
    linkMember(m);
    return m;
  }

  // Unlinks the member with this key and returns it (null if absent); the
  // map's reference passes to the result.
  Ptr<M> remove(const K& key) {
    M* m = find(key);
    return m ? unlink(m) : nullptr;
  }

  // Removes the member at position and returns the position of the next one.
  Iterator remove(Iterator position) {
    M* following = step(position.ptr(), 1);
    unlink(position.ptr());
    return Iterator(this, following);
  }

  // Removes every member, dropping the map's references.
  void clear() {
    // Post-order walk through the parent links: a member is released only
    // after both of its subtrees.
    M* m = root_;
    root_ = nullptr;
    members_ = 0;
    finger_ = nullptr;
    last_ = nullptr;
    while (m) {
      if (m->child_[0]) {
        m = std::exchange(m->child_[0], nullptr);
      } else if (m->child_[1]) {
        m = std::exchange(m->child_[1], nullptr);
      } else {
        M* parent = std::exchange(m->parent_, nullptr);
        dropReference(m);
        m = parent;
      }
    }
  }

  Iterator begin() const { return Iterator(this, first()); }
  Iterator end() const { return Iterator(this, nullptr); }

 private:
  friend struct RbTreeAccess;
  friend Iterator;

  M* next(M* m) const { return step(m, 1); }
  M* previous(M* m) const { return m ? step(m, 0) : last(); }

  // Links m, whose key must not be in the map yet, and takes a reference.
  void linkMember(M* m) {
    KILN_ASSERT(m != nullptr);
    // Branches, not an indexed child: runs of rising or falling keys (the
    // usual way indexes are freed) keep the branch predictable, so the
    // processor walks ahead without waiting for each comparison.
    M* parent = nullptr;
    M** link = &root_;
    // Above the last member: it becomes its right child, no descent needed.
    const bool beyondLast = last_ && keyLessThan(last_->key_, m->key_);
    if (beyondLast) {
      parent = last_;
      link = &last_->child_[1];
    } else if (finger_) {
      // Next to the finger (freeing a block inserts index after index):
      // the free link between the key's neighbours, no descent needed.
      linkBesideFinger(m->key_, parent, link);
    }
    while (M* at = *link) {
      parent = at;
      if (keyLessThan(at->key_, m->key_)) {
        link = &at->child_[1];
      } else {
        KILN_ASSERT(keyLessThan(m->key_, at->key_));  // the key is not present yet
        link = &at->child_[0];
      }
    }
    m->newRef();
    m->child_[0] = m->child_[1] = nullptr;
    m->parent_ = parent;
    m->red_ = true;
    *link = m;
    if (beyondLast || !last_) last_ = m;
    ++members_;
    rebalanceAfterInsert(m);
    // The next insert or lookup is likely the neighbouring key.
    finger_ = m;
  }

  static bool isRed(const M* m) { return m && m->red_; }

  // True when the finger settles find(key), with the answer in found: key is
  // the finger's, or its neighbour's on key's side, or lies between the two
  // or beyond the last member that way (absent).
  bool findNearFinger(const K& key, M*& found) const {
    const bool above = keyLessThan(finger_->key_, key);
    found = finger_;
    if (!above && !keyLessThan(key, finger_->key_)) return true;
    M* next = step(finger_, above);
    found = nullptr;
    if (!next) return true;
    if (above ? keyLessThan(next->key_, key) : keyLessThan(key, next->key_)) return false;
    if (above ? keyLessThan(key, next->key_) : keyLessThan(next->key_, key)) return true;
    finger_ = found = next;
    return true;
  }

  // When key lies strictly between the finger and its neighbour on key's
  // side (or beyond the last member that way), sets parent and link to the
  // empty link where a descent from the root would put key; a search tree
  // has exactly one such link between two neighbouring members, so the tree
  // is the same either way. Otherwise (key present, or farther away) leaves
  // both as they are.
  void linkBesideFinger(const K& key, M*& parent, M**& link) const {
    const bool above = keyLessThan(finger_->key_, key);
    if (!above && !keyLessThan(key, finger_->key_)) return;
    M* neighbour = step(finger_, above);
    if (neighbour &&
        !(above ? keyLessThan(key, neighbour->key_) : keyLessThan(neighbour->key_, key))) {
      return;
    }
    // Between two neighbours, the finger's link towards key is empty unless
    // the neighbour lies below it; then the neighbour's link back is empty.
    parent = finger_->child_[above] ? neighbour : finger_;
    link = &parent->child_[parent == finger_ ? above : !above];
  }

  // The first member whose key is not less than key, or nullptr. One
  // comparison per level, and the side taken indexes the child array, so
  // the descent compiles to conditional moves rather than branches that
  // random keys would mispredict.
  M* lowerBoundMember(const K& key) const {
    M* found = nullptr;
    for (M* m = root_; m;) {
      const bool below = keyLessThan(m->key_, key);
      found = below ? found : m;
      m = m->child_[below];
    }
    return found;
  }

  // The leftmost (dir 0) or rightmost (dir 1) member below m.
  static M* extreme(M* m, int dir) {
    while (m->child_[dir]) m = m->child_[dir];
    return m;
  }

  // The in-order successor (dir 1) or predecessor (dir 0) of m, or nullptr.
  static M* step(M* m, int dir) {
    if (m->child_[dir]) return extreme(m->child_[dir], !dir);
    M* parent = m->parent_;
    while (parent && m == parent->child_[dir]) {
      m = parent;
      parent = m->parent_;
    }
    return parent;
  }

  // Makes `to` take `from`'s place under from's parent.
  void replaceChild(M* from, M* to) {
    M* parent = from->parent_;
    (parent ? parent->child_[from == parent->child_[1]] : root_) = to;
    if (to) to->parent_ = parent;
  }

  // Rotates m down towards dir: its child on the other side takes its place.
  void rotate(M* m, int dir) {
    M* up = m->child_[!dir];
    m->child_[!dir] = up->child_[dir];
    if (up->child_[dir]) up->child_[dir]->parent_ = m;
    replaceChild(m, up);
    up->child_[dir] = m;
    m->parent_ = up;
  }

  void rebalanceAfterInsert(M* m) {
    while (isRed(m->parent_)) {
      M* parent = m->parent_;
      M* grand = parent->parent_;  // a red member is never the root
      int dir = parent == grand->child_[1];
      M* uncle = grand->child_[!dir];
      if (isRed(uncle)) {
        parent->red_ = uncle->red_ = false;
        grand->red_ = true;
        m = grand;
        continue;
      }
      if (m == parent->child_[!dir]) {
        rotate(parent, dir);
        std::swap(m, parent);
      }
      parent->red_ = false;
      grand->red_ = true;
      rotate(grand, !dir);
      break;
    }
    root_->red_ = false;
  }

  // Takes m out of the tree and hands over the map's reference.
  Ptr<M> unlink(M* m) {
    // A finger on m moves to its successor: removals index after index (as
    // allocating a block does) then each start next to the previous one.
    if (finger_ == m) finger_ = step(m, 1);
    if (last_ == m) last_ = step(m, 0);
    M* child;        // the member that moves into the vacated place, maybe null
    M* parent;       // child's parent after the move
    bool blackGone;  // a black member left its path: rebalance
    if (m->child_[0] && m->child_[1]) {
      // Two children: the successor (no left child) takes m's place and
      // colour; the successor's old place is the one that loses a member.
      M* next = extreme(m->child_[1], 0);
      blackGone = !next->red_;
      child = next->child_[1];
      if (next->parent_ == m) {
        parent = next;
      } else {
        parent = next->parent_;
        replaceChild(next, child);
        next->child_[1] = m->child_[1];
        next->child_[1]->parent_ = next;
      }
      replaceChild(m, next);
      next->child_[0] = m->child_[0];
      next->child_[0]->parent_ = next;
      next->red_ = m->red_;
    } else {
      blackGone = !m->red_;
      child = m->child_[0] ? m->child_[0] : m->child_[1];
      parent = m->parent_;
      replaceChild(m, child);
    }
    if (blackGone) rebalanceAfterRemove(child, parent);
    m->child_[0] = m->child_[1] = m->parent_ = nullptr;
    --members_;
    return Ptr<M>::adopt(m);  // the collection's reference passes to the caller
  }

  // The path through m (child of parent, maybe null) is one black short.
  void rebalanceAfterRemove(M* m, M* parent) {
    while (m != root_ && !isRed(m)) {
      int dir = m == parent->child_[1];
      M* sibling = parent->child_[!dir];  // never null: its side is black-taller
      if (sibling->red_) {
        sibling->red_ = false;
        parent->red_ = true;
        rotate(parent, dir);
        sibling = parent->child_[!dir];
      }
      if (!isRed(sibling->child_[0]) && !isRed(sibling->child_[1])) {
        sibling->red_ = true;
        m = parent;
        parent = m->parent_;
        continue;
      }
      if (!isRed(sibling->child_[!dir])) {
        sibling->child_[dir]->red_ = false;
        sibling->red_ = true;
        rotate(sibling, !dir);
        sibling = parent->child_[!dir];
      }
      sibling->red_ = parent->red_;
      parent->red_ = false;
      sibling->child_[!dir]->red_ = false;
      rotate(parent, dir);
      m = root_;
    }
    if (m) m->red_ = false;
  }

  M* root_ = nullptr;
  U32 members_ = 0;
  // Where the last find() ended or the last insert() put its member; a
  // member or null.
  mutable M* finger_ = nullptr;
  M* last_ = nullptr;  // the member with the largest key, or null
};

}  // namespace Kiln
