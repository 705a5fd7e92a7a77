// The library's type records: registered at load time in a fixed order, and
// their names collected in the ".kiln.type" section of the built library.
// Includes only the umbrella header, which must be enough for every type.
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Brevant/Brevant.h"

using Names = std::vector<std::string>;

namespace {

// The names of the registered records of this library, in registration order.
Names registeredLibraryTypes() {
  Names names;
  for (const Kiln::TypeRecord* r : Kiln::typeRecords()) {
    if (r->name().rfind("Brevant::", 0) == 0) names.push_back(r->name());
  }
  return names;
}

// The NUL-separated texts of section `name` of the 64-bit ELF file at path
// (empty texts, which alignment padding makes, left out).
Names elfSectionTexts(const std::string& path, const std::string& name) {
  std::ifstream file(path, std::ios::binary);
  const std::string image((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  Elf64_Ehdr header;
  if (image.size() < sizeof header) return {};
  std::memcpy(&header, image.data(), sizeof header);
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64) {
    return {};
  }
  auto section = [&](unsigned i) {
    Elf64_Shdr s;
    std::memcpy(&s, image.data() + header.e_shoff + i * sizeof s, sizeof s);
    return s;
  };
  const Elf64_Shdr names = section(header.e_shstrndx);
  for (unsigned i = 0; i < header.e_shnum; ++i) {
    const Elf64_Shdr s = section(i);
    if (name != image.data() + names.sh_offset + s.sh_name) continue;
    Names texts;
    const char* p = image.data() + s.sh_offset;
    const char* end = p + s.sh_size;
    while (p < end) {
      const std::string text(p, strnlen(p, end - p));
      if (!text.empty()) texts.push_back(text);
      p += text.size() + 1;
    }
    return texts;
  }
  return {};
}

TEST(TypeRegistration, TypesAreRegisteredInTheLibrarysOrder) {
  EXPECT_EQ(registeredLibraryTypes(),
            (Names{"Brevant::BrevantCommonSmData", "Brevant::BrevantCommonSmData::SwitchMode",
                   "Brevant::KernelDev",           "Brevant::PortList",
                   "Brevant::BrevantPortStatus",   "Brevant::Vxlan1GStatus",
                   "Brevant::PortEventCounter",    "Brevant::SwitchInfo",
                   "Brevant::SwitchPort",          "Brevant::LagIndex",
                   "Brevant::FfuEntries",          "Brevant::DefragManager",
                   "Brevant::NextHopManager",      "Brevant::FeatureType",
                   "Brevant::NextHopEntry",        "Brevant::ECMPGroup",
                   "Brevant::U64Collection",       "Brevant::NextHopCallback",
                   "Brevant::NextHopResources",    "Brevant::GroupPlacement"}));
}

TEST(TypeRegistration, RecordsAreFoundByTheirQualifiedNames) {
  EXPECT_EQ(Kiln::typeRecord("Brevant::SwitchPort"), &Brevant::SwitchPort::kilnType());
  EXPECT_EQ(Kiln::typeRecord("Brevant::BrevantCommonSmData::SwitchMode"),
            &Brevant::SwitchModeKilnType());
  EXPECT_EQ(Kiln::typeRecord("Brevant::FfuEntries")->enumValue(512)->name, "qosEntries");
  EXPECT_EQ(Kiln::typeRecord("Brevant::SwitchInfo")->kind(), Kiln::TypeKind::pointerInterface);
  EXPECT_EQ(Kiln::typeRecord("Brevant::Vxlan1GStatus")->kind(), Kiln::TypeKind::entity);
  EXPECT_EQ(Kiln::typeRecord("Brevant::KernelDev")->kind(), Kiln::TypeKind::value);
}

TEST(TypeRegistration, KilnTypeSectionOfTheLibraryHoldsEveryRegisteredName) {
  Dl_info info;
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&Brevant::SwitchPort::kilnType), &info), 0);
  ASSERT_NE(std::string(info.dli_fname).find("libbrevant-brevant"), std::string::npos)
      << info.dli_fname;
  Names inSection = elfSectionTexts(info.dli_fname, ".kiln.type");
  Names registered = registeredLibraryTypes();
  std::sort(inSection.begin(), inSection.end());
  std::sort(registered.begin(), registered.end());
  EXPECT_EQ(inSection, registered);
  EXPECT_EQ(inSection.size(), 20u);
}

TEST(TypeRegistration, FactoriesCreateEntitiesByName) {
  Kiln::Ptr<Brevant::BrevantCommonSmData> state = Brevant::brevantCommonSmDataFactory("agent");
  Kiln::Ptr<Brevant::Vxlan1GStatus> vxlan = Brevant::vxlan1GStatusFactory("vxlan");
  EXPECT_EQ(state->fwkType().name(), "Brevant::BrevantCommonSmData");
  EXPECT_EQ(vxlan->fwkType().name(), "Brevant::Vxlan1GStatus");
  EXPECT_EQ(state->name(), "agent");
  EXPECT_EQ(vxlan->name(), "vxlan");
}

}  // namespace
