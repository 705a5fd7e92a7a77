// Compares two objects of one type record field by field, through the
// reflective interface only, so that an attribute added to a schema is
// compared without a change here: scalars by their text, keyed collections
// as sets of members (a hash map's order within a bucket is not part of its
// value), ordered collections and queues member by member in order, and the
// pointer interfaces held by collections, singletons and references
// (groups, the defragmenter) recursively. Named entities (the features'
// callbacks) are compared by their keys only.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "Kiln/TypeRecord.h"

namespace NextHopTest {

inline const Kiln::TypeRecord* recordOfHeldType(const Kiln::TypeRecord& owner,
                                                const Kiln::AttributeRecord& attr) {
  const size_t colon = owner.name().rfind("::");
  const std::string prefix = colon == std::string::npos ? "" : owner.name().substr(0, colon + 2);
  if (const Kiln::TypeRecord* t = Kiln::typeRecord(prefix + attr.typeName)) return t;
  return Kiln::typeRecord(attr.typeName);
}

// Appends one line per difference between a and b (both of type) to out;
// path names the objects in the lines.
inline void recordDifferences(const Kiln::PtrInterface& a, const Kiln::PtrInterface& b,
                              const Kiln::TypeRecord& type, const std::string& path,
                              std::vector<std::string>& out) {
  using Kind = Kiln::AttributeKind;
  for (const Kiln::AttributeRecord* attr : type.attributes()) {
    const std::string where = path + "." + attr->name;
    const Kiln::TypeRecord* held = recordOfHeldType(type, *attr);
    const bool recurse = held && held->kind() == Kiln::TypeKind::pointerInterface;
    switch (attr->kind) {
      case Kind::scalar:
      case Kind::counter:
      case Kind::key:
      case Kind::constructorParameter:
      case Kind::queueMetadata: {
        const std::string ta = type.get(a, attr->index), tb = type.get(b, attr->index);
        if (ta != tb) out.push_back(where + ": " + ta + " != " + tb);
        break;
      }
      case Kind::singleton:
      case Kind::reference: {
        Kiln::Ptr<Kiln::PtrInterface> ca = type.child(a, attr->name),
                                      cb = type.child(b, attr->name);
        if (!ca != !cb) {
          out.push_back(where + ": held by one side only");
        } else if (ca && recurse) {
          recordDifferences(*ca, *cb, *held, where, out);
        }
        break;
      }
      case Kind::collection:
      case Kind::orderedCollection:
      case Kind::queue: {
        std::vector<Kiln::MemberText> ma = type.members(a, attr->index);
        std::vector<Kiln::MemberText> mb = type.members(b, attr->index);
        if (attr->kind == Kind::collection) {
          std::sort(ma.begin(), ma.end());
          std::sort(mb.begin(), mb.end());
        }
        if (ma.size() != mb.size()) {
          out.push_back(where + ": " + std::to_string(ma.size()) +
                        " members != " + std::to_string(mb.size()));
        }
        for (size_t i = 0; i < std::min(ma.size(), mb.size()); ++i) {
          if (ma[i].first != mb[i].first) {
            out.push_back(where + ": member " + std::to_string(i) + " key " + ma[i].first +
                          " != " + mb[i].first);
            break;
          }
          if (recurse) {
            Kiln::Ptr<Kiln::PtrInterface> ca = type.child(a, attr->name, ma[i].first);
            Kiln::Ptr<Kiln::PtrInterface> cb = type.child(b, attr->name, mb[i].first);
            recordDifferences(*ca, *cb, *held, where + "[" + ma[i].first + "]", out);
          } else if (!held || held->kind() != Kiln::TypeKind::entity) {
            if (ma[i].second != mb[i].second) {
              out.push_back(where + "[" + ma[i].first + "]: " + ma[i].second +
                            " != " + mb[i].second);
            }
          }
        }
        break;
      }
      default: break;
    }
  }
}

inline std::vector<std::string> recordDifferences(const Kiln::PtrInterface& a,
                                                  const Kiln::PtrInterface& b) {
  std::vector<std::string> out;
  if (&a.fwkType() != &b.fwkType()) return {"types differ"};
  recordDifferences(a, b, a.fwkType(), a.fwkType().name(), out);
  return out;
}

}  // namespace NextHopTest
