// The defragmenter's record and timer.
#include "next_hop_table_fixture.h"

namespace {

using namespace NextHopTest;
using Brevant::DefragManager;
using Brevant::DefragScheduler;
using testing::ElementsAre;

TEST_F(NextHopTableTest, NewDefragmenterHasItsDefaultsAndADisarmedScheduler) {
  Kiln::Ptr<DefragManager> d = DefragManager::DefragManagerIs(&m());
  EXPECT_EQ(d->nhm(), &m());
  EXPECT_EQ(d->defragDelay(), 5.0);
  EXPECT_EQ(d->defragTime(), 0.1);
  EXPECT_EQ(d->defragCount(), 0u);
  EXPECT_FALSE(d->scheduleDefragment());
  EXPECT_TRUE(d->initialized());
  ASSERT_TRUE(d->defragScheduler());
  EXPECT_EQ(d->defragScheduler()->timeMin(), Kiln::Clock::never);
  EXPECT_EQ(d->defragScheduler()->notifier(), clock_);
  EXPECT_EQ(d->defragScheduler()->defragManager(), d.ptr());
  EXPECT_TRUE(d->notifieeList()->active());
  EXPECT_EQ(clock_->pendingExpiries(), 0u);
}

TEST_F(NextHopTableTest, DefragmenterIsCountedByTheAllocator) {
  const U64 live = Kiln::allocationRecord<DefragManager>().live();
  const U64 schedulers = Kiln::allocationRecord<DefragScheduler>().live();
  {
    Kiln::Ptr<DefragManager> d = DefragManager::DefragManagerIs(&m());
    EXPECT_EQ(Kiln::allocationRecord<DefragManager>().live(), live + 1);
    EXPECT_EQ(Kiln::allocationRecord<DefragScheduler>().live(), schedulers + 1);
  }
  EXPECT_EQ(Kiln::allocationRecord<DefragManager>().live(), live);
  EXPECT_EQ(Kiln::allocationRecord<DefragScheduler>().live(), schedulers);
}

TEST_F(NextHopTableTest, InitialisationIsTracedAndDoneOnce) {
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  Kiln::Ptr<DefragManager> d = new DefragManager(&m());
  EXPECT_THAT(capture.texts(8), ElementsAre("handleDefragInitialized"));
  Kiln::Ptr<DefragScheduler> scheduler = d->defragScheduler();
  EXPECT_EQ(d->handleDefragInitialized(), 0);
  EXPECT_EQ(d->defragScheduler(), scheduler);
  EXPECT_TRUE(d->initialized());
}

TEST_F(NextHopTableTest, StartArmsTheOneTimerAtNowPlusTheDelay) {
  clock_->timeIs(2.5);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  defrag().startDefragScheduler();
  EXPECT_THAT(capture.texts(8), ElementsAre("startDefragScheduler"));
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), 7.5);
  EXPECT_EQ(clock_->pendingExpiries(), 1u);
  clock_->timeIs(4.0);
  defrag().startDefragScheduler();
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), 9.0);
  EXPECT_EQ(clock_->pendingExpiries(), 1u);
  EXPECT_EQ(clock_->nextExpiry(), 9.0);
}

TEST_F(NextHopTableTest, StartUsesTheCurrentDelay) {
  defrag().defragDelayIs(0.5);
  defrag().startDefragScheduler();
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), 0.5);
}

TEST_F(NextHopTableTest, StartDoesNothingBeforeInitialisation) {
  defrag().initializedIs(false);
  defrag().startDefragScheduler();
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), Kiln::Clock::never);
  EXPECT_EQ(clock_->pendingExpiries(), 0u);
}

TEST_F(NextHopTableTest, ExpiryRunsTheTimeOutHandlerWhichDisarms) {
  defrag().startDefragScheduler();
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  clock_->timeIs(4.9);
  EXPECT_TRUE(capture.texts(8).empty());
  clock_->timeIs(5.0);
  EXPECT_THAT(capture.texts(8), ElementsAre("handleDefragSchedulerTimeOut"));
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), Kiln::Clock::never);
  EXPECT_EQ(clock_->pendingExpiries(), 0u);
  clock_->timeIs(20.0);
  EXPECT_EQ(capture.texts(8).size(), 1u);
}

