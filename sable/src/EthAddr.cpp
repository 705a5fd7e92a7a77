// Hand-written parts of Nimbet::EthAddr.
#include "Nimbet/EthAddr.h"

#include <cstdio>

namespace Nimbet {

Kiln::String8 EthAddr::stringValue() const {
  char text[sizeof "00:00:00:00:00:00"];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", word0_ >> 8, word0_ & 0xff,
                word1_ >> 8, word1_ & 0xff, word2_ >> 8, word2_ & 0xff);
  return text;
}

}  // namespace Nimbet
