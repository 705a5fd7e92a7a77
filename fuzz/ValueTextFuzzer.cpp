// Fuzzes the value text form's parsers: every scalar kind of the runtime and
// every registered value type and enumeration (through its type record).
//
// Input: the first line names the parser (a scalar type as schemas write it,
// such as U16 or Kiln::Seconds, or a registered type's qualified name), the
// rest of the input is the text parsed; an unknown name is skipped. Bad
// text must be refused with Kiln::DeserializationException and nothing else;
// text that parses must be written back in a form that parses to the same
// text again (the written form is the canonical one; a value holding a
// collection, written "None", is left out), and a parsed value's
// fields, hash and enumeration lookups must answer without failing.
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include "Brevant/Version.h"
#include "FuzzSupport.h"
#include "Kiln/Exception.h"
#include "Kiln/Strep.h"
#include "Kiln/Support.h"
#include "Kiln/TypeRecord.h"

namespace {

typedef std::function<void(std::string_view)> Parser;

// A scalar kind: the text form of what parses must read back to itself.
template <class T>
void scalarRoundTrip(std::string_view text) {
  T value{};
  try {
    value = Kiln::strepToValue<T>(text);
  } catch (const Kiln::DeserializationException&) {
    return;
  }
  const std::string written = Kiln::strep(value);
  const std::string again = Kiln::strep(Kiln::strepToValue<T>(written));
  Fuzz::check(again == written, "'" + written + "' reads back as '" + again + "'");
}

// A registered value type or enumeration.
void recordRoundTrip(const Kiln::TypeRecord& record, std::string_view text) {
  if (record.kind() == Kiln::TypeKind::enumeration) {
    // Lookups by name and by number answer for any text.
    record.enumValue(text);
    if (text.size() >= sizeof(S64)) {
      S64 number = 0;
      std::memcpy(&number, text.data(), sizeof number);
      if (auto found = record.enumValue(number)) {
        Fuzz::check(record.enumValue(found->name)->value == number,
                    record.name() + " value " + found->name + " has two numbers");
      }
    }
  }
  std::string written;
  try {
    written = record.parseValue(text);
  } catch (const Kiln::DeserializationException&) {
    return;
  }
  // A value holding a collection writes "None" and parses the collection
  // form: its written text does not read back, by design.
  if (written == "None") return;
  const std::string again = record.parseValue(written);
  Fuzz::check(again == written,
              record.name() + ": '" + written + "' reads back as '" + again + "'");
  if (record.kind() != Kiln::TypeKind::value) return;
  for (const Kiln::AttributeRecord* attribute : record.attributes()) {
    if (attribute->kind == Kiln::AttributeKind::field ||
        attribute->kind == Kiln::AttributeKind::derived) {
      record.getValue(written, attribute->name);
    }
  }
  try {
    record.hashValue(written);
  } catch (const Kiln::UnhashableTypeException&) {
  }
}

std::map<std::string, Parser, std::less<>> makeParsers() {
  std::map<std::string, Parser, std::less<>> parsers = {
      {"bool", scalarRoundTrip<bool>},
      {"S8", scalarRoundTrip<S8>},
      {"U8", scalarRoundTrip<U8>},
      {"S16", scalarRoundTrip<S16>},
      {"U16", scalarRoundTrip<U16>},
      {"S32", scalarRoundTrip<S32>},
      {"U32", scalarRoundTrip<U32>},
      {"S64", scalarRoundTrip<S64>},
      {"U64", scalarRoundTrip<U64>},
      {"long long", scalarRoundTrip<long long>},
      {"unsigned long long", scalarRoundTrip<unsigned long long>},
      {"Kiln::Seconds", scalarRoundTrip<Kiln::Seconds>},  // every time, and double
      {"Kiln::Name", scalarRoundTrip<Kiln::Name>},        // every string
      {"Kiln::LinkQueueMetadata", scalarRoundTrip<Kiln::LinkQueueMetadata>},
  };
  for (const Kiln::TypeRecord* record : Kiln::typeRecords()) {
    if (record->kind() == Kiln::TypeKind::value || record->kind() == Kiln::TypeKind::enumeration) {
      parsers.emplace(record->name(),
                      [record](std::string_view text) { recordRoundTrip(*record, text); });
    }
  }
  return parsers;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::map<std::string, Parser, std::less<>> parsers = makeParsers();
  // The library's records register when it loads; without them the run
  // would fuzz the scalars only.
  static const bool registered =
      Brevant::version() != nullptr && Kiln::typeRecord("Brevant::SwitchPort") != nullptr;
  Fuzz::check(registered, "the library's value types are not registered");
  std::string_view text = Fuzz::inputText(data, size);
  const size_t newline = text.find('\n');
  if (newline == std::string_view::npos) return 0;
  const auto parser = parsers.find(text.substr(0, newline));
  if (parser == parsers.end()) return 0;
  parser->second(text.substr(newline + 1));
  return 0;
}
