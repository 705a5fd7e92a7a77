// The generated operations of every attribute kind and their notification
// rules, on the test types of tests/kilngen/TestTypes.kiln.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KilnTest/Chip.h"
#include "KilnTest/Engine.h"
#include "KilnTest/Group.h"
#include "KilnTest/Hub.h"
#include "KilnTest/Listener.h"
#include "KilnTest/Station.h"

using KilnTest::Chip;
using KilnTest::Station;

namespace {

// Records every handler call of a Station as a line of text.
class StationLog : public Station::NotifieeConst {
 public:
  std::vector<std::string> calls;
  void onCount() override { calls.push_back("count"); }
  void onRatio() override { calls.push_back("ratio"); }
  void onMode() override { calls.push_back("mode"); }
  void onPorts(const KilnTest::Port& p) override { calls.push_back("ports " + p.stringValue()); }
  void onLevels(U16 k) override { calls.push_back("levels " + std::to_string(k)); }
  void onChips(U8 k) override { calls.push_back("chips " + std::to_string(k)); }
  void onGroups(U16 k) override { calls.push_back("groups " + std::to_string(k)); }
  void onListeners(const Kiln::Name& k) override { calls.push_back("listeners " + k); }
  void onPendingMetadata() override { calls.push_back("pendingMetadata"); }
  void onPending(U32 i) override { calls.push_back("pending " + std::to_string(i)); }
  void onEngine() override { calls.push_back("engine"); }
  void onPeer() override { calls.push_back("peer"); }
  void onWatcher() override { calls.push_back("watcher"); }
  void onZeroReferences() override { calls.push_back("zero"); }
};

struct Observed {
  Kiln::Ptr<Station> station = Station::StationIs("s1");
  Kiln::Ptr<StationLog> log = new StationLog;
  Observed() { log->notifierIs(station); }
};

TEST(Entity, ScalarSetterNotifiesOnlyOnChange) {
  Observed o;
  o.station->countIs(3);
  o.station->countIs(3);
  EXPECT_EQ(o.station->count(), 3u);
  EXPECT_EQ(o.log->calls, std::vector<std::string>{"count"});
}

TEST(Entity, CollectionSetterTwiceWithSameValueNotifiesOnce) {
  Observed o;
  o.station->levelsIs(4, true);
  o.station->levelsIs(4, true);
  EXPECT_EQ(o.log->calls, std::vector<std::string>{"levels 4"});
}

TEST(Entity, EntityCollectionReinstantiationThrowsNamingTheParameter) {
  Observed o;
  Kiln::Ptr<Chip> chip = o.station->chipsIs(3, 1);
  try {
    o.station->chipsIs(3, 2);
    FAIL() << "no exception";
  } catch (const Kiln::NameInUseException& e) {
    EXPECT_STREQ(e.what(),
                 "Reinstantiating the pointer interface where constructor parameter attribute "
                 "_version has a different value of 2 than the current value of 1 not allowed");
  }
  EXPECT_EQ(o.station->chips(3), chip);
  EXPECT_EQ(o.log->calls, std::vector<std::string>{"chips 3"});
}

}  // namespace
