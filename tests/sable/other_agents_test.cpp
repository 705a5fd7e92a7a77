// The other agents' types that the chip agent holds by reference: registered
// by their qualified names, and told apart by identity only.
#include <gtest/gtest.h>

#include "Bridging/Config.h"
#include "Bridging/HwCapabilities.h"
#include "Errdisable/CauseStatus.h"
#include "Gantry/TimerWheel.h"
#include "Hardware/Brevant/Config.h"
#include "HwEpoch/Status.h"
#include "Kiln/TypeRecord.h"

namespace {

TEST(OtherAgents, TypesAreRegisteredUnderTheirQualifiedNames) {
  for (const char* name :
       {"Gantry::TimerWheel", "Bridging::Config", "Bridging::HwCapabilities", "HwEpoch::Status",
        "Hardware::Brevant::Config", "Errdisable::CauseStatus"}) {
    const Kiln::TypeRecord* r = Kiln::typeRecord(name);
    ASSERT_NE(r, nullptr) << name;
    EXPECT_EQ(r->kind(), Kiln::TypeKind::entity) << name;
    EXPECT_EQ(r->base(), &Kiln::Entity::kilnType()) << name;
    EXPECT_TRUE(r->ownAttributes().empty()) << name;
  }
}

TEST(OtherAgents, ObjectsAreComparedByIdentity) {
  Kiln::Ptr<Gantry::TimerWheel> a = Gantry::timerWheelFactory("wheel");
  Kiln::Ptr<Gantry::TimerWheel> b = Gantry::timerWheelFactory("wheel");
  Kiln::Ptr<Gantry::TimerWheel> alias = a;
  EXPECT_EQ(a, alias);
  EXPECT_FALSE(a == b);
  EXPECT_EQ(a->name(), b->name());
}

TEST(OtherAgents, EachTypeIsCreatedByName) {
  EXPECT_EQ(Bridging::configFactory("c")->fwkType().name(), "Bridging::Config");
  EXPECT_EQ(Bridging::hwCapabilitiesFactory("h")->fwkType().name(), "Bridging::HwCapabilities");
  EXPECT_EQ(HwEpoch::statusFactory("s")->fwkType().name(), "HwEpoch::Status");
  EXPECT_EQ(Hardware::Brevant::configFactory("c")->fwkType().name(), "Hardware::Brevant::Config");
  EXPECT_EQ(Errdisable::causeStatusFactory("e")->fwkType().name(), "Errdisable::CauseStatus");
  Kiln::Ptr<Kiln::PtrInterface> built = Kiln::typeRecord("Gantry::TimerWheel")->construct({"'w'"});
  EXPECT_EQ(built->fwkType().get(*built, "name"), "'w'");
}

}  // namespace
