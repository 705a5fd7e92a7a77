// The free entries of the next-hop table as runs: a tree above the 1,024
// words of the manager's free index (a TableBitmap) that keeps, for every
// span of words, the runs touching its two ends and its longest run, and
// beside the tree the table's free entries, its number of runs and the free
// entries in its runs shorter than a given length, moved by each change.
// The tree reads the index's words and keeps no copy of them (only the
// words a batch of changes touched, as they were before it): a word is its
// own leaf, and the leaf's figures are computed from it when needed. The
// resource counters read it.
//
// A refresh moves only the sums, the kept cuts and the remembered answers;
// the nodes above the changed words are walked when something first needs
// them (a run search, a longest run not remembered, the table's ends), once
// for every refresh since the last walk: the counters, published after
// every operation, mostly read sums, and a search walks once for both the
// operation before it and its own.
#pragma once

#include <algorithm>
#include <array>

#include "Brevant/TableBitmap.h"
#include "Kiln/Support.h"

namespace Brevant {

class FreeRunTree {
 public:
  // What the tree knows of a span of entries. A run is a maximal stretch of
  // consecutive free entries; an inner run touches neither end of the span.
  struct Span {
    U32 length = 0;      // entries in the span
    U32 free = 0;        // free entries
    U32 head = 0;        // free entries in the run at the low end (0: none)
    U32 tail = 0;        // free entries in the run at the high end
    U32 longest = 0;     // entries in the longest run
    U32 runs = 0;        // runs that lie in the span, wholly or partly
    U32 shortInner = 0;  // free entries in inner runs shorter than the short length
    bool allFree() const { return head == length; }
    bool operator==(const Span&) const = default;
  };

  // The length, the runs at the two ends and the longest run of a span: what
  // the tree's nodes keep and the largest blocks need, a part of a Span.
  struct Ends {
    U32 length = 0, head = 0, tail = 0, longest = 0;
  };

  static constexpr U32 entries = TableBitmap::indexes;

  // Summarises the free entries of bitmap (an index is free while it is in
  // the set), which must outlive the tree. Runs shorter than 0 count short.
  // The bitmap is first read by refresh(), so it may be built after the tree.
  explicit FreeRunTree(const TableBitmap& bitmap);

  // Hears that the bitmap's entry index is about to change (the bitmap
  // still holds its old value): marks its word and, the first time in a
  // batch, keeps the word as it was, a few instructions. The table's sums
  // are brought up to date by the next refresh(), from the word as it was
  // and as it is then, and the tree above the word when next needed.
  void entryChanging(U16 index) {
    const U32 w = index >> 6;
    U64& marks = staleWords_[w >> 6];
    const U64 mark = U64(1) << (w & 63);
    if (!(marks & mark)) {
      marks |= mark;
      wordsBefore_[w] = bitmap_->word(w);
      staleGroups_ = U16(staleGroups_ | 1u << (w >> 6));
    }
  }

  // Runs shorter than length count as short from now on; the next
  // refresh() recomputes the tree (1,024 words).
  void shortLengthIs(U32 length);
  U32 shortLength() const { return shortLength_; }

  // Brings the sums up to date with the words marked since the last
  // refresh: the table's free entries, runs and short free entries, the
  // kept cuts' counts and the remembered answers move by what each stretch
  // of marked words changed (its runs as they were and as they are, with
  // the free entries running on either side of it). The words are left for
  // the next walk of the nodes (see walkNodes). Returns whether anything
  // had been marked (or the short length changed). Nothing to do costs two
  // tests, inline: a publication that follows another, or a search that
  // follows a publication, finds nothing marked.
  bool refresh() {
    if (staleGroups_ == 0 && !rebuildPending_) return false;
    return refreshMarked();
  }

  // Counts the refreshes that found something marked: equal counts, equal
  // tree, so whoever publishes from the tree can tell whether to.
  U64 refreshes() const { return refreshes_; }

  // The lowest start of `length` consecutive free entries, all in
  // [from, to), or -1; a length of 0 finds nothing (after refresh()). Looks
  // at from's word first (TableBitmap::firstRunInWord), then at the largest
  // nodes that follow it inside the range, passing over each whose longest
  // run is too short at once and looking into the first that is not. Walks
  // the nodes first, if a refresh left words to walk, once past the first
  // word: an answer in it needs no node.
  S32 firstRun(U32 from, U32 to, U32 length);
  // The highest such start, or -1 (TableBitmap::lastRunInWord in a word).
  S32 lastRun(U32 from, U32 to, U32 length);

  // The whole table (after refresh()): its free entries, runs, longest run.
  // Its ends and longest run are the root's, so this walks the nodes first
  // if a refresh left words to walk; the sums alone do not.
  const Span& table() {
    walkNodes();
    return table_;
  }
  // The table's free entries and runs (after refresh()), kept beside the
  // tree: no walk.
  U32 freeEntries() const { return table_.free; }
  U32 runCount() const { return table_.runs; }
  // The free entries in runs shorter than the short length (after refresh()).
  U32 shortFreeEntries() const;

  // The free entries among first .. last - 1, counted a word at a time.
  U32 freeIn(U32 first, U32 last) const;

