// The agent state's value types: fields, comparisons, hashes, text forms and
// their parsing, and the enumerations' value tables.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "Brevant/BrevantCommonSmData.h"
#include "Brevant/FfuEntries.h"
#include "Brevant/KernelDev.h"
#include "Brevant/LagIndex.h"
#include "Brevant/PortEventCounter.h"
#include "Brevant/PortList.h"
#include "Brevant/SwitchPort.h"
#include "Kiln/HashMap.h"

using Brevant::BrevantCommonSmData;
using Brevant::FfuEntries;
using Brevant::KernelDev;
using Brevant::LagIndex;
using Brevant::PortEventCounter;
using Brevant::PortList;
using Brevant::SwitchPort;

namespace {

// Parses v's text form through both parsing entry points and expects v back.
template <class T>
void expectTextRoundTrip(const T& v) {
  const std::string text = Kiln::strep(v);
  SCOPED_TRACE(text);
  EXPECT_TRUE(T::fromStrep(text) == v);
  std::string_view view(text);
  EXPECT_TRUE(T(view.begin(), view.end()) == v);
  EXPECT_TRUE(Kiln::strepToValue<T>(text) == v);
  EXPECT_EQ(T::kilnType().parseValue(text), text);
}

// --- SwitchPort

TEST(SwitchPort, DefaultsToChipZeroPortZero) {
  SwitchPort p;
  EXPECT_EQ(p.sw(), 0);
  EXPECT_EQ(p.portId(), 0);
  EXPECT_EQ(p, SwitchPort(0, 0));
}

TEST(SwitchPort, OrdersByChipThenPort) {
  const SwitchPort low(1, 200), high(2, 0);
  EXPECT_TRUE(low < high);
  EXPECT_TRUE(high >= low);
  EXPECT_TRUE(high > low);
  EXPECT_TRUE(low <= high);
  EXPECT_FALSE(high < low);
  EXPECT_FALSE(low >= high);
  EXPECT_TRUE(SwitchPort(3, 4) < SwitchPort(3, 5));
  EXPECT_TRUE(SwitchPort(3, 4) <= SwitchPort(3, 4));
  EXPECT_TRUE(SwitchPort(3, 4) >= SwitchPort(3, 4));
  EXPECT_FALSE(SwitchPort(3, 4) < SwitchPort(3, 4));
  EXPECT_FALSE(SwitchPort(3, 4) > SwitchPort(3, 4));
  EXPECT_TRUE(SwitchPort(3, 4) == SwitchPort(3, 4));
  EXPECT_TRUE(SwitchPort(3, 4) != SwitchPort(4, 3));
}

TEST(SwitchPort, ComparesBothBytesUnsigned) {
  EXPECT_TRUE(SwitchPort(255, 0) > SwitchPort(127, 255));
  EXPECT_TRUE(SwitchPort(1, 255) > SwitchPort(1, 128));
}

TEST(SwitchPort, HashIsTheOrOfTheTwoBytesSoSomePortsCollide) {
  EXPECT_EQ(SwitchPort(1, 2).hash(), 3u);
  EXPECT_EQ(SwitchPort(1, 2).hash(), SwitchPort(2, 1).hash());
  EXPECT_EQ(SwitchPort(3, 0).hash(), SwitchPort(1, 2).hash());
  EXPECT_NE(SwitchPort(1, 2), SwitchPort(2, 1));
  EXPECT_EQ(SwitchPort(0xf0, 0x0f).hash(), 0xffu);
  EXPECT_EQ(SwitchPort::kilnType().hashValue(Kiln::strep(SwitchPort(2, 1))), 3u);
}

TEST(SwitchPort, CollidingKeysShareABucketAndAreToldApart) {
  struct Member : Kiln::HashMapMember<Member, SwitchPort, U32> {
    using HashMapMember::HashMapMember;
  };
  typedef Kiln::HashMap<Member, SwitchPort, U32> Map;
  EXPECT_EQ(Map::bucketOf(SwitchPort(1, 2), 4), Map::bucketOf(SwitchPort(2, 1), 4));
  Map map;
  map.insert(new Member(SwitchPort(1, 2), 12));
  map.insert(new Member(SwitchPort(2, 1), 21));
  map.insert(new Member(SwitchPort(3, 0), 30));
  EXPECT_EQ(map.find(SwitchPort(1, 2))->value(), 12u);
  EXPECT_EQ(map.find(SwitchPort(2, 1))->value(), 21u);
  EXPECT_EQ(map.find(SwitchPort(3, 0))->value(), 30u);
  EXPECT_EQ(map.find(SwitchPort(0, 3)), nullptr);
  EXPECT_TRUE(Map::keyLessThan(SwitchPort(1, 200), SwitchPort(2, 0)));
  EXPECT_TRUE(Map::keyEquals(SwitchPort(2, 1), SwitchPort(2, 1)));
}

TEST(SwitchPort, StringValueIsChipDotPort) {
  EXPECT_EQ(SwitchPort(3, 17).stringValue(), "3.17");
  EXPECT_EQ(SwitchPort(255, 255).stringValue(), "255.255");
  EXPECT_EQ(SwitchPort::kilnType().getValue(Kiln::strep(SwitchPort(3, 17)), "stringValue"),
            "'3.17'");
}

TEST(SwitchPort, TextFormNamesTheTypeAndBothFields) {
  EXPECT_EQ(Kiln::strep(SwitchPort(3, 17)),
            "Value('Brevant::SwitchPort', ** {'sw': 3, 'portId': 17})");
  std::ostringstream out;
  out << SwitchPort(1, 2);
  EXPECT_EQ(out.str(), "Value('Brevant::SwitchPort', ** {'sw': 1, 'portId': 2})");
  expectTextRoundTrip(SwitchPort(3, 17));
  expectTextRoundTrip(SwitchPort());
  expectTextRoundTrip(SwitchPort(255, 255));
}

TEST(SwitchPort, ParsingRefusesAnyOtherText) {
  for (const char* text : {"Value('Brevant::SwitchPort', ** {'portId': 17, 'sw': 3})",
                           "Value('Brevant::SwitchPort', ** {'sw': 3})",
                           "Value('Brevant::SwitchPort', ** {'sw': 3, 'portId': 17}) ",
                           "Value('Brevant::SwitchPort', ** {'sw': 256, 'portId': 0})",
                           "Value('Brevant::LagIndex', ** {'sw': 3, 'portId': 17})", "3.17"}) {
    EXPECT_THROW(SwitchPort::fromStrep(text), Kiln::DeserializationException) << text;
  }
}

TEST(SwitchPort, RecordHasFieldsThenDerivedAttributesFromTwo) {
  const Kiln::TypeRecord& r = SwitchPort::kilnType();
  EXPECT_EQ(r.name(), "Brevant::SwitchPort");
  EXPECT_EQ(r.attribute("sw")->index, 2u);
  EXPECT_EQ(r.attribute("portId")->index, 3u);
  EXPECT_EQ(r.attribute("hash")->index, 4u);
  EXPECT_EQ(r.attribute("stringValue")->index, 5u);
  EXPECT_EQ(r.constructValue({"3", "17"}), Kiln::strep(SwitchPort(3, 17)));
}

// --- LagIndex

TEST(LagIndex, TextFormIsTheBareNumber) {
  EXPECT_EQ(Kiln::strep(LagIndex(17)), "17");
  EXPECT_EQ(Kiln::strep(LagIndex(-1)), "-1");
  EXPECT_EQ(LagIndex::fromStrep("-1").value(), LagIndex::invalidLag);
  EXPECT_EQ(LagIndex::fromStrep("-1"), LagIndex(LagIndex::invalidLag));
  expectTextRoundTrip(LagIndex(0));
  expectTextRoundTrip(LagIndex(std::numeric_limits<S32>::max()));
  expectTextRoundTrip(LagIndex(std::numeric_limits<S32>::min()));
  EXPECT_THROW(LagIndex::fromStrep("2147483648"), Kiln::DeserializationException);
  EXPECT_THROW(LagIndex::fromStrep("x"), Kiln::DeserializationException);
}

TEST(LagIndex, InvalidLagIsMinusOneWithAllBitsSet) {
  EXPECT_EQ(LagIndex::invalidLag, -1);
  EXPECT_EQ(LagIndex(LagIndex::invalidLag).hash(), 0xffffffffu);
  EXPECT_EQ(LagIndex().value(), 0);
}

TEST(LagIndex, ComparesAndHashesByValue) {
  EXPECT_TRUE(LagIndex(4) == LagIndex(4));
  EXPECT_TRUE(LagIndex(4) != LagIndex(5));
  EXPECT_EQ(LagIndex(4).hash(), 4u);
  EXPECT_EQ(LagIndex::kilnType().hashValue("9"), 9u);
}

// --- KernelDev

TEST(KernelDev, EqualOnlyWhenEveryFieldIsEqual) {
  const KernelDev d("et1", 1, 2, LagIndex(3));
  EXPECT_TRUE(d == KernelDev("et1", 1, 2, LagIndex(3)));
  EXPECT_TRUE(d != KernelDev("et2", 1, 2, LagIndex(3)));
  EXPECT_TRUE(d != KernelDev("et1", 0, 2, LagIndex(3)));
  EXPECT_TRUE(d != KernelDev("et1", 1, 0, LagIndex(3)));
  EXPECT_TRUE(d != KernelDev("et1", 1, 2, LagIndex(-1)));
  EXPECT_EQ(KernelDev(), KernelDev("", 0, 0, LagIndex(0)));
}

TEST(KernelDev, TextFormQuotesTheNameAndWritesTheLagBare) {
  const KernelDev d("et1", 1, 2, LagIndex(-1));
  EXPECT_EQ(Kiln::strep(d),
            "Value('Brevant::KernelDev', ** {'devName': 'et1', 'sw': 1, 'port': 2, "
            "'lagIndex': -1})");
  expectTextRoundTrip(d);
  expectTextRoundTrip(KernelDev());
  expectTextRoundTrip(KernelDev("it's\n", 255, 0, LagIndex(7)));
  EXPECT_THROW(KernelDev::fromStrep("Value('Brevant::KernelDev', ** {'devName': 'et1', "
                                    "'port': 2, 'sw': 1, 'lagIndex': -1})"),
               Kiln::DeserializationException);
}

TEST(KernelDev, IsNotHashable) {
  EXPECT_THROW(KernelDev::kilnType().hashValue(Kiln::strep(KernelDev())),
               Kiln::UnhashableTypeException);
}

// --- PortEventCounter

TEST(PortEventCounter, NanTimestampIsNeverEqualNotEvenToItself) {
  const PortEventCounter c(std::numeric_limits<double>::quiet_NaN(), 3);
  const PortEventCounter copy = c;
  EXPECT_FALSE(c == copy);
  EXPECT_TRUE(c != copy);
  EXPECT_FALSE(c == c);
  EXPECT_TRUE(c != c);
}

TEST(PortEventCounter, EqualWhenTimestampAndCountAreEqual) {
  EXPECT_TRUE(PortEventCounter(12.5, 3) == PortEventCounter(12.5, 3));
  EXPECT_TRUE(PortEventCounter(12.5, 3) != PortEventCounter(12.5, 4));
  EXPECT_TRUE(PortEventCounter(12.5, 3) != PortEventCounter(12.25, 3));
  EXPECT_TRUE(PortEventCounter(0.0, 0) == PortEventCounter(-0.0, 0));
  EXPECT_EQ(PortEventCounter(), PortEventCounter(0.0, 0));
}

TEST(PortEventCounter, TextFormParsesBack) {
  EXPECT_EQ(Kiln::strep(PortEventCounter(60.0, 128)),
            "Value('Brevant::PortEventCounter', ** {'timestamp': 60.0, 'count': 128})");
  expectTextRoundTrip(PortEventCounter(1700000000.125, 3));
  expectTextRoundTrip(PortEventCounter());
  const PortEventCounter nan =
      PortEventCounter::fromStrep(Kiln::strep(PortEventCounter(std::nan(""), 1)));
  EXPECT_TRUE(std::isnan(nan.timestamp()));
  EXPECT_EQ(nan.count(), 1);
}

TEST(PortEventCounter, IsNotHashable) {
  EXPECT_THROW(PortEventCounter::kilnType().hashValue(Kiln::strep(PortEventCounter())),
               Kiln::UnhashableTypeException);
}

// --- PortList

TEST(PortList, IsASetOfLogicalPorts) {
  PortList l;
  EXPECT_FALSE(l.port(5));
  l.portIs(5, true);
  l.portIs(5, true);
  l.newPort(7, false);
  EXPECT_TRUE(l.port(5));
  EXPECT_EQ(l.port().members(), 2u);
  l.portIs(7, true);
  EXPECT_TRUE(l.port(7));
  EXPECT_TRUE(l.portDel(5));
  EXPECT_FALSE(l.portDel(5));
  l.portDelAll();
  EXPECT_TRUE(l.port().empty());
}

TEST(PortList, CopyingCopiesTheWholeSet) {
  PortList a;
  a.portIs(1, true);
  a.portIs(2, true);
  PortList b = a;
  b.portDel(1);
  EXPECT_TRUE(a.port(1));
  EXPECT_EQ(a.port().members(), 2u);
  EXPECT_EQ(b.port().members(), 1u);
}

TEST(PortList, EqualWhenTheSameMembersHaveEqualFlags) {
  PortList a, b;
  EXPECT_TRUE(a == b);
  a.portIs(1, true);
  EXPECT_TRUE(a != b);
  b.portIs(1, false);
  EXPECT_TRUE(a != b);
  b.portIs(1, true);
  EXPECT_TRUE(a == b);
  // The same members inserted in another order are still equal.
  for (U32 p = 2; p < 40; ++p) a.portIs(p, true);
  for (U32 p = 39; p >= 2; --p) b.portIs(p, true);
  EXPECT_TRUE(a == b);
  b.portIs(40, true);
  EXPECT_FALSE(a == b);
}

TEST(PortList, TextFormIsNoneAndParsingReadsTheCollectionForm) {
  PortList l;
  l.portIs(3, true);
  EXPECT_EQ(Kiln::strep(l), "None");
  EXPECT_EQ(Kiln::strep(PortList()), "None");
  PortList parsed = PortList::fromStrep("{3: True, 9: False}");
  EXPECT_EQ(parsed.port().members(), 2u);
  EXPECT_TRUE(parsed.port(3));
  EXPECT_FALSE(parsed.port(9));
  EXPECT_EQ(PortList::fromStrep(Kiln::collectionToStrep(l.port())), l);
  EXPECT_EQ(PortList::fromStrep("{}"), PortList());
  EXPECT_THROW(PortList::fromStrep("None"), Kiln::DeserializationException);
  EXPECT_THROW(PortList::kilnType().hashValue("{}"), Kiln::UnhashableTypeException);
}

// --- Enumerations

TEST(FfuEntries, ValuesAreTheReservedCountsAsGiven) {
  EXPECT_EQ(Brevant::ptpEntries, 260);
  EXPECT_EQ(Brevant::loadBalanceEntries, 158);
  EXPECT_EQ(Brevant::trapEntries, 6);
  EXPECT_EQ(Brevant::qosEntries, 512);
  EXPECT_EQ(Brevant::vxlanStaticEntries, 4);
  EXPECT_EQ(Brevant::tapAggEntries, 79);
  EXPECT_EQ(Brevant::maxEntries, 1024);
  const std::vector<Kiln::EnumValueRecord> table = Brevant::FfuEntriesKilnType().enumValues();
  ASSERT_EQ(table.size(), 7u);
  EXPECT_EQ(table[0].name, "ptpEntries");
  EXPECT_EQ(table[6].value, 1024);
}

TEST(FfuEntries, InstanceFindsAValueByNumberOrName) {
  EXPECT_EQ(Brevant::FfuEntriesInstance(512), Brevant::qosEntries);
  EXPECT_EQ(Brevant::FfuEntriesInstance(158), Brevant::loadBalanceEntries);
  EXPECT_EQ(Brevant::FfuEntriesInstance(5), std::nullopt);
  EXPECT_EQ(Brevant::FfuEntriesInstance(0), std::nullopt);
  EXPECT_EQ(Brevant::FfuEntriesInstance("tapAggEntries"), Brevant::tapAggEntries);
  EXPECT_EQ(Brevant::FfuEntriesInstance("noEntries"), std::nullopt);
}

TEST(FfuEntries, TextFormIsTheValueNameAndParsesBack) {
  EXPECT_EQ(Brevant::stringValue(Brevant::qosEntries), "qosEntries");
  EXPECT_EQ(Kiln::strep(Brevant::vxlanStaticEntries), "vxlanStaticEntries");
  for (const Kiln::EnumValueRecord& v : Brevant::FfuEntriesKilnType().enumValues()) {
    EXPECT_EQ(Kiln::strepToValue<FfuEntries>(v.name), static_cast<FfuEntries>(v.value));
  }
  EXPECT_THROW(Kiln::strepToValue<FfuEntries>("512"), Kiln::DeserializationException);
}

TEST(SwitchMode, ValuesAreNonePausePfc) {
  EXPECT_EQ(BrevantCommonSmData::none, 0);
  EXPECT_EQ(BrevantCommonSmData::pause, 1);
  EXPECT_EQ(BrevantCommonSmData::pfc, 2);
  EXPECT_EQ(Brevant::SwitchModeKilnType().name(), "Brevant::BrevantCommonSmData::SwitchMode");
  EXPECT_EQ(Brevant::SwitchModeInstance(2), BrevantCommonSmData::pfc);
  EXPECT_EQ(Brevant::SwitchModeInstance("pause"), BrevantCommonSmData::pause);
  EXPECT_EQ(Brevant::SwitchModeInstance(3), std::nullopt);
  EXPECT_EQ(Brevant::SwitchModeInstance("off"), std::nullopt);
  for (BrevantCommonSmData::SwitchMode m :
       {BrevantCommonSmData::none, BrevantCommonSmData::pause, BrevantCommonSmData::pfc}) {
    EXPECT_EQ(Kiln::strepToValue<BrevantCommonSmData::SwitchMode>(Kiln::strep(m)), m);
  }
  EXPECT_EQ(Kiln::strep(BrevantCommonSmData::pfc), "pfc");
}

}  // namespace
