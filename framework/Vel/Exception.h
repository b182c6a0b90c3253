// The framework's exceptions. what() is the message exactly as it was given.
#pragma once

#include <Vel/Export.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

namespace Vel {

class VEL_EXPORT Exception : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
   ~Exception() override;
};

// A value that the operation can't take.
class VEL_EXPORT RangeException : public Exception {
 public:
   using Exception::Exception;
   ~RangeException() override;
};

// What is asked for exists already and differs.
class VEL_EXPORT NameInUseException : public Exception {
 public:
   using Exception::Exception;
   ~NameInUseException() override;
};

// The attribute has no such operation.
class VEL_EXPORT OpNotSupportedException : public Exception {
 public:
   using Exception::Exception;
   ~OpNotSupportedException() override;
};

// A system call failed; the message ends with the system's text for the error.
class VEL_EXPORT SystemException : public Exception {
 public:
   SystemException(const std::string& what, int error);
   ~SystemException() override;
   int error() const noexcept { return error_; } // an errno

 private:
   int error_;
};

[[noreturn]] VEL_EXPORT void throwRangeException(const char* message);
[[noreturn]] VEL_EXPORT void throwNameInUseException(const char* message);
[[noreturn]] VEL_EXPORT void throwOpNotSupportedException(const char* message);
[[noreturn]] VEL_EXPORT void throwSystemException(const char* what, int error);

// Runs several steps of which each must have its turn although an earlier one threw, and then
// passes the first exception on; the later ones are dropped.
class FirstException {
 public:
   template <class Step> void run(Step&& step) {
      try {
         std::forward<Step>(step)();
      } catch (...) {
         if (!first_) {
            first_ = std::current_exception();
         }
      }
   }
   void rethrow() const {
      if (first_) {
         std::rethrow_exception(first_);
      }
   }

 private:
   std::exception_ptr first_;
};

} // namespace Vel
