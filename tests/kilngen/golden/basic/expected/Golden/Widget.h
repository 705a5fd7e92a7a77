// generated from widget.kiln by kilngen; do not edit
//
// entity Widget : Kiln::Entity
//   attr count : U32
//   counter hits : U16
//   coll tags : U32 -> Point
//   queue jobs : U32
//   ref other : Widget
//   op void reset(U32 to)
#pragma once

#include <string>

#include "Kiln/HashMap.h"
#include "Kiln/LinkQueue.h"
#include "Kiln/Support.h"
#include "Golden/Point.h"

namespace Golden {

class Widget : public Kiln::Entity, public Kiln::Allocated<Widget> {
 public:
  // Counted per type by the runtime's allocator.
  using Kiln::Allocated<Widget>::operator new;
  using Kiln::Allocated<Widget>::operator delete;

  // Indexes of the type record's attributes and operations.
  static constexpr U32 kilnAttributeStart = Kiln::Entity::kilnAttributeStart + 128;  // 258
  static constexpr U32 kilnCountIndex = kilnAttributeStart + 0;  // 258
  static constexpr U32 kilnHitsIndex = kilnAttributeStart + 1;  // 259
  static constexpr U32 kilnTagsIndex = kilnAttributeStart + 2;  // 260
  static constexpr U32 kilnJobsMetadataIndex = kilnAttributeStart + 3;  // 261
  static constexpr U32 kilnJobsIndex = kilnAttributeStart + 4;  // 262
  static constexpr U32 kilnOtherIndex = kilnAttributeStart + 5;  // 263
  static constexpr U32 kilnResetIndex = kilnAttributeStart + 6;  // 264

  class NotifieeConst;

  // A member of tags: key U32, value Point.
  class KilnTags final : public Kiln::HashMapMember<KilnTags, U32, Point> {
   public:
    using HashMapMember::HashMapMember;
  };
  typedef Kiln::HashMap<KilnTags, U32, Point> TagsMap;
  typedef TagsMap::Iterator TagsIterator;

  // A member of jobs: index U32, value U32.
  class KilnJobs final : public Kiln::LinkQueueMember<KilnJobs, U32> {
   public:
    using LinkQueueMember::LinkQueueMember;
  };
  typedef Kiln::LinkQueue<KilnJobs, U32> JobsQueue;
  typedef JobsQueue::Iterator JobsIterator;

  explicit Widget(const Kiln::Name& name);
  Widget(const Widget&) = delete;
  Widget& operator=(const Widget&) = delete;
  ~Widget() override;
  // Creates a new Widget ("null ValidPtr" if creation yields none).
  static Kiln::Ptr<Widget> WidgetIs(const Kiln::Name& name) {
    return Kiln::validPtr(Kiln::kilnNew<Widget>(name));
  }

  // count (U32): count() returns it; countIs(v) stores v and calls onCount() when it differs.
  U32 count() const { return count_; }
  void countIs(U32 count) {
    if (count_ == count) return;
    count_ = count;
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onCount);
  }

