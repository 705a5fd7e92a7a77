// generated from tuning.kiln by kilngen; do not edit
//
// entity Tuning : Kiln::PtrInterface
//   nonotify
//   attr delay : double = 5.0 settable
//   attr fixedAt : U16
//   counter runs : U32
//   counter retries : U16 settable
//   attr mode : bool custom settable
#include "Golden/Tuning.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Tuning";

class TuningTypeRecord : public Kiln::TypeRecord {
 public:
  TuningTypeRecord()
      : Kiln::TypeRecord("Golden::Tuning",
                         std::is_base_of_v<Kiln::Entity, Tuning> ? Kiln::TypeKind::entity : Kiln::TypeKind::pointerInterface,
                         &Kiln::ptrInterfaceType(),
                         {
                             {"delay", Tuning::kilnDelayIndex, Kiln::AttributeKind::scalar, "double", "", true},
                             {"fixedAt", Tuning::kilnFixedAtIndex, Kiln::AttributeKind::scalar, "U16", ""},
                             {"runs", Tuning::kilnRunsIndex, Kiln::AttributeKind::counter, "U32", ""},
                             {"retries", Tuning::kilnRetriesIndex, Kiln::AttributeKind::counter, "U16", "", true},
                             {"mode", Tuning::kilnModeIndex, Kiln::AttributeKind::scalar, "bool", "", true},
                         },
                         {}) {}

 protected:
  std::string kilnGet(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Tuning&>(o);
    switch (index) {
      case Tuning::kilnDelayIndex: return Kiln::reflectText(self.delay());
      case Tuning::kilnFixedAtIndex: return Kiln::reflectText(self.fixedAt());
      case Tuning::kilnRunsIndex: return Kiln::reflectText(self.runs());
      case Tuning::kilnRetriesIndex: return Kiln::reflectText(self.retries());
      case Tuning::kilnModeIndex: return Kiln::reflectText(self.mode());
    }
    return TypeRecord::kilnGet(o, index);
  }

  void kilnSet(Kiln::PtrInterface& o, U32 index, std::string_view text) const override {
    auto& self = dynamic_cast<Tuning&>(o);
    switch (index) {
      case Tuning::kilnDelayIndex:
        self.delayIs(Kiln::reflectParse<double>(text));
        return;
      case Tuning::kilnFixedAtIndex:
        self.fixedAtIs(Kiln::reflectParse<U16>(text));
        return;
      case Tuning::kilnRunsIndex:
        self.runsIs(Kiln::reflectParse<U32>(text));
        return;
      case Tuning::kilnRetriesIndex:
        self.retriesIs(Kiln::reflectParse<U16>(text));
        return;
      case Tuning::kilnModeIndex:
        self.modeIs(Kiln::reflectParse<bool>(text));
        return;
    }
    TypeRecord::kilnSet(o, index, text);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)
      const override {
    expectArguments("constructor", args, 0);
    return Kiln::kilnNew<Tuning>();
  }
};

}  // namespace

Tuning::Tuning()
    : Kiln::PtrInterface() {
}

Tuning::~Tuning() {
}

const Kiln::TypeRecord& Tuning::kilnType() {
  static const TuningTypeRecord record;
  return record;
}

}  // namespace Golden
