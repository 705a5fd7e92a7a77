// Type records: registration, attribute and operation indexes, enumeration
// tables, the ".kiln.type" section, and the reflective interface.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "KilnTest/Chip.h"
#include "KilnTest/Colour.h"
#include "KilnTest/Device.h"
#include "KilnTest/Engine.h"
#include "KilnTest/Group.h"
#include "KilnTest/Hub.h"
#include "KilnTest/Lag.h"
#include "KilnTest/Listener.h"
#include "KilnTest/Port.h"
#include "KilnTest/PortSet.h"
#include "KilnTest/Station.h"

using Kiln::MemberText;
using KilnTest::Chip;
using KilnTest::Hub;
using KilnTest::Station;
using Texts = std::vector<std::string>;

namespace {

const Kiln::TypeRecord& record(const char* name) {
  const Kiln::TypeRecord* r = Kiln::typeRecord(name);
  if (!r) throw std::runtime_error(std::string("not registered: ") + name);
  return *r;
}

U32 indexOf(const Kiln::TypeRecord& r, const char* attribute) {
  const Kiln::AttributeRecord* a = r.attribute(attribute);
  return a ? a->index : 0;
}

TEST(TypeRecord, EveryTypeIsRegisteredInDeclarationOrder) {
  std::vector<std::string> names;
  for (const Kiln::TypeRecord* r : Kiln::typeRecords()) {
    if (r->name().rfind("KilnTest::", 0) == 0) names.push_back(r->name());
  }
  EXPECT_EQ(names, (Texts{"KilnTest::Colour", "KilnTest::Port", "KilnTest::Lag", "KilnTest::Device",
                          "KilnTest::PortSet", "KilnTest::Chip", "KilnTest::Listener",
                          "KilnTest::Station", "KilnTest::Station::Mode", "KilnTest::Hub",
                          "KilnTest::Group", "KilnTest::Engine", "KilnTest::Tally"}));
  EXPECT_EQ(Kiln::typeRecord("KilnTest::Station"), &Station::kilnType());
  EXPECT_EQ(Kiln::typeRecord("KilnTest::Nothing"), nullptr);
  EXPECT_NE(Kiln::typeRecord("Kiln::Entity"), nullptr);
}

TEST(TypeRecord, RegisteringAnotherRecordUnderATakenNameThrows) {
  Kiln::TypeRecord impostor("KilnTest::Station", Kiln::TypeKind::entity, nullptr, {});
  EXPECT_THROW(Kiln::typeRecordIs(impostor), Kiln::NameInUseException);
  EXPECT_NO_THROW(Kiln::typeRecordIs(Station::kilnType()));
  EXPECT_EQ(Kiln::typeRecord("KilnTest::Station"), &Station::kilnType());
}

TEST(TypeRecord, KindsAreRecorded) {
  EXPECT_EQ(record("KilnTest::Port").kind(), Kiln::TypeKind::value);
  EXPECT_EQ(record("KilnTest::Colour").kind(), Kiln::TypeKind::enumeration);
  EXPECT_EQ(record("KilnTest::Chip").kind(), Kiln::TypeKind::pointerInterface);
  EXPECT_EQ(record("KilnTest::Station").kind(), Kiln::TypeKind::entity);
  EXPECT_EQ(record("KilnTest::Hub").kind(), Kiln::TypeKind::entity);
}

TEST(TypeRecord, ValueTypeIndexesStartAtTwoWithDerivedAttributesAfterTheFields) {
  const Kiln::TypeRecord& r = record("KilnTest::Port");
  EXPECT_EQ(indexOf(r, "sw"), 2u);
  EXPECT_EQ(indexOf(r, "portId"), 3u);
  EXPECT_EQ(indexOf(r, "hash"), 4u);
  EXPECT_EQ(indexOf(r, "stringValue"), 5u);
  EXPECT_EQ(r.attribute(4)->kind, Kiln::AttributeKind::derived);
}

TEST(TypeRecord, PointerInterfaceIndexesStartAt130AndAQueueTakesTwo) {
  const Kiln::TypeRecord& r = record("KilnTest::Chip");
  EXPECT_EQ(indexOf(r, "sw"), 130u);
  EXPECT_EQ(indexOf(r, "version"), 131u);
  EXPECT_EQ(indexOf(r, "label"), 132u);
  EXPECT_EQ(indexOf(r, "maxSlice"), 133u);
  EXPECT_EQ(indexOf(r, "freed"), 134u);
  EXPECT_EQ(indexOf(r, "freeIndexMetadata"), 135u);
  EXPECT_EQ(indexOf(r, "freeIndex"), 136u);
  EXPECT_EQ(indexOf(r, "peerPorts"), 137u);
  EXPECT_EQ(r.attribute(130)->kind, Kiln::AttributeKind::key);
  EXPECT_EQ(r.attribute(131)->kind, Kiln::AttributeKind::constructorParameter);
  EXPECT_EQ(r.attribute(134)->kind, Kiln::AttributeKind::counter);
  EXPECT_EQ(r.attribute(135)->kind, Kiln::AttributeKind::queueMetadata);
  EXPECT_EQ(r.attribute(136)->kind, Kiln::AttributeKind::queue);
  EXPECT_EQ(r.attribute(136)->keyTypeName, "U32");
  EXPECT_EQ(r.attribute(137)->keyTypeName, "U8");
  EXPECT_EQ(r.attribute(137)->typeName, "PortSet");
}

TEST(TypeRecord, EntityHasTheBaseAttributesThenItsOwnFrom258) {
  const Kiln::TypeRecord& r = record("KilnTest::Station");
  EXPECT_EQ(indexOf(r, "name"), 130u);
  EXPECT_EQ(indexOf(r, "parent"), 138u);
  EXPECT_EQ(indexOf(r, "parentAttrName"), 139u);
  EXPECT_EQ(indexOf(r, "fullName"), 141u);
  EXPECT_EQ(indexOf(r, "entity"), 143u);
  EXPECT_EQ(indexOf(r, "count"), 258u);
  EXPECT_EQ(indexOf(r, "pendingMetadata"), 266u);
  EXPECT_EQ(indexOf(r, "pending"), 267u);
  EXPECT_EQ(indexOf(r, "reserved"), 271u);
  EXPECT_EQ(r.attribute(271)->kind, Kiln::AttributeKind::recordOnly);
  std::vector<U32> indexes;
  for (const Kiln::AttributeRecord* a : r.attributes()) indexes.push_back(a->index);
  EXPECT_TRUE(std::is_sorted(indexes.begin(), indexes.end()));
  EXPECT_EQ(indexes.front(), 130u);
}

TEST(TypeRecord, OperationsShareTheNumberingWithTheirParameterNames) {
  const Kiln::TypeRecord& r = record("KilnTest::Station");
  const Kiln::OperationRecord* scaled = r.operation("scaled");
  ASSERT_NE(scaled, nullptr);
  EXPECT_EQ(scaled->index, 272u);
  EXPECT_EQ(scaled->returnTypeName, "U32");
  EXPECT_EQ(scaled->parameterNames, (Texts{"factor"}));
  EXPECT_EQ(r.operation("resetAll")->index, 273u);
  const Kiln::OperationRecord* heard = record("KilnTest::Listener").operation("heard");
  EXPECT_EQ(heard->parameterNames, (Texts{"groupId", "baseIndex"}));
  EXPECT_EQ(heard->parameterTypeNames, (Texts{"U16", "U16"}));
  EXPECT_EQ(r.operation("nothing"), nullptr);
}

TEST(TypeRecord, DerivedEntityContinuesAt386AfterItsBase) {
  const Kiln::TypeRecord& r = record("KilnTest::Hub");
  EXPECT_EQ(r.base(), &Station::kilnType());
  EXPECT_EQ(indexOf(r, "name"), 130u);
  EXPECT_EQ(indexOf(r, "count"), 258u);
  EXPECT_EQ(indexOf(r, "load"), 386u);
  EXPECT_EQ(indexOf(r, "links"), 387u);
  EXPECT_EQ(indexOf(r, "children"), 388u);
  EXPECT_EQ(r.operation("describe")->index, 389u);
  EXPECT_NE(r.operation("scaled"), nullptr);
  EXPECT_EQ(Hub::kilnAttributeStart, 386u);
}

TEST(TypeRecord, EnumerationRecordsItsValueTable) {
  const Kiln::TypeRecord& r = record("KilnTest::Colour");
  ASSERT_EQ(r.enumValues().size(), 3u);
  EXPECT_EQ(r.enumValues()[2].name, "blue");
  EXPECT_EQ(r.enumValues()[2].value, 7);
  EXPECT_EQ(r.enumValue(2)->name, "green");
  EXPECT_EQ(r.enumValue("red")->value, 1);
  EXPECT_FALSE(r.enumValue(3).has_value());
  EXPECT_EQ(record("KilnTest::Station::Mode").enumValue("loud")->value, 1);
}

TEST(TypeRecord, FwkTypeIsTheMostDerivedRecord) {
  Kiln::Ptr<Hub> h = Hub::HubIs("h");
  const Kiln::PtrInterface& asBase = *h;
  EXPECT_EQ(&asBase.fwkType(), &Hub::kilnType());
  Kiln::Ptr<Chip> c = new Chip(1, 1);
  EXPECT_EQ(c->fwkType().name(), "KilnTest::Chip");
}

// The names of a loaded library's ".kiln.type" section, read from its file.
std::vector<std::string> kilnTypeSection(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string image((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const auto* header = reinterpret_cast<const Elf64_Ehdr*>(image.data());
  const auto* sections = reinterpret_cast<const Elf64_Shdr*>(image.data() + header->e_shoff);
  const char* names = image.data() + sections[header->e_shstrndx].sh_offset;
  std::vector<std::string> found;
  for (int i = 0; i < header->e_shnum; ++i) {
    if (std::string(names + sections[i].sh_name) != ".kiln.type") continue;
    const char* p = image.data() + sections[i].sh_offset;
    const char* end = p + sections[i].sh_size;
    while (p < end) {
      std::string name(p);
      if (!name.empty()) found.push_back(name);
      p += name.size() + 1;
    }
  }
  return found;
}

TEST(TypeRecord, TypeNamesAreCollectedInTheLibrarysKilnTypeSection) {
  Dl_info info;
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&Station::kilnType), &info), 0);
  std::vector<std::string> names = kilnTypeSection(info.dli_fname);
  for (const char* expected : {"KilnTest::Station", "KilnTest::Port", "KilnTest::Colour",
                               "KilnTest::Station::Mode", "KilnTest::Engine"}) {
    EXPECT_NE(std::find(names.begin(), names.end(), expected), names.end()) << expected;
  }
  EXPECT_EQ(names.size(), 13u);
}

