#include <Vel/Exception.h>

#include <system_error>

namespace Vel {

// Out of line, so that each class has its type information in one library.
Exception::~Exception() = default;
RangeException::~RangeException() = default;
NameInUseException::~NameInUseException() = default;
OpNotSupportedException::~OpNotSupportedException() = default;
SystemException::~SystemException() = default;

SystemException::SystemException(const std::string& what, int error)
   : Exception(what + ": " + std::generic_category().message(error)), error_(error) {}

void throwRangeException(const char* message) { throw RangeException(message); }
void throwNameInUseException(const char* message) { throw NameInUseException(message); }
void throwOpNotSupportedException(const char* message) { throw OpNotSupportedException(message); }
void throwSystemException(const char* what, int error) { throw SystemException(what, error); }

} // namespace Vel
