#include "Kiln/Exception.h"

#include <string.h>

namespace Kiln {

std::string errorString(int errnum) {
  char buffer[256];
  // GNU strerror_r may return a static text instead of filling the buffer.
  const char* text = strerror_r(errnum, buffer, sizeof(buffer));
  return text;
}

ErrnoException::ErrnoException(int errnum, const std::string& message)
    : Exception(message + ": " + errorString(errnum)), errnum_(errnum) {}

}  // namespace Kiln