  // A few indexes whose free entries below them are kept: an owner's
  // region boundaries, in any order, each at most `entries`.
  static constexpr U32 cutCount = 5;
  using Cuts = std::array<U32, cutCount>;
  // The free entries among 0 .. cuts[i] - 1 for each i (after refresh()).
  // The counts are kept up to date by refresh() from each changed stretch
  // of words, so asking for the same cuts again costs a comparison each; a
  // cut that moved costs the words it moved over.
  const Cuts& freeBelow(const Cuts& cuts) {
    if (cuts == cuts_) return freeBelowCuts_;
    return freeBelowMoved(cuts);
  }

  // The entries first .. last - 1 as a span of their own (after refresh()):
  // free entries outside it do not count, so its runs are cut at its ends.
  // Joins the span's words one by one (the tree keeps no sums for its
  // nodes); the last few answers are remembered until a refresh changes a
  // word under them, so asking again for the same span costs a comparison.
  Span span(U32 first, U32 last);

  // The longest run of free entries among first .. last - 1 (after
  // refresh()): span(first, last).longest, from the tree (at most two joins
  // per level: the words cut at the ends, then whole nodes bottom-up, after
  // a walk of the nodes if one is due), remembered with the spans. A
  // remembered answer is found inline.
  U32 longestRunIn(U32 first, U32 last) {
    last = std::min(last, entries);
    if (first >= last) return 0;
    if (const Span* s = rememberedSpan(first, last)) return s->longest;
    return longestRunJoined(first, last);
  }

  // min(longestRunIn(first, last), cap) (after refresh()): what a largest
  // block capped at the largest length a search hands out needs. Any run of
  // cap free entries in the span answers it, so the tree keeps a few
  // stretches it has seen all free, each about two caps long, and only
  // shortens them as entries in them are taken: one that still holds cap
  // entries of the span answers at once, through changes elsewhere and
  // entries given back, where the exact answer would be joined again. Other
  // spans get the exact answer, remembered as longestRunIn's, or a new
  // stretch from the lowest run of cap entries in them.
  U32 longestRunIn(U32 first, U32 last, U32 cap) {
    last = std::min(last, entries);
    if (first >= last) return 0;
    cap = std::min(cap, last - first);  // the longest run is no longer than the span
    for (const KnownFree& known : knownFree_) {
      if (std::min(known.last, last) >= std::max(known.first, first) + cap) return cap;
    }
    if (const Span* s = rememberedSpan(first, last)) return std::min(s->longest, cap);
    return longestRunCappedJoined(first, last, cap);
  }

 private:
  static constexpr U32 wordCount = entries / 64;
  // The figures of a node below the root, whose span (at most 32,768
  // entries) bounds every one of them: 16 bits each. Its length follows
  // from its place in the tree. No sums: those change at every level up to
  // the root, and a walk stops at the first node that comes out as it was.
  struct Node {
    U16 head = 0, tail = 0, longest = 0;
    bool operator==(const Node&) const = default;
  };
  // Runs and short free entries counted over a stretch of words.
  struct RunTally {
    U32 runs = 0, shortFree = 0, longest = 0;
  };
  // A span the tree answered for, kept until a word under it changes.
  struct RememberedSpan {
    U32 first = 0, last = 0;  // last 0: nothing remembered
    bool whole = false;       // false: only the length, ends and longest run
    bool asked = false;       // asked for since the last refresh that found work
    Span span;
  };
  static constexpr U32 rememberedSpans = 4;
  // Entries first .. last - 1, all free (last 0: none known).
  struct KnownFree {
    U32 first = 0, last = 0;
  };
  static constexpr U32 knownFreeStretches = 4;