// --- The reflective interface of entities.

TEST(Reflect, ReadsScalarsKeysQueueMetadataAndBaseAttributes) {
  Kiln::Ptr<Station> s = Station::StationIs("top");
  s->countIs(7);
  s->pendingEnq("a");
  const Kiln::TypeRecord& r = s->fwkType();
  EXPECT_EQ(r.get(*s, "count"), "7");
  EXPECT_EQ(r.get(*s, 258), "7");
  EXPECT_EQ(r.get(*s, "ratio"), "60.0");
  EXPECT_EQ(r.get(*s, "mode"), "quiet");
  EXPECT_EQ(r.get(*s, "pendingMetadata"),
            "Value('Kiln::LinkQueueMetadata', ** {'headIndex': 0, 'nextIndex': 1})");
  EXPECT_EQ(r.get(*s, "name"), "'top'");
  EXPECT_EQ(r.get(*s, "fullName"), "'top'");
  EXPECT_EQ(r.get(*s, "parent"), "None");
  EXPECT_EQ(r.get(*s, "parentAttrName"), "''");
  EXPECT_EQ(r.get(*s, "entity"), "Ref('KilnTest::Station', 'top')");
  Kiln::Ptr<Chip> chip = s->chipsIs(2, 5);
  EXPECT_EQ(chip->fwkType().get(*chip, "sw"), "2");
  EXPECT_EQ(chip->fwkType().get(*chip, "version"), "5");
}

