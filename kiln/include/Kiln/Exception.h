// The runtime's exception hierarchy. The runtime and the glort lookup are the
// only pieces that throw; everything else reports status codes or asserts.
#pragma once

#include <stdexcept>
#include <string>

namespace Kiln {

// Base of every exception thrown by the runtime and the chip-API layer.
// what() returns the text given at construction, unchanged.
class Exception : public std::runtime_error {
 public:
  explicit Exception(const std::string& text) : std::runtime_error(text) {}
  std::string text() const { return what(); }
};

// A value outside what an operation accepts ("null ValidPtr",
// "linkqueue index space full", a null mutator argument).
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// An entity collection re-instantiated with a different constructor parameter.
class NameInUseException : public Exception {
 public:
  using Exception::Exception;
};

// A broken protocol inside the runtime (for example the activity lock's).
class InternalException : public Exception {
 public:
  using Exception::Exception;
};

// Reflective access to an attribute or operation that the type does not have.
class OperationNotSupportedException : public Exception {
 public:
  using Exception::Exception;
};

// Text that does not parse as the value form of the requested type.
class DeserializationException : public Exception {
 public:
  using Exception::Exception;
};

// Hashing a value type that declares itself unhashable.
class UnhashableTypeException : public Exception {
 public:
  using Exception::Exception;
};

// The system's text for an error number (thread-safe strerror_r into a
// 256-byte buffer).
std::string errorString(int errnum);

// A failed system call: carries the error number; the text is the caller's
// message followed by ": " and errorString(errnum).
class ErrnoException : public Exception {
 public:
  ErrnoException(int errnum, const std::string& message);
  int errnum() const { return errnum_; }

 private:
  int errnum_;
};

}  // namespace Kiln
