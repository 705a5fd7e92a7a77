#include "Kiln/Support.h"

namespace Kiln {

std::string valueToStrep(const LinkQueueMetadata& m) {
  return "Value('Kiln::LinkQueueMetadata', ** {'headIndex': " + valueToStrep(m.headIndex) +
         ", 'nextIndex': " + valueToStrep(m.nextIndex) + "})";
}

void sequenceToValue(TextReader& in, LinkQueueMetadata& m) {
  LinkQueueMetadata parsed;
  in.expect("Value('Kiln::LinkQueueMetadata', ** {");
  in.expect("'headIndex': ");
  sequenceToValue(in, parsed.headIndex);
  in.expect(", 'nextIndex': ");
  sequenceToValue(in, parsed.nextIndex);
  in.expect("})");
  m = parsed;
}

void reinstantiationError(const char* param, const std::string& newText,
                          const std::string& currentText) {
  throw NameInUseException(
      std::string("Reinstantiating the pointer interface where constructor parameter "
                  "attribute _") +
      param + " has a different value of " + newText + " than the current value of " + currentText +
      " not allowed");
}

}  // namespace Kiln