TEST(Reflect, ReadsEntityPointersAsRefs) {
  Kiln::Ptr<Station> s = Station::StationIs("s");
  const Kiln::TypeRecord& r = s->fwkType();
  EXPECT_EQ(r.get(*s, "engine"), "None");
  s->engineIs(2);
  EXPECT_EQ(r.get(*s, "engine"), "Ref('KilnTest::Engine')");
  s->peerIs(Station::StationIs("p"));
  EXPECT_EQ(r.get(*s, "peer"), "Ref('KilnTest::Station', 'p')");
}

TEST(Reflect, WritesThroughTheGeneratedMutatorSoNotificationApplies) {
  class CountLog : public Station::NotifieeConst {
   public:
    int counts = 0;
    void onCount() override { ++counts; }
  };
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<CountLog> n = new CountLog;
  n->notifierIs(s);
  const Kiln::TypeRecord& r = s->fwkType();
  r.set(*s, "count", "12");
  r.set(*s, 258, "12");
  r.set(*s, "mode", "loud");
  r.set(*s, "ratio", "0.25");
  EXPECT_EQ(s->count(), 12u);
  EXPECT_EQ(s->mode(), Station::loud);
  EXPECT_EQ(s->ratio(), 0.25);
  EXPECT_EQ(n->counts, 1);
  r.set(*s, "pendingMetadata",
        "Value('Kiln::LinkQueueMetadata', ** {'headIndex': 4, 'nextIndex': 6})");
  EXPECT_EQ(s->pendingMetadata(), (Kiln::LinkQueueMetadata{4, 6}));
  EXPECT_THROW(r.set(*s, "count", "-1"), Kiln::DeserializationException);
  EXPECT_EQ(s->count(), 12u);
}

