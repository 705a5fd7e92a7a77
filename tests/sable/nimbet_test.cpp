// The platform's interface identifier and Ethernet address values.
#include <gtest/gtest.h>

#include <string>

#include "Kiln/HashMap.h"
#include "Kiln/TypeRecord.h"
#include "Nimbet/EthAddr.h"
#include "Nimbet/IntfId.h"

using Nimbet::EthAddr;
using Nimbet::IntfId;

namespace {

TEST(IntfId, DefaultIsTheEmptyName) {
  IntfId none;
  EXPECT_EQ(none.name(), "");
  EXPECT_EQ(none, IntfId(""));
  EXPECT_NE(none, IntfId("Ethernet1"));
}

TEST(IntfId, TextFormIsTheQuotedNameAndParsesBack) {
  EXPECT_EQ(Kiln::strep(IntfId("Ethernet1")), "'Ethernet1'");
  EXPECT_EQ(Kiln::strep(IntfId()), "''");
  for (const IntfId& i : {IntfId(), IntfId("Ethernet1"), IntfId("Port-Channel7"), IntfId("it's")}) {
    EXPECT_EQ(IntfId::fromStrep(Kiln::strep(i)), i) << Kiln::strep(i);
    std::string text = Kiln::strep(i);
    std::string_view view(text);
    EXPECT_EQ(IntfId(view.begin(), view.end()), i);
  }
  EXPECT_THROW(IntfId::fromStrep("Ethernet1"), Kiln::DeserializationException);
}

TEST(IntfId, HashIsTheNamesOwnTextHash) {
  EXPECT_EQ(IntfId("Ethernet1").hash(), Kiln::kilnHash(std::string("Ethernet1")));
  EXPECT_EQ(IntfId("Ethernet1").hash(), IntfId("Ethernet1").hash());
  EXPECT_NE(IntfId("Ethernet1").hash(), IntfId("Ethernet2").hash());
  EXPECT_EQ(Nimbet::kilnHash(IntfId("Ethernet3")), IntfId("Ethernet3").hash());
  EXPECT_EQ(IntfId::kilnType().hashValue("'Ethernet3'"), IntfId("Ethernet3").hash());
}

TEST(IntfId, OrdersByName) {
  EXPECT_LT(IntfId("Ethernet1"), IntfId("Ethernet2"));
  EXPECT_LE(IntfId("Ethernet1"), IntfId("Ethernet1"));
  EXPECT_GT(IntfId("Vlan1"), IntfId("Ethernet9"));
  EXPECT_GE(IntfId("Vlan1"), IntfId("Vlan1"));
}

TEST(IntfId, RecordHasTheNameAndTheHash) {
  const Kiln::TypeRecord& r = IntfId::kilnType();
  EXPECT_EQ(r.name(), "Nimbet::IntfId");
  ASSERT_NE(r.attribute("name"), nullptr);
  EXPECT_EQ(r.attribute("name")->index, 2u);
  ASSERT_NE(r.attribute("hash"), nullptr);
  EXPECT_EQ(r.attribute("hash")->index, 3u);
  EXPECT_EQ(r.getValue("'Ethernet1'", "name"), "'Ethernet1'");
}

TEST(EthAddr, IsSixBytesAllZeroByDefault) {
  EXPECT_EQ(sizeof(EthAddr), 6u);
  EthAddr zero;
  EXPECT_EQ(zero, EthAddr(0, 0, 0));
  EXPECT_EQ(zero.stringValue(), "00:00:00:00:00:00");
}

TEST(EthAddr, EqualityComparesEveryByte) {
  EthAddr a(0x001c, 0x7301, 0x0203);
  EXPECT_EQ(a, EthAddr(0x001c, 0x7301, 0x0203));
  EXPECT_NE(a, EthAddr(0x001c, 0x7301, 0x0204));
  EXPECT_NE(a, EthAddr(0x011c, 0x7301, 0x0203));
  EXPECT_FALSE(a != EthAddr(0x001c, 0x7301, 0x0203));
}

TEST(EthAddr, StringValueIsColonSeparatedHexInWireOrder) {
  EXPECT_EQ(EthAddr(0x001c, 0x7301, 0x0203).stringValue(), "00:1c:73:01:02:03");
  EXPECT_EQ(EthAddr(0xffff, 0xffff, 0xffff).stringValue(), "ff:ff:ff:ff:ff:ff");
}

TEST(EthAddr, TextFormParsesBack) {
  EthAddr a(0x001c, 0x7301, 0x0203);
  EXPECT_EQ(Kiln::strep(a),
            "Value('Nimbet::EthAddr', ** {'word0': 28, 'word1': 29441, 'word2': 515})");
  EXPECT_EQ(EthAddr::fromStrep(Kiln::strep(a)), a);
  EXPECT_EQ(EthAddr::fromStrep(Kiln::strep(EthAddr())), EthAddr());
  EXPECT_THROW(EthAddr::fromStrep("00:1c:73:01:02:03"), Kiln::DeserializationException);
}

TEST(EthAddr, IsNotHashable) {
  EXPECT_THROW(EthAddr::kilnType().hashValue(Kiln::strep(EthAddr())),
               Kiln::UnhashableTypeException);
}

}  // namespace