TEST_F(NextHopTableTest, FragmentedTableArmsTheTimerOnce) {
  m().setSimulationMode(true, 64);
  ASSERT_EQ(m().allocateBlock(3, 53), 0);
  ASSERT_EQ(create(4), -2);
  ASSERT_EQ(create(4), -2);
  EXPECT_EQ(clock_->pendingExpiries(), 1u);
  EXPECT_EQ(clock_->nextExpiry(), 5.0);
  // The entries allocated above belong to no group: no run may look at them.
  defrag().scheduleDefragmentIs(false);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  clock_->advance(5.0);
  EXPECT_THAT(capture.texts(8), ElementsAre("handleDefragSchedulerTimeOut"));
}

// Records the defragmenter's changes.
class DefragWatcher : public DefragManager::NotifieeConst {
 public:
  void onScheduleDefragment() override { ++scheduled; }
  int scheduled = 0;
};

TEST_F(NextHopTableTest, DefragmenterNotifiesItsObservers) {
  Kiln::Ptr<DefragWatcher> watcher = new DefragWatcher;
  watcher->notifierIs(m().defragManager());
  m().setSimulationMode(true, 64);
  ASSERT_EQ(m().allocateBlock(3, 53), 0);
  ASSERT_EQ(m().findAvailableBlock(4, false), -2);
  ASSERT_EQ(m().findAvailableBlock(4, false), -2);
  EXPECT_EQ(watcher->scheduled, 1);
}

TEST_F(NextHopTableTest, ExpiryAfterTheDefragmenterIsGoneIsIgnored) {
  Kiln::Ptr<DefragScheduler> scheduler = defrag().defragScheduler();
  defrag().startDefragScheduler();
  manager_ = nullptr;  // the table and its defragmenter go; the timer is held here
  EXPECT_EQ(scheduler->defragManager(), nullptr);
  Trace::Capture capture(Brevant::nextHopTrace(), Trace::allLevels);
  EXPECT_EQ(clock_->pendingExpiries(), 1u);
  clock_->advance(6.0);
  EXPECT_TRUE(capture.lines().empty());
  EXPECT_EQ(clock_->pendingExpiries(), 0u);
}

TEST_F(NextHopTableTest, ArmedTimerLeavesTheClockWithItsDefragmenter) {
  defrag().startDefragScheduler();
  EXPECT_EQ(clock_->pendingExpiries(), 1u);
  manager_ = nullptr;
  EXPECT_EQ(clock_->pendingExpiries(), 0u);
  clock_->advance(6.0);
}

TEST_F(NextHopTableTest, DefragmenterIsReachableByName) {
  const Kiln::TypeRecord& record = defrag().fwkType();
  EXPECT_EQ(record.name(), "Brevant::DefragManager");
  std::vector<std::string> names;
  for (const auto* a : record.attributes()) names.push_back(a->name);
  EXPECT_THAT(names, ElementsAre("scheduleDefragment", "defragDelay", "defragScheduler",
                                 "defragTime", "defragCount", "initialized"));
  EXPECT_EQ(record.attribute("scheduleDefragment")->index, 130u);
  EXPECT_EQ(record.get(defrag(), "defragDelay"), "5.0");
  EXPECT_EQ(record.get(defrag(), "defragTime"), "0.1");
  EXPECT_EQ(record.get(defrag(), "defragCount"), "0");
  EXPECT_EQ(record.get(defrag(), "scheduleDefragment"), "False");
  EXPECT_EQ(record.get(defrag(), "initialized"), "True");
  record.set(defrag(), "defragDelay", "2.0");
  EXPECT_EQ(record.invoke(defrag(), "startDefragScheduler", {}), "");
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), 2.0);
  EXPECT_EQ(record.invoke(defrag(), "handleDefragInitialized", {}), "0");
  EXPECT_EQ(record.invoke(defrag(), "handleDefragSchedulerTimeOut", {}), "");
  EXPECT_EQ(defrag().defragScheduler()->timeMin(), Kiln::Clock::never);
}

}  // namespace