  // hits (U16): hits() returns it; hitsIs(v) stores v and calls onHits() when it differs.
  U16 hits() const { return hits_; }
  void hitsIs(U16 hits) {
    if (hits_ == hits) return;
    hits_ = hits;
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onHits);
  }
  // Adds n (wrapping) and returns the sum; calls onHits() unless the sum equals the old value.
  U16 hitsInc(U16 n) {
    const U16 sum = static_cast<U16>(hits_ + n);
    if (sum == hits_) return sum;
    hits_ = sum;
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onHits);
    return sum;
  }

  // The value under key, or Point() when absent.
  Point tags(U32 key) const {
    const KilnTags* m = tags_.find(key);
    return m ? m->value() : Point();
  }
  // The collection itself, for iteration and counting.
  const TagsMap& tags() const { return tags_; }
  // Stores value under key; when the key holds an equal value nothing happens,
  // otherwise tagsNotify(key) runs.
  void tagsIs(U32 key, const Point& value) {
    if (KilnTags* m = tags_.find(key)) {
      if (m->value() == value) return;
      m->valueIs(value);
    } else {
      tags_.insertNew(key, value);
    }
    tagsNotify(key);
  }
  // Stores value under key without telling anyone; returns the member.
  Kiln::Ptr<KilnTags> newTags(U32 key, const Point& value) {
    if (KilnTags* m = tags_.find(key)) {
      m->valueIs(value);
      return m;
    }
    KilnTags* m = tags_.insertNew(key, value);
    return m;
  }
  // Removes key and returns its value; an absent key returns Point() and
  // tells nobody.
  Point tagsDel(U32 key) {
    Kiln::Ptr<KilnTags> m = tags_.remove(key);
    if (!m) return Point();
    tagsNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  TagsIterator tagsDel(TagsIterator position) {
    const U32 key = position->key();
    TagsIterator next = tags_.remove(position);
    tagsNotify(key);
    return next;
  }
  // Removes every member through tagsDel(iterator).
  void tagsDelAll() {
    while (!tags_.empty()) tagsDel(tags_.begin());
  }
  // Calls onTags(key) on every notifiee.
  void tagsNotify(U32 key) {
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onTags, key);
  }
  // Grows the buckets of tags now for `members` members (HashMap::reserve),
  // so that filling it rehashes nothing; its members stay as they are.
  void tagsReserve(U32 members) { tags_.reserve(members); }

  // The value at index, or U32() when absent.
  U32 jobs(U32 index) const {
    const KilnJobs* m = jobs_.find(index);
    return m ? m->value() : U32();
  }
  // The queue itself, for iteration (head to tail) and counting.
  const JobsQueue& jobs() const { return jobs_; }
  // Appends value at the tail and returns its index, then jobsNotify(index);
  // throws Kiln::RangeException("linkqueue index space full") when the index
  // space is exhausted.
  U32 jobsEnq(U32 value) {
    const U32 index = jobs_.enq(new KilnJobs(value));
    jobsNotify(index);
    return index;
  }
  // Removes the head and returns its value, then jobsNotify(its index); an
  // empty queue returns U32() and tells nobody.
  U32 jobsDeq() {
    Kiln::Ptr<KilnJobs> m = jobs_.deq();
    if (!m) return U32();
    jobsNotify(m->key());
    return m->value();
  }
  // Places value at index (replacing, prepending, appending or linking in
  // index order), then jobsNotify(index); an equal value there changes nothing.
  void jobsIs(U32 index, U32 value) {
    if (KilnJobs* m = jobs_.find(index)) {
      if (m->value() == value) return;
      m->valueIs(value);
    } else {
      jobs_.place(new KilnJobs(index, value));
    }
    jobsNotify(index);
  }
  // The head index and the next index.
  Kiln::LinkQueueMetadata jobsMetadata() const { return jobs_.metadata(); }
  // Stores both indexes and always calls onJobsMetadata(), even when unchanged.
  void jobsMetadataIs(const Kiln::LinkQueueMetadata& metadata) {
    jobs_.headIndexIs(metadata.headIndex);
    jobs_.nextIndexIs(metadata.nextIndex);
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onJobsMetadata);
  }
  // Removes key and returns its value; an absent key returns U32() and
  // tells nobody.
  U32 jobsDel(U32 key) {
    Kiln::Ptr<KilnJobs> m = jobs_.remove(key);
    if (!m) return U32();
    jobsNotify(key);
    return m->value();
  }
  // Removes the member at position; returns the position after it.
  JobsIterator jobsDel(JobsIterator position) {
    const U32 key = position->key();
    JobsIterator next = jobs_.remove(position);
    jobsNotify(key);
    return next;
  }
  // Removes every member through jobsDel(iterator).
  void jobsDelAll() {
    while (!jobs_.empty()) jobsDel(jobs_.begin());
  }
  // Calls onJobs(key) on every notifiee.
  void jobsNotify(U32 key) {
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onJobs, key);
  }

  // other: a Widget owned elsewhere, or null. otherIs(p) takes a reference
  // to p, then drops the old one, and calls onOther() when p differs.
  const Kiln::Ptr<Widget>& other() const { return other_; }
  void otherIs(const Kiln::Ptr<Widget>& other) {
    if (other_ == other) return;
    other_ = other;
    if (!kilnNotifiees_.empty()) Kiln::doVisit(kilnNotifiees_, &NotifieeConst::onOther);
  }

  // Hand-written operations.
  void reset(U32 to);

  // The registered record of Golden::Widget.
  static const Kiln::TypeRecord& kilnType();
  const Kiln::TypeRecord& fwkType() const override { return kilnType(); }

  // Observes a Widget: one virtual handler per attribute, in attribute order,
  // after the base's.
  class NotifieeConst : public Kiln::PtrInterface::NotifieeConst {
   public:
    // The Widget observed, or null.
    Kiln::Ptr<const Widget> notifier() const {
      return static_cast<const Widget*>(notifierBase());
    }
    // Observes notifier from now on (joining its list when registered).
    void notifierIs(const Kiln::Ptr<const Widget>& notifier) { notifierBaseIs(notifier.ptr()); }
    virtual void onCount() {}
    virtual void onHits() {}
    virtual void onTags(U32) {}
    virtual void onTagskilnImmediate() {}
    virtual void onTags() {}
    virtual void onJobsMetadata() {}
    virtual void onJobs(U32) {}
    virtual void onJobskilnImmediate() {}
    virtual void onJobs() {}
    virtual void onOther() {}

   protected:
    bool kilnAcceptsNotifier(const Kiln::PtrInterface* notifier) const override {
      return dynamic_cast<const Widget*>(notifier) != nullptr;
    }
  };

 private:
  U32 count_{};
  U16 hits_{};
  TagsMap tags_;
  JobsQueue jobs_;
  Kiln::Ptr<Widget> other_;
};

// Creates a new Widget ("null ValidPtr" if creation yields none).
Kiln::Ptr<Widget> widgetFactory(const Kiln::Name& name);

}  // namespace Golden