TEST(Reflect, WritesThroughAHandWrittenSetter) {
  Kiln::Ptr<KilnTest::Engine> e = KilnTest::Engine::kilnCreate(1);
  e->fwkType().set(*e, "mode", "True");
  EXPECT_TRUE(e->mode());
  EXPECT_EQ(e->modeChanges, 1u);
}

TEST(Reflect, IteratesCollectionKeysAndValues) {
  Kiln::Ptr<Station> s = Station::StationIs("s");
  s->levelsIs(3, true);
  s->levelsIs(1, false);
  s->pendingEnq("x");
  s->pendingEnq("y");
  s->chipsIs(4, 1);
  const Kiln::TypeRecord& r = s->fwkType();
  EXPECT_EQ(r.members(*s, "levels"), (std::vector<MemberText>{{"1", "False"}, {"3", "True"}}));
  EXPECT_EQ(r.members(*s, "pending"), (std::vector<MemberText>{{"0", "'x'"}, {"1", "'y'"}}));
  EXPECT_EQ(r.members(*s, "chips"), (std::vector<MemberText>{{"4", "Ref('KilnTest::Chip')"}}));
  s->portsIs(KilnTest::Port(1, 2), KilnTest::red);
  EXPECT_EQ(
      r.members(*s, 261),
      (std::vector<MemberText>{{"Value('KilnTest::Port', ** {'sw': 1, 'portId': 2})", "red"}}));
}

TEST(Reflect, StoresAndDeletesCollectionMembers) {
  Kiln::Ptr<Station> s = Station::StationIs("s");
  const Kiln::TypeRecord& r = s->fwkType();
  r.memberIs(*s, "levels", "9", "True");
  EXPECT_TRUE(s->levels(9));
  r.memberIs(*s, "pending", "5", "'five'");
  EXPECT_EQ(s->pending(5), "five");
  r.memberDel(*s, "levels", "9");
  EXPECT_TRUE(s->levels().empty());
  s->chipsIs(1, 1);
  r.memberDel(*s, "chips", "1");
  EXPECT_TRUE(s->chips().empty());
  EXPECT_THROW(r.memberIs(*s, "chips", "1", "None"), Kiln::OperationNotSupportedException);
}

TEST(Reflect, FindsHeldEntitiesForPathWalking) {
  Kiln::Ptr<Station> s = Station::StationIs("s");
  Kiln::Ptr<Chip> chip = s->chipsIs(3, 1);
  const Kiln::TypeRecord& r = s->fwkType();
  EXPECT_EQ(r.child(*s, "chips", "3").ptr(), chip.ptr());
  EXPECT_EQ(r.child(*s, "chips", "4"), nullptr);
  EXPECT_EQ(r.child(*s, "engine"), nullptr);
  s->engineIs(1);
  EXPECT_EQ(r.child(*s, "engine").ptr(), s->engine().ptr());
  EXPECT_EQ(r.child(*s, "entity").ptr(), s.ptr());
  Kiln::Ptr<Kiln::PtrInterface> c = r.child(*s, "chips", "3");
  EXPECT_EQ(c->fwkType().get(*c, "version"), "1");
}

TEST(Reflect, InvokesRegisteredOperationsByName) {
  Kiln::Ptr<Station> s = Station::StationIs("s");
  s->countIs(6);
  s->portsIs(KilnTest::Port(1, 1), KilnTest::red);
  const Kiln::TypeRecord& r = s->fwkType();
  EXPECT_EQ(r.invoke(*s, "scaled", {"7"}), "42");
  EXPECT_EQ(r.invoke(*s, "resetAll", {}), "");
  EXPECT_EQ(s->count(), 0u);
  EXPECT_TRUE(s->ports().empty());
  Kiln::Ptr<Hub> h = Hub::HubIs("hub");
  h->loadIs(3);
  EXPECT_EQ(h->fwkType().invoke(*h, "describe", {}), "'hub load 3'");
  EXPECT_EQ(h->fwkType().invoke(*h, "scaled", {"2"}), "0");
}

