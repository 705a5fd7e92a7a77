// A feature's callback that records every move it is told of.
#pragma once

#include <ostream>
#include <vector>

#include "Brevant/NextHopCallback.h"

namespace NextHopTest {

class RecordingOwner : public Brevant::NextHopCallback {
 public:
  // One call of updateNextHopAction.
  struct Told {
    U16 groupId;
    U16 baseIndex;
    U16 numNextHops;
    friend bool operator==(const Told&, const Told&) = default;
  };

  RecordingOwner(const Kiln::Name& name, Brevant::FeatureType feature)
      : NextHopCallback(name, feature) {}

  void updateNextHopAction(U16 groupId, U16 baseIndex, U16 numNextHops) override {
    told.push_back({groupId, baseIndex, numNextHops});
  }

  std::vector<Told> told;
};

inline std::ostream& operator<<(std::ostream& out, const RecordingOwner::Told& t) {
  return out << "(" << t.groupId << ", " << t.baseIndex << ", " << t.numNextHops << ")";
}

}  // namespace NextHopTest
