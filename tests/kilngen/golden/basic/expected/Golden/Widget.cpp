// generated from widget.kiln by kilngen; do not edit
//
// entity Widget : Kiln::Entity
//   attr count : U32
//   counter hits : U16
//   coll tags : U32 -> Point
//   queue jobs : U32
//   ref other : Widget
//   op void reset(U32 to)
#include "Golden/Widget.h"

#include <string>
#include <string_view>
#include <vector>

namespace Golden {

namespace {

// The type's name in the library's ".kiln.type" section.
[[gnu::used, gnu::section(".kiln.type")]] const char kilnTypeName[] = "Golden::Widget";

class WidgetTypeRecord : public Kiln::TypeRecord {
 public:
  WidgetTypeRecord()
      : Kiln::TypeRecord("Golden::Widget",
                         std::is_base_of_v<Kiln::Entity, Widget> ? Kiln::TypeKind::entity : Kiln::TypeKind::pointerInterface,
                         &Kiln::Entity::kilnType(),
                         {
                             {"count", Widget::kilnCountIndex, Kiln::AttributeKind::scalar, "U32", ""},
                             {"hits", Widget::kilnHitsIndex, Kiln::AttributeKind::counter, "U16", ""},
                             {"tags", Widget::kilnTagsIndex, Kiln::AttributeKind::collection, "Point", "U32"},
                             {"jobsMetadata", Widget::kilnJobsMetadataIndex, Kiln::AttributeKind::queueMetadata, "Kiln::LinkQueueMetadata", ""},
                             {"jobs", Widget::kilnJobsIndex, Kiln::AttributeKind::queue, "U32", "U32"},
                             {"other", Widget::kilnOtherIndex, Kiln::AttributeKind::reference, "Widget", ""},
                         },
                         {
                             {"reset", Widget::kilnResetIndex, "void", {"to"}, {"U32"}},
                         }) {}

 protected:
  std::string kilnGet(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Widget&>(o);
    switch (index) {
      case Widget::kilnCountIndex: return Kiln::reflectText(self.count());
      case Widget::kilnHitsIndex: return Kiln::reflectText(self.hits());
      case Widget::kilnJobsMetadataIndex: return Kiln::reflectText(self.jobsMetadata());
      case Widget::kilnOtherIndex: return Kiln::reflectText(self.other());
    }
    return TypeRecord::kilnGet(o, index);
  }

  void kilnSet(Kiln::PtrInterface& o, U32 index, std::string_view text) const override {
    auto& self = dynamic_cast<Widget&>(o);
    switch (index) {
      case Widget::kilnCountIndex:
        self.countIs(Kiln::reflectParse<U32>(text));
        return;
      case Widget::kilnHitsIndex:
        self.hitsIs(Kiln::reflectParse<U16>(text));
        return;
      case Widget::kilnJobsMetadataIndex:
        self.jobsMetadataIs(Kiln::reflectParse<Kiln::LinkQueueMetadata>(text));
        return;
    }
    TypeRecord::kilnSet(o, index, text);
  }

  std::vector<Kiln::MemberText> kilnMembers(const Kiln::PtrInterface& o, U32 index) const override {
    const auto& self = dynamic_cast<const Widget&>(o);
    switch (index) {
      case Widget::kilnTagsIndex: return Kiln::reflectMembers(self.tags());
      case Widget::kilnJobsIndex: return Kiln::reflectMembers(self.jobs());
    }
    return TypeRecord::kilnMembers(o, index);
  }

  void kilnMemberIs(Kiln::PtrInterface& o, U32 index, std::string_view keyText,
                    std::string_view valueText) const override {
    auto& self = dynamic_cast<Widget&>(o);
    switch (index) {
      case Widget::kilnTagsIndex:
        self.tagsIs(Kiln::reflectParse<U32>(keyText), Kiln::reflectParse<Point>(valueText));
        return;
      case Widget::kilnJobsIndex:
        self.jobsIs(Kiln::reflectParse<U32>(keyText), Kiln::reflectParse<U32>(valueText));
        return;
    }
    TypeRecord::kilnMemberIs(o, index, keyText, valueText);
  }

  void kilnMemberDel(Kiln::PtrInterface& o, U32 index, std::string_view keyText) const override {
    auto& self = dynamic_cast<Widget&>(o);
    switch (index) {
      case Widget::kilnTagsIndex:
        self.tagsDel(Kiln::reflectParse<U32>(keyText));
        return;
      case Widget::kilnJobsIndex:
        self.jobsDel(Kiln::reflectParse<U32>(keyText));
        return;
    }
    TypeRecord::kilnMemberDel(o, index, keyText);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnChild(const Kiln::PtrInterface& o, U32 index,
                                           std::string_view keyText) const override {
    const auto& self = dynamic_cast<const Widget&>(o);
    switch (index) {
      case Widget::kilnOtherIndex: return Kiln::reflectChild(self.other());
    }
    return TypeRecord::kilnChild(o, index, keyText);
  }

  std::string kilnInvoke(Kiln::PtrInterface& o, const Kiln::OperationRecord& op,
                         const std::vector<std::string>& args) const override {
    [[maybe_unused]] auto& self = dynamic_cast<Widget&>(o);
    switch (op.index) {
      case Widget::kilnResetIndex:
        self.reset(Kiln::reflectParse<U32>(args[0]));
        return "";
    }
    return TypeRecord::kilnInvoke(o, op, args);
  }

  Kiln::Ptr<Kiln::PtrInterface> kilnConstruct(const std::vector<std::string>& args)
      const override {
    expectArguments("constructor", args, 1);
    return Kiln::kilnNew<Widget>(Kiln::reflectParse<Kiln::Name>(args[0]));
  }
};

}  // namespace

Widget::Widget(const Kiln::Name& name)
    : Kiln::Entity(name) {
}

Widget::~Widget() {
}

const Kiln::TypeRecord& Widget::kilnType() {
  static const WidgetTypeRecord record;
  return record;
}

Kiln::Ptr<Widget> widgetFactory(const Kiln::Name& name) {
  return Widget::WidgetIs(name);
}

}  // namespace Golden