TEST(Reflect, InvokeWithTheWrongArgumentCountIsNotSupported) {
  Kiln::Ptr<Station> s = Station::StationIs("s");
  EXPECT_THROW(s->fwkType().invoke(*s, "scaled", {}), Kiln::OperationNotSupportedException);
  EXPECT_THROW(s->fwkType().invoke(*s, "scaled", {"1", "2"}), Kiln::OperationNotSupportedException);
}

TEST(Reflect, ConstructsEntitiesFromArgumentTexts) {
  Kiln::Ptr<Kiln::PtrInterface> o = record("KilnTest::Station").construct({"'made'"});
  auto* s = dynamic_cast<Station*>(o.ptr());
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->name(), "made");
  Kiln::Ptr<Kiln::PtrInterface> c = record("KilnTest::Chip").construct({"4", "2"});
  EXPECT_EQ(dynamic_cast<Chip&>(*c).version(), 2);
  Kiln::Ptr<Kiln::PtrInterface> l = record("KilnTest::Listener").construct({"'l'", "blue"});
  EXPECT_EQ(dynamic_cast<KilnTest::Listener&>(*l).colour(), KilnTest::blue);
  EXPECT_THROW(record("KilnTest::Chip").construct({"4"}), Kiln::OperationNotSupportedException);
  // A raw pointer argument has no text form.
  EXPECT_THROW(record("KilnTest::Engine").construct({"1", "None"}),
               Kiln::OperationNotSupportedException);
}

