// Kiln::OrderedIterator: the iterator of the ordered collections (RbTreeMap,
// DirectOrderedMap), ascending and bidirectional; --end() is the last
// member. Each collection says how to step: it declares this class a friend
// and has
//   M* next(M* member) const       the member after member, or nullptr
//   M* previous(M* member) const   the member before member, or nullptr;
//                                  the last member for nullptr (the end)
#pragma once

namespace Kiln {

template <class Map, class M>
class OrderedIterator {
 public:
  OrderedIterator() = default;
  M* operator->() const { return member_; }
  M& operator*() const { return *member_; }
  // The member, or nullptr at the end.
  M* ptr() const { return member_; }
  OrderedIterator& operator++() {
    member_ = map_->next(member_);
    return *this;
  }
  OrderedIterator operator++(int) {
    OrderedIterator before = *this;
    ++*this;
    return before;
  }
  OrderedIterator& operator--() {
    member_ = map_->previous(member_);
    return *this;
  }
  OrderedIterator operator--(int) {
    OrderedIterator before = *this;
    --*this;
    return before;
  }
  friend bool operator==(const OrderedIterator& a, const OrderedIterator& b) {
    return a.member_ == b.member_;
  }

 private:
  friend Map;
  OrderedIterator(const Map* map, M* member) : map_(map), member_(member) {}

  const Map* map_ = nullptr;
  M* member_ = nullptr;
};

}  // namespace Kiln
