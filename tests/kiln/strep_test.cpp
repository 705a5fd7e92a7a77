// The value text form: scalars, value types, enumerations, values holding a
// collection; round trips and parse failures.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>

#include "KilnTest/Colour.h"
#include "KilnTest/Device.h"
#include "KilnTest/Lag.h"
#include "KilnTest/Port.h"
#include "KilnTest/PortSet.h"
#include "KilnTest/Station.h"

using KilnTest::Colour;
using KilnTest::Device;
using KilnTest::Lag;
using KilnTest::Port;
using KilnTest::PortSet;

namespace {

template <class T>
T roundTrip(const T& v) {
  return Kiln::strepToValue<T>(Kiln::strep(v));
}

TEST(Strep, IntegersAreDecimal) {
  EXPECT_EQ(Kiln::strep(U8(200)), "200");
  EXPECT_EQ(Kiln::strep(S8(-5)), "-5");
  EXPECT_EQ(Kiln::strep(U16(65535)), "65535");
  EXPECT_EQ(Kiln::strep(S32(-1)), "-1");
  EXPECT_EQ(Kiln::strep(std::numeric_limits<U64>::max()), "18446744073709551615");
  EXPECT_EQ(Kiln::strep(std::numeric_limits<S64>::min()), "-9223372036854775808");
}

TEST(Strep, IntegersRoundTripAndRejectWhatDoesNotFit) {
  EXPECT_EQ(roundTrip(U8(255)), 255);
  EXPECT_EQ(roundTrip(S8(-128)), -128);
  EXPECT_EQ(roundTrip(std::numeric_limits<S64>::min()), std::numeric_limits<S64>::min());
  EXPECT_THROW(Kiln::strepToValue<U8>("256"), Kiln::DeserializationException);
  EXPECT_THROW(Kiln::strepToValue<S8>("128"), Kiln::DeserializationException);
  EXPECT_THROW(Kiln::strepToValue<U32>("-1"), Kiln::DeserializationException);
  EXPECT_THROW(Kiln::strepToValue<U32>("12x"), Kiln::DeserializationException);
  EXPECT_THROW(Kiln::strepToValue<U32>(""), Kiln::DeserializationException);
  EXPECT_THROW(Kiln::strepToValue<U32>(" 1"), Kiln::DeserializationException);
}

TEST(Strep, BoolIsTrueOrFalse) {
  EXPECT_EQ(Kiln::strep(true), "True");
  EXPECT_EQ(Kiln::strep(false), "False");
  EXPECT_TRUE(roundTrip(true));
  EXPECT_FALSE(roundTrip(false));
  EXPECT_THROW(Kiln::strepToValue<bool>("true"), Kiln::DeserializationException);
  EXPECT_THROW(Kiln::strepToValue<bool>("1"), Kiln::DeserializationException);
}

TEST(Strep, DoubleIsTheShortestExactTextAndAlwaysLooksLikeADouble) {
  EXPECT_EQ(Kiln::strep(60.0), "60.0");
  EXPECT_EQ(Kiln::strep(0.1), "0.1");
  EXPECT_EQ(Kiln::strep(-2.5), "-2.5");
  EXPECT_EQ(Kiln::strep(1e300), "1e+300");
  EXPECT_EQ(Kiln::strep(std::numeric_limits<double>::infinity()), "inf");
  EXPECT_EQ(Kiln::strep(std::nan("")), "nan");
  EXPECT_EQ(roundTrip(0.1), 0.1);
  EXPECT_EQ(roundTrip(1.0 / 3.0), 1.0 / 3.0);
  EXPECT_TRUE(std::isnan(roundTrip(std::nan(""))));
  EXPECT_THROW(Kiln::strepToValue<double>("x"), Kiln::DeserializationException);
  EXPECT_THROW(Kiln::strepToValue<double>("1.0.0"), Kiln::DeserializationException);
}

TEST(Strep, StringsAreSingleQuotedWithEscapes) {
  EXPECT_EQ(Kiln::strep(std::string("Ethernet1")), "'Ethernet1'");
  EXPECT_EQ(Kiln::strep(std::string("it's")), "'it\\'s'");
  EXPECT_EQ(Kiln::strep(std::string("a\\b\n\t\r")), "'a\\\\b\\n\\t\\r'");
  EXPECT_EQ(Kiln::strep(std::string("\x01\x7f")), "'\\x01\\x7f'");
  EXPECT_EQ(Kiln::strep(std::string()), "''");
  for (std::string s : {"", "plain", "it's", "a\\b\n\t\r", "\x01\x7f\xff", "{'x': 1}"}) {
    EXPECT_EQ(roundTrip(s), s);
  }
}

TEST(Strep, MalformedStringsDoNotParse) {
  for (const char* text : {"abc", "'abc", "'a\\qb'", "'a\\x4'", "'abc'x", "\"abc\""}) {
    EXPECT_THROW(Kiln::strepToValue<std::string>(text), Kiln::DeserializationException) << text;
  }
}

TEST(Strep, ValueTypeIsTheTupleForm) {
  EXPECT_EQ(Kiln::strep(Port(3, 17)), "Value('KilnTest::Port', ** {'sw': 3, 'portId': 17})");
  std::ostringstream out;
  out << Port(1, 2);
  EXPECT_EQ(out.str(), "Value('KilnTest::Port', ** {'sw': 1, 'portId': 2})");
}

TEST(Strep, ValueTypeWithNestedValuesStringsAndEnumerations) {
  Device d("et1", 2, Lag(-1), 0.5, KilnTest::blue);
  EXPECT_EQ(Kiln::strep(d),
            "Value('KilnTest::Device', ** {'devName': 'et1', 'sw': 2, 'lag': -1, "
            "'weight': 0.5, 'colour': blue})");
  EXPECT_EQ(roundTrip(d), d);
}

TEST(Strep, ValueTypeParsesFromAnIteratorPair) {
  std::string_view text = "Value('KilnTest::Port', ** {'sw': 1, 'portId': 200})";
  Port p(text.begin(), text.end());
  EXPECT_EQ(p, Port(1, 200));
}

TEST(Strep, ValueTypeParseRejectsAnyOtherText) {
  const char* bad[] = {
      "Value('KilnTest::Port', ** {'sw': 1})",
      "Value('KilnTest::Port', ** {'portId': 2, 'sw': 1})",
      "Value('KilnTest::Port', ** {'sw': 1,'portId': 2})",
      "Value('KilnTest::Port', **{'sw': 1, 'portId': 2})",
      "Value('Other::Port', ** {'sw': 1, 'portId': 2})",
      "Value('KilnTest::Port', ** {'sw': 1, 'portId': 2}) ",
      "Value('KilnTest::Port', ** {'sw': 300, 'portId': 2})",
      "None",
      "",
  };
  for (const char* text : bad) {
    EXPECT_THROW(Port::fromStrep(text), Kiln::DeserializationException) << text;
  }
}

TEST(Strep, DeserializationErrorNamesWhatWasExpected) {
  try {
    Port::fromStrep("Value('KilnTest::Port', ** {'sw': x");
    FAIL() << "no exception";
  } catch (const Kiln::DeserializationException& e) {
    EXPECT_NE(std::string(e.what()).find("a decimal number"), std::string::npos) << e.what();
  }
}

TEST(Strep, BareValueIsItsFieldsText) {
  EXPECT_EQ(Kiln::strep(Lag(-1)), "-1");
  EXPECT_EQ(Lag::fromStrep("-1"), Lag(Lag::invalid));
  EXPECT_THROW(Lag::fromStrep("Value('KilnTest::Lag', ** {'value': -1})"),
               Kiln::DeserializationException);
}

TEST(Strep, ValueHoldingACollectionRendersNone) {
  PortSet empty;
  PortSet full;
  full.portIs(4, true);
  full.portIs(9, false);
  EXPECT_EQ(Kiln::strep(empty), "None");
  EXPECT_EQ(Kiln::strep(full), "None");
  std::ostringstream out;
  out << full;
  EXPECT_EQ(out.str(), "None");
}

TEST(Strep, ValueHoldingACollectionParsesTheCollectionForm) {
  PortSet s = PortSet::fromStrep("{4: True, 9: False}");
  EXPECT_EQ(s.port().members(), 2u);
  EXPECT_TRUE(s.port(4));
  EXPECT_FALSE(s.port(9));
  EXPECT_EQ(PortSet::fromStrep("{}"), PortSet());
  EXPECT_EQ(Kiln::collectionToStrep(PortSet::fromStrep("{4: True}").port()), "{4: True}");
  EXPECT_THROW(PortSet::fromStrep("None"), Kiln::DeserializationException);
  EXPECT_THROW(PortSet::fromStrep("{4 True}"), Kiln::DeserializationException);
}

TEST(Strep, EnumerationIsItsValueName) {
  EXPECT_EQ(KilnTest::stringValue(KilnTest::blue), "blue");
  EXPECT_EQ(Kiln::strep(KilnTest::green), "green");
  std::ostringstream out;
  out << KilnTest::red << ' ' << KilnTest::Station::loud;
  EXPECT_EQ(out.str(), "red loud");
  EXPECT_EQ(roundTrip(KilnTest::blue), KilnTest::blue);
  EXPECT_EQ(Kiln::strepToValue<KilnTest::Station::Mode>("loud"), KilnTest::Station::loud);
  EXPECT_THROW(Kiln::strepToValue<Colour>("purple"), Kiln::DeserializationException);
  EXPECT_THROW(Kiln::strepToValue<Colour>("7"), Kiln::DeserializationException);
}

TEST(Strep, EnumerationOutsideItsTableIsItsNumber) {
  EXPECT_EQ(KilnTest::stringValue(static_cast<Colour>(5)), "5");
}

TEST(Strep, EnumerationInstanceLooksUpTheRegisteredTable) {
  EXPECT_EQ(KilnTest::ColourInstance(7u), KilnTest::blue);
  EXPECT_EQ(KilnTest::ColourInstance(std::string("green")), KilnTest::green);
  EXPECT_FALSE(KilnTest::ColourInstance(3u).has_value());
  EXPECT_FALSE(KilnTest::ColourInstance(std::string("purple")).has_value());
  EXPECT_EQ(KilnTest::ModeInstance(1u), KilnTest::Station::loud);
}

TEST(Strep, QueueMetadataHasATextForm) {
  Kiln::LinkQueueMetadata m{3, 9};
  EXPECT_EQ(Kiln::strep(m),
            "Value('Kiln::LinkQueueMetadata', ** {'headIndex': 3, 'nextIndex': 9})");
  EXPECT_EQ(roundTrip(m), m);
}

TEST(ValueType, EqualityComparesEveryField) {
  EXPECT_EQ(Port(1, 2), Port(1, 2));
  EXPECT_NE(Port(1, 2), Port(2, 1));
  Device a("x", 1, Lag(1));
  Device b = a;
  EXPECT_EQ(a, b);
  b.weightIs(2.0);
  EXPECT_NE(a, b);
}

TEST(ValueType, NanFieldIsNeverEqual) {
  Device d("x", 1, Lag(1), std::nan(""));
  Device copy = d;
  EXPECT_FALSE(d == copy);
  EXPECT_TRUE(d != copy);
}

TEST(ValueType, OrderedTypeComparesLexicographically) {
  Port low(1, 200);
  Port high(2, 0);
  EXPECT_LT(low, high);
  EXPECT_LE(low, high);
  EXPECT_GT(high, low);
  EXPECT_GE(high, low);
  EXPECT_LE(low, low);
  EXPECT_GE(low, low);
  EXPECT_FALSE(low < low);
  EXPECT_FALSE(low > low);
}

TEST(ValueType, FieldsHaveTheirDefaults) {
  Device d;
  EXPECT_EQ(d.devName(), "");
  EXPECT_EQ(d.weight(), 1.5);
  EXPECT_EQ(d.colour(), KilnTest::green);
  EXPECT_EQ(Port().sw(), 0);
}

TEST(ValueType, ValueHoldingACollectionCopiesAndComparesItsMembers) {
  PortSet a;
  a.portIs(1, true);
  a.portIs(2, false);
  PortSet b = a;
  EXPECT_EQ(a, b);
  b.portIs(2, true);
  EXPECT_NE(a, b);
  EXPECT_FALSE(a.port(2));
  b.portDel(2);
  EXPECT_NE(a, b);
  EXPECT_EQ(b.portDel(7), false);
  b.newPort(2, false);
  EXPECT_EQ(a, b);
  b.portDelAll();
  EXPECT_TRUE(b.port().empty());
}

}  // namespace
