#include "FmApi/FmApi.h"

#include <cstdio>
#include <string>

#include "Trace/Trace.h"

namespace FmApi {

FmError::FmError(S32 status, const char* function, Kiln::String8 message)
    : Kiln::Exception(message), status(status), function(function) {}

void trace1(const char* caller, const char* format, ...) {
  static Trace::Handle& handle = Trace::handle("FmApi");
  std::string text = std::string(caller) + ": ";
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  if (length > 0) {
    const size_t prefix = text.size();
    text.resize(prefix + static_cast<size_t>(length) + 1);
    std::vsnprintf(text.data() + prefix, static_cast<size_t>(length) + 1, format, again);
    text.resize(prefix + static_cast<size_t>(length));
  }
  va_end(again);
  Trace::emit(handle, Trace::chipCallLevel, text);
}

}  // namespace FmApi