  // Node n: 1 is the table; n has children 2n and 2n + 1; word w is node
  // wordCount + w, computed from the bitmap. length is the entries under n.
  Ends nodeEnds(U32 n, U32 length) const;
  Ends storedEnds(U32 n, U32 length) const;  // 1 < n < wordCount
  // The entries low .. high - 1 of word w as a span of their own.
  Span partOfWord(U32 w, U32 low, U32 high) const;
  // Stores s as node n's figures (1 < n < wordCount); returns whether they
  // changed.
  bool nodeIs(U32 n, const Ends& s);
  // Joins the children of node n again: two words (n at the lowest level),
  // two stored nodes of childLength entries each, or the root's two halves.
  bool joinWords(U32 n);
  bool joinStored(U32 n, U32 childLength);
  void joinRoot();
  // Walks the nodes above every word refreshed since the last walk, all
  // at once, a level at a time: each word walks towards the root (at most
  // ten joins of ends and longest runs) until a node comes out as it was,
  // and words side by side share their parents. Settles the table's ends,
  // longest run and short inner runs. Nothing to do costs a test; the
  // questions that need the nodes call it themselves.
  void walkNodes() {
    if (unwalkedGroups_ != 0) walkUnwalked();
  }
  void walkUnwalked();
  // refresh() with something marked or the short length changed.
  bool refreshMarked();
  // longestRunIn's answer when none is remembered: joined from the tree.
  U32 longestRunJoined(U32 first, U32 last);
  // The remembered answer for first .. last - 1 (marked as asked), or null.
  const Span* rememberedSpan(U32 first, U32 last) {
    for (RememberedSpan& r : remembered_) {
      if (r.first == first && r.last == last) {
        r.asked = true;
        return &r.span;
      }
    }
    return nullptr;
  }
  // The capped longestRunIn's answer when no stretch known free and no
  // remembered answer gives it.
  U32 longestRunCappedJoined(U32 first, U32 last, U32 cap);
  // Keeps first .. last - 1, all free, widened by up to `widen` free
  // entries each side, as a stretch known free (replacing the oldest).
  void knownFreeIs(U32 first, U32 last, U32 widen);
  // Shortens the stretches known free that lost entries in words
  // first .. last (one stretch of marked words) to their longer free part.
  void knownFreeTaken(U32 first, U32 last);
  // The free entries from index up (index, index + 1, ...) and from just
  // below index down, counted until one is not free or at least limit are.
  U32 freeEntriesUpFrom(U32 index, U32 limit) const;
  U32 freeEntriesDownFrom(U32 index, U32 limit) const;
  // freeBelow's counts when a cut moved.
  const Cuts& freeBelowMoved(const Cuts& cuts);
  // Sets the table's short inner runs from its short free entries.
  void settleTable();
  void rebuild();
  // Moves the table's figures, the cuts' counts and the remembered spans by what
  // changed in words first .. last (all marked, none beside them).
  void stretchChanged(U32 first, U32 last);
  // The runs of words first .. last (read through wordOf) that lie in them
  // or touch them, with below free entries running up to the first and
  // above running on from the last.
  template <typename WordOf>
  RunTally runsOf(U32 first, U32 last, U32 below, U32 above, WordOf wordOf) const;
  // The free entries running down from word w's top and up from word w's
  // bottom (words read through wordOf), counted to no further than limit:
  // what lies beyond a run that long does not matter to the question.
  template <typename WordOf>
  U32 freeRunDownFrom(S32 w, U32 limit, WordOf wordOf) const;
  template <typename WordOf>
  U32 freeRunUpFrom(U32 w, U32 limit, WordOf wordOf) const;
  // Word w as it was before this batch: kept if marked, else as it is.
  U64 wordAsBefore(U32 w) const;
  // Whether remembered span r's longest run is the same after words
  // first .. last (one stretch) changed: a change that only took entries
  // and cut no run as long as it, or only gave entries back and made no run
  // longer than it. Anything else, and a span remembered in full, is
  // forgotten and joined again when next asked for.
  bool longestKept(const RememberedSpan& r, U32 first, U32 last) const;
  // Whether a longest run stays after a stretch took entries, gave entries
  // back or both, from the longest runs through the stretch before and
  // after it (each read to at least one entry past the longest, or past a
  // block's largest length).
  static bool longestStays(U32 longest, bool taken, bool given, U32 cutLongest, U32 joinedLongest);
  // The free entries among first .. last - 1 of the words as they were
  // before this batch (first and last in one stretch of marked words).
  U32 freeBeforeBetween(U32 first, U32 last) const;
  // The longest run of the entries first .. last - 1 (first < last <=
  // entries), from the tree.
  Ends endsIn(U32 first, U32 last) const;
  const Span& remember(U32 first, U32 last, const Span& s, bool whole);
  // Remembers a span's length, ends and longest run; returns the longest.
  U32 rememberLongest(U32 first, U32 last, const Ends& ends);

  const TableBitmap* bitmap_;
  U32 shortLength_ = 0;
  U32 shortFree_ = 0;
  U64 refreshes_ = 0;
  // Set until the first refresh and after the short length changes.
  bool rebuildPending_ = true;
  // One bit per word marked since the last refresh, and each marked word
  // as it was when first marked. A word of marks covers 64 words of the
  // index, a group; one bit per group that holds a mark, so that a refresh
  // looks at those groups alone.
  static constexpr U32 groupCount = wordCount / 64;
  static_assert(groupCount <= 16, "a group's bit must fit in a U16");
  std::array<U64, groupCount> staleWords_{};
  std::array<U64, wordCount> wordsBefore_{};
  U16 staleGroups_ = 0;
  // One bit per word refreshed since the nodes were last walked (and per
  // group holding one): the nodes above them, the table's ends, longest run
  // and short inner runs are out of date until the next walk.
  std::array<U64, groupCount> unwalkedWords_{};
  U16 unwalkedGroups_ = 0;
  Span table_;
  // Nodes 2 .. wordCount - 1 (0 and 1 unused: the table is table_).
  std::array<Node, wordCount> nodes_{};
  std::array<RememberedSpan, rememberedSpans> remembered_{};
  U32 nextRemembered_ = 0;
  std::array<KnownFree, knownFreeStretches> knownFree_{};
  U32 nextKnownFree_ = 0;
  // The cuts last asked for and the free entries below each (all 0 after a
  // rebuild: counted again from the table's start when next asked for).
  Cuts cuts_{};
  Cuts freeBelowCuts_{};
};

}  // namespace Brevant