TEST(Reflect, MissingAttributeOrOperationIsNotSupported) {
  Kiln::Ptr<Station> s = Station::StationIs("s");
  const Kiln::TypeRecord& r = s->fwkType();
  EXPECT_THROW(r.get(*s, "nothing"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.get(*s, 999), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.set(*s, "nothing", "1"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.invoke(*s, "nothing", {}), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.members(*s, "nothing"), Kiln::OperationNotSupportedException);
}

TEST(Reflect, AccessTheKindDoesNotAllowIsNotSupported) {
  Kiln::Ptr<Station> s = Station::StationIs("s");
  const Kiln::TypeRecord& r = s->fwkType();
  EXPECT_THROW(r.get(*s, "levels"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.get(*s, "reserved"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.set(*s, "name", "'x'"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.set(*s, "engine", "None"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.members(*s, "count"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.child(*s, "count"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.get(*s, "scaled"), Kiln::OperationNotSupportedException);
  Kiln::Ptr<Chip> c = new Chip(1, 1);
  EXPECT_THROW(c->fwkType().set(*c, "sw", "2"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(record("KilnTest::Port").construct({}), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.constructValue({}), Kiln::OperationNotSupportedException);
}

TEST(Reflect, NotSupportedTextNamesTypeAndAttribute) {
  Kiln::Ptr<Station> s = Station::StationIs("s");
  try {
    s->fwkType().get(*s, "nothing");
    FAIL() << "no exception";
  } catch (const Kiln::OperationNotSupportedException& e) {
    EXPECT_STREQ(e.what(), "KilnTest::Station has no attribute nothing");
  }
}

TEST(Reflect, AnAccessTheKindDoesNotAllowNamesTheObjectsOwnTypeAndAttribute) {
  // The refusal comes from the base's record, which must still name the
  // type and attribute the caller asked about, never a base and an index.
  Kiln::Ptr<Chip> c = new Chip(1, 1);
  const Kiln::TypeRecord& chip = c->fwkType();
  auto textOf = [](const std::function<void()>& access) -> std::string {
    try {
      access();
    } catch (const Kiln::OperationNotSupportedException& e) {
      return e.what();
    }
    return "no exception";
  };
  EXPECT_EQ(textOf([&] { chip.set(*c, "sw", "2"); }),
            "KilnTest::Chip has no writable attribute sw");
  EXPECT_EQ(textOf([&] { chip.members(*c, "label"); }),
            "KilnTest::Chip has no collection attribute label");
  EXPECT_EQ(textOf([&] { chip.child(*c, "maxSlice"); }),
            "KilnTest::Chip has no entity attribute maxSlice");
  EXPECT_EQ(textOf([&] { chip.memberIs(*c, "freed", "1", "2"); }),
            "KilnTest::Chip has no value collection attribute freed");
  EXPECT_EQ(textOf([&] { chip.set(*c, 9999u, "2"); }),
            "KilnTest::Chip has no writable attribute 9999");
  Kiln::Ptr<Station> s = Station::StationIs("s");
  EXPECT_EQ(textOf([&] { s->fwkType().set(*s, "name", "'x'"); }),
            "KilnTest::Station has no writable attribute name");
}

TEST(TypeRecord, RecordsWhichAttributesTheSchemaMarksSettable) {
  const Kiln::TypeRecord& chip = record("KilnTest::Chip");
  EXPECT_TRUE(chip.attribute("maxSlice")->settable);
  for (const Kiln::AttributeRecord* a : chip.attributes()) {
    EXPECT_EQ(a->settable, a->name == "maxSlice") << a->name;
  }
  for (const Kiln::AttributeRecord* a : record("Kiln::Entity").attributes()) {
    EXPECT_FALSE(a->settable) << a->name;
  }
}

// --- The reflective interface of value types and enumerations.

TEST(ReflectValue, ConstructsFromFieldTexts) {
  const Kiln::TypeRecord& r = record("KilnTest::Port");
  EXPECT_EQ(r.constructValue({"3", "17"}), "Value('KilnTest::Port', ** {'sw': 3, 'portId': 17})");
  EXPECT_EQ(r.constructValue({"3"}), "Value('KilnTest::Port', ** {'sw': 3, 'portId': 0})");
  EXPECT_THROW(r.constructValue({"1", "2", "3"}), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.constructValue({"x"}), Kiln::DeserializationException);
  EXPECT_EQ(record("KilnTest::Device").constructValue({"'d'"}),
            "Value('KilnTest::Device', ** {'devName': 'd', 'sw': 0, 'lag': 0, 'weight': 1.5, "
            "'colour': green})");
}

TEST(ReflectValue, ParsesAndReadsFields) {
  const Kiln::TypeRecord& r = record("KilnTest::Port");
  const std::string text = "Value('KilnTest::Port', ** {'sw': 1, 'portId': 2})";
  EXPECT_EQ(r.parseValue(text), text);
  EXPECT_EQ(r.getValue(text, "portId"), "2");
  EXPECT_EQ(r.getValue(text, "stringValue"), "'1.2'");
  EXPECT_EQ(r.getValue(text, "hash"), "3");
  EXPECT_THROW(r.getValue(text, "nothing"), Kiln::OperationNotSupportedException);
  EXPECT_THROW(r.parseValue("None"), Kiln::DeserializationException);
}

TEST(ReflectValue, HashesHashableTypesAndRefusesTheOthers) {
  EXPECT_EQ(
      record("KilnTest::Port").hashValue("Value('KilnTest::Port', ** {'sw': 2, 'portId': 1})"), 3u);
  EXPECT_EQ(record("KilnTest::Lag").hashValue("-1"), 0xFFFFFFFFu);
  EXPECT_THROW(record("KilnTest::Device").constructValue({"x"}), Kiln::DeserializationException);
  try {
    record("KilnTest::Device").hashValue(record("KilnTest::Device").constructValue({}));
    FAIL() << "no exception";
  } catch (const Kiln::UnhashableTypeException& e) {
    EXPECT_STREQ(e.what(), "KilnTest::Device is not hashable");
  }
}

TEST(ReflectValue, ValueHoldingACollectionConstructsFromTheCollectionForm) {
  const Kiln::TypeRecord& r = record("KilnTest::PortSet");
  EXPECT_EQ(r.constructValue({"{1: True}"}), "None");
  EXPECT_EQ(r.getValue("{1: True, 2: False}", "port"), "{2: False, 1: True}");
}

TEST(ReflectValue, EnumerationParsesNamesAndConstructsFromNameOrNumber) {
  const Kiln::TypeRecord& r = record("KilnTest::Colour");
  EXPECT_EQ(r.parseValue("blue"), "blue");
  EXPECT_EQ(r.constructValue({"7"}), "blue");
  EXPECT_EQ(r.constructValue({"red"}), "red");
  EXPECT_EQ(r.hashValue("blue"), 7u);
  EXPECT_THROW(r.constructValue({"8"}), Kiln::DeserializationException);
  EXPECT_THROW(r.parseValue("purple"), Kiln::DeserializationException);
}

}  // namespace
