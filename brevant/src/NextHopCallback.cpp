// Feature callbacks: the base of what owners implement, and the dispatch
// that tells them where a moved group now lies.
#include "Brevant/NextHopCallback.h"

#include "Brevant/NextHopManager.h"
#include "Kiln/Assert.h"

namespace Brevant {

void NextHopCallback::updateNextHopAction(U16, U16, U16) {
  // Every feature that registers a callback overrides this; reaching the
  // base is a program fault.
  KILN_ASSERT(0);
}

void NextHopManager::notifyGroupMoved(const ECMPGroup& group, U16 baseIndex) {
  // Several callbacks may serve one feature, and a group may list several
  // features: each matching pair is called once. With no callback
  // registered there is nobody to tell, whatever features the group lists.
  if (features_.empty()) return;
  for (const auto& supported : group.featuresSupported()) {
    if (!supported.value()) continue;
    for (const auto& registered : features_) {
      const Kiln::Ptr<NextHopCallback>& callback = registered.value();
      if (callback->fType() == supported.key()) {
        callback->updateNextHopAction(group.groupId(), baseIndex, group.size());
      }
    }
  }
}

}  // namespace Brevant
